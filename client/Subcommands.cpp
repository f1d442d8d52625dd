#include "client/Subcommand.h"

#include <algorithm>
#include <array>
#include <optional>

#include <CLI/CLI.hpp>

#include "client/ClientVersion.h"
#include "client/CollectCommand.h"
#include "client/GetCommand.h"
#include "client/KillCommand.h"
#include "client/ListCommand.h"
#include "client/PutCommand.h"
#include "client/RunCommand.h"
#include "client/ShellCommand.h"
#include "client/SubcommandParser.h"
#include "client/SubmitCommand.h"

namespace
{
constexpr auto Table = std::to_array<Subcommand>({
    {"run", "Run a command and print its output as it comes", RunCommand},
    {"submit", "Run a command and print its output when it has ended, or leave it to itself", RunSubmit},
    {"collect", "Take the logs of commands that were left to themselves", RunCollect},
    {"state", "Tell whether such a command is still at work", RunState},
    {"shell", "Feed a shell with standard input", RunShell},
    {"list", "Show what the server runs", RunList},
    {"kill", "End commands and transfers", RunKill},
    {"put", "Move files to the server's machine", RunPut},
    {"get", "Move files from the server's machine", RunGet},
    {"shutdown", "End the server", RunShutdown},
});

/**
 * Words of a command must not reach an option parser, which reads a meaning into some: "[a,b]" is a list to
 * it, and the name of a subcommand begins that one anew. So each subcommand has a parser of its own, which
 * stops at the first word that is no option; what stands behind "--" it is not even shown.
 */
struct DividedArguments {
    /** Up to the subcommand's name, with it. */
    std::vector<std::string> general;
    Arguments subcommands;
};

DividedArguments Divide(int argc, const char* const* argv)
{
    DividedArguments divided;
    const std::vector<std::string> all(argv + std::min(argc, 1), argv + argc);
    const auto dashes = std::find(all.begin(), all.end(), "--");
    const auto name =
        std::find_if(all.begin(), dashes, [](const std::string& one) { return !one.starts_with('-'); });
    const auto ownBegin = name == dashes ? name : name + 1;
    divided.general.assign(all.begin(), ownBegin);
    divided.subcommands.own.assign(ownBegin, dashes);
    divided.subcommands.hasDashes = dashes != all.end();
    if (divided.subcommands.hasDashes)
        divided.subcommands.behindDashes.assign(dashes + 1, all.end());
    return divided;
}
} // namespace

std::span<const Subcommand> Subcommands()
{
    return Table;
}

int RunProgram(int argc, const char* const* argv)
{
    CLI::App parser("Runs commands and moves files through a RuvelServer.", std::string(ProgramName()));
    parser.set_version_flag("--version", std::string(ClientVersion));
    parser.footer(std::string(ProgramName()) + " SUBCOMMAND --help tells more.");
    for (const Subcommand& one : Table)
        parser.add_subcommand(std::string(one.name), std::string(one.summary));
    const DividedArguments arguments = Divide(argc, argv);
    try {
        parser.parse(std::vector<std::string>(arguments.general.rbegin(), arguments.general.rend()));
    } catch (const CLI::Success& asked) {
        return parser.exit(asked);
    } catch (const CLI::Error& error) {
        return Complain(error.what());
    }
    for (const Subcommand& one : Table)
        if (parser.got_subcommand(std::string(one.name)))
            return one.run(one, arguments.subcommands);
    return Complain("A subcommand is required");
}
