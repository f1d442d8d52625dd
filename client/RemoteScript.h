#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "client/Failure.h"
#include "client/Server.h"

/** What a script left behind. */
struct ScriptResult {
    /** Both its output streams. */
    std::string output;
    int code = 0;
};

/**
 * Runs a small shell script of ours on the server's machine, as the user and in the home directory, with the
 * words as $1, $2 and so on; they may hold any bytes but NUL. A failure is ours or the server's; the script's
 * own is for the caller to see.
 */
Failure RunRemoteScript(const Server& server, std::string_view script,
                        std::initializer_list<std::string_view> words, ScriptResult& result);

/** The line that carries it: one without "|", whatever is in the words. */
std::string MakeScriptLine(std::string_view script, std::initializer_list<std::string_view> words);
