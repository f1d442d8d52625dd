#include "client/CommandLine.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <string_view>

#include <CLI/CLI.hpp>
#include <pwd.h>
#include <unistd.h>

#include "client/ClientVersion.h"
#include "support/BaseSocket.h"
#include "support/QORUnicodeString.h"

namespace
{
constexpr const char* DefaultHost = "localhost";
constexpr int DefaultPort = 5678;

/** The arguments as they are told apart before any is read. */
struct Arguments {
    /** Up to the subcommand's name, with it. */
    std::vector<std::string> general;
    /** Behind the name: the subcommand's options, perhaps with words of a command behind. */
    std::vector<std::string> own;
    std::vector<std::string> behindDashes;
    bool hasDashes = false;
};

/**
 * Words of a command must not reach an option parser, which reads a meaning into some: "[a,b]" is a list to
 * it, and the name of a subcommand begins that one anew. So each subcommand has a parser of its own, which
 * stops at the first word that is no option; what stands behind "--" it is not even shown.
 */
Arguments Divide(int argc, const char* const* argv)
{
    Arguments divided;
    const std::vector<std::string> all(argv + std::min(argc, 1), argv + argc);
    const auto dashes = std::find(all.begin(), all.end(), "--");
    const auto name =
        std::find_if(all.begin(), dashes, [](const std::string& one) { return !one.starts_with('-'); });
    const auto ownBegin = name == dashes ? name : name + 1;
    divided.general.assign(all.begin(), ownBegin);
    divided.own.assign(ownBegin, dashes);
    divided.hasDashes = dashes != all.end();
    if (divided.hasDashes)
        divided.behindDashes.assign(dashes + 1, all.end());
    return divided;
}

/** Collects the command: the words that stopped the parser, then what stands behind "--". Or says why not. */
std::string CollectWords(const std::vector<std::string>& stoppedAt, const Arguments& arguments,
                         std::vector<std::string>& words)
{
    words = stoppedAt;
    if (!words.empty() && words.front().size() > 1 && words.front().front() == '-')
        return "The following option was not expected: " + words.front();
    // Dashes behind the first word are the command's own.
    if (!words.empty() && arguments.hasDashes)
        words.emplace_back("--");
    words.insert(words.end(), arguments.behindDashes.begin(), arguments.behindDashes.end());
    return words.empty() ? "A command to run is required" : "";
}

std::string OwnUserName()
{
    const passwd* const entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

/** Reads host, host:port or :port; or says why not. */
std::string ReadHost(std::string_view text, ServerAddress& server)
{
    const std::size_t colon = text.rfind(':');
    server.host = text.substr(0, colon);
    if (server.host.empty())
        server.host = DefaultHost;
    server.port = DefaultPort;
    if (colon == std::string_view::npos)
        return "";
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, server.port);
    const bool isSound =
        error == std::errc() && stop == end && server.port >= 1 && server.port <= BaseSocket::HighestPort;
    return isSound ? "" : "the port must be a number from 1 to 65535";
}

std::string CheckSeconds(const std::string& text)
{
    long seconds = 0;
    const bool isSound = QORUnicodeString(text).ConvertToNum(&seconds, "%ld") && seconds >= 0;
    return isSound ? "" : "the time-out must be a whole number of seconds, 0 or more";
}

/** Adds to the usage line what the parser does not know of, the command that stops it. */
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App* app, std::string name) const override
    {
        std::string usage = Formatter::make_usage(app, std::move(name));
        const std::size_t lineEnd = usage.find_last_not_of('\n') + 1;
        return app->get_prefix_command() ? usage.insert(lineEnd, " [--] COMMAND [ARGUMENT]...") : usage;
    }
};

constexpr const char* RunDescription = "Run a command and print its output as it comes";
constexpr const char* RunFooter =
    "The command's words keep their boundaries; for pipes, variables and the like run a shell:\n"
    "  RuvelControl run -- sh -c 'make 2>&1; echo done'\n"
    "Exits with the command's code, with 124 when the time-out ended it, and with 255, after one line\n"
    "on standard error, when RuvelControl or the server failed.";

/** The exit code after a complaint about the arguments. */
int Complain(const std::string& reason)
{
    return ReportFailure(reason + " (RuvelControl --help tells more)");
}

/** Parses and returns the exit code to leave with, if any: help and version are answered here. */
std::optional<int> Parse(CLI::App& parser, const std::vector<std::string>& arguments)
{
    try {
        // It takes them from the end.
        parser.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::Success& asked) {
        return parser.exit(asked);
    } catch (const CLI::Error& error) {
        return Complain(error.what());
    }
    return std::nullopt;
}

CommandLine ReadRun(const Arguments& arguments)
{
    CLI::App parser(RunDescription, "RuvelControl run");
    parser.formatter(std::make_shared<HelpFormatter>());
    parser.footer(RunFooter);
    parser.prefix_command();
    std::string host;
    RunOptions options;
    options.server.user = OwnUserName();
    parser.add_option("-H,--host", host, "Server: HOST, HOST:PORT or :PORT (localhost:5678)")
        ->type_name("SERVER");
    parser.add_option("-u,--user", options.server.user, "User to run as (your own name)")->type_name("NAME");
    parser
        .add_option("--timeout", options.lifeTimeOut, "End the command after this many seconds; 0 is never")
        ->type_name("SECONDS")
        ->check(CheckSeconds);

    if (const std::optional<int> exitCode = Parse(parser, arguments.own))
        return {{}, *exitCode};
    std::string reason = ReadHost(host, options.server);
    if (reason.empty())
        reason = CollectWords(parser.remaining(), arguments, options.words);
    if (!reason.empty())
        return {{}, Complain(reason)};
    return {std::move(options), 0};
}
} // namespace

CommandLine ReadCommandLine(int argc, const char* const* argv)
{
    CLI::App parser("Runs commands through a RuvelServer.", "RuvelControl");
    parser.set_version_flag("--version", std::string(ClientVersion));
    parser.add_subcommand("run", RunDescription);
    const Arguments arguments = Divide(argc, argv);
    if (const std::optional<int> exitCode = Parse(parser, arguments.general))
        return {{}, *exitCode};
    if (!parser.got_subcommand("run"))
        return {{}, Complain("A subcommand is required")};
    return ReadRun(arguments);
}

int ReportFailure(const std::string& text)
{
    // One write, so that the line stays whole among others.
    const std::string line = "RuvelControl: " + text + "\n";
    std::fputs(line.c_str(), stderr);
    return ClientFailure;
}
