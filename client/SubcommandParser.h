#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "client/ServerOptions.h"
#include "client/Subcommand.h"

/**
 * Reads a subcommand's arguments. Help goes to standard output; one line of complaint to standard error.
 *
 *     SubcommandParser parser(self, "What stands below the options in --help.");
 *     parser.Options().add_option("--timeout", ...);
 *     if (const std::optional<int> exitCode = parser.Parse(arguments))
 *         return *exitCode;
 *     Server server;
 *     if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
 *         return Report(failure);
 */
class SubcommandParser
{
public:
    /** Nobody: a subcommand that speaks to no server is not asked who and where. */
    enum class Asks { Server, Nobody };

    /** `usage` is what follows "[OPTIONS]" in the usage line, the
     * words that are no options: the parser stops at the first, and Words() has them all. */
    SubcommandParser(const Subcommand& self, std::string usage, std::string footer = {},
                     Asks asks = Asks::Server);

    /** To add the subcommand's own options to, and none that is positional. */
    CLI::App& Options() { return app_; }
    /** For subcommands whose words are no command: options may stand behind words too, up to "--". */
    void TakeOptionsAnywhere();
    /** What to exit with at once, if anything: after help, or after a complaint. */
    std::optional<int> Parse(const Arguments& arguments);

    const ServerOptions& WhoAndWhere() const { return serverOptions_; }
    /** All words that are no options: those that stopped the parser, "--" behind them, and what follows. */
    const std::vector<std::string>& Words() const { return words_; }

private:
    std::string CollectWords(const Arguments& arguments);

    CLI::App app_;
    ServerOptions serverOptions_;
    std::vector<std::string> words_;
};

/** Complains about the arguments and gives the exit code for that. */
int Complain(const std::string& reason);

/** Reads a duration such as 90, 30s, 10m, 2h or 1d: seconds, nothing when it is none. */
std::optional<long> ReadDuration(const std::string& text);
/** A check for the options that hold one; empty when it does. */
std::string CheckDuration(const std::string& text);
