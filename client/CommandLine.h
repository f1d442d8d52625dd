#pragma once

#include <optional>
#include <string>
#include <vector>

/** What every failure of the client or the server ends with; commands have the codes below it too. */
inline constexpr int ClientFailure = 255;

/** Where a request goes, and in whose name. */
struct ServerAddress {
    std::string host;
    int port = 0;
    std::string user;
};

struct RunOptions {
    ServerAddress server;
    /** Seconds after which the server ends the command, 0 for no limit. */
    long lifeTimeOut = 0;
    std::vector<std::string> words;
};

/** The command line as read: what to do, or, when nothing is left to do, what to exit with. */
struct CommandLine {
    std::optional<RunOptions> run;
    int exitCode = 0;
};

/** Reads the arguments. Help and version go to standard output, one line of complaint to standard error. */
CommandLine ReadCommandLine(int argc, const char* const* argv);

/** Writes "RuvelControl: " and the text as one line to standard error; the exit code to end with. */
int ReportFailure(const std::string& text);
