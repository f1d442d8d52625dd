#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/Failure.h"

/**
 * The calling convention that remote shells share, so that other programs can use this one as theirs:
 *
 *   ruvelsh [OPTION]... [USER@]HOST [OPTION]... [--] WORD...
 *
 * The words joined by blanks are a shell line. Of what is given twice the first counts.
 */
struct RemoteShellCall {
    /** Where to leave at once: what to exit with. */
    std::optional<int> exitCode;
    std::string host;
    std::optional<std::string> user;
    std::optional<int> port;
    std::optional<int> connectTimeOut;
    std::string proxy;
    /** The keys of -o that have been given. */
    std::vector<std::string> keys;
    bool passesInput = true;
    bool isBatch = false;
    std::string line;
};

/** The name under which this program follows that convention. */
inline constexpr std::string_view RemoteShellName = "ruvelsh";

/** Reads the arguments behind the program's name. */
Failure ReadRemoteShellCall(const std::vector<std::string>& arguments, RemoteShellCall& call);

/** The whole program under that name. The exit code: the command's, or ClientFailure. */
int RunRemoteShell(int argc, const char* const* argv);
