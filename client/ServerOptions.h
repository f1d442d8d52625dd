#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "client/Failure.h"
#include "client/Server.h"

/** "Who and where" as it was asked for; every subcommand that speaks to a server has these options. */
struct ServerOptions {
    /** HOST, HOST:PORT or :PORT; else from RUVEL_HOST, else this machine. */
    std::optional<std::string> host;
    /** Else from RUVEL_USER, else the name of this process' account. */
    std::optional<std::string> user;
    /** Else from RUVEL_PASSWORD_FILE, where nothing stands for no password; else a terminal is asked. */
    std::optional<std::string> passwordFile;
    std::optional<int> passwordDescriptor;
    std::string proxy;
    /** Ask nobody. */
    bool isBatch = false;
};

/**
 * Fills in all of `server`, the password too: from the file or descriptor, else by asking on the terminal,
 * else (batch, no terminal) it is empty.
 */
Failure FindServer(const ServerOptions& options, Server& server);

/** Reads HOST, HOST:PORT or :PORT. What is left out stays as it is in `server`. */
Failure ReadHost(std::string_view text, Server& server);
