#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "client/Failure.h"
#include "support/FileDescriptor.h"

/**
 * A shell command whose standard input and output are one end of a connection, such as
 * "ssh -W %h:%p gateway". Ended by its id, with all that it started in its own group, when the object goes.
 */
class ProxyCommand
{
public:
    ProxyCommand() = default;
    ProxyCommand(const ProxyCommand&) = delete;
    ProxyCommand& operator=(const ProxyCommand&) = delete;
    ~ProxyCommand() { End(); }

    /** Starts it with %h, %p and %% replaced; `socket` receives this side's end. */
    Failure Start(std::string_view command, const std::string& host, int port, FileDescriptor& socket);
    bool IsRunning() const { return processId_ > 0; }
    void End();

private:
    pid_t processId_ = 0;
};

/** The command with %h and %p replaced, both quoted for the shell, and %% for a percent sign. */
std::string ExpandProxyCommand(std::string_view command, const std::string& host, int port);
