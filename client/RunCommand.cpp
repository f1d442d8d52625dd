#include "client/RunCommand.h"

#include <optional>

#include <sys/stat.h>
#include <unistd.h>

#include "client/CommandRun.h"
#include "client/ShellWords.h"
#include "client/SubcommandParser.h"

namespace
{
constexpr const char* Footer =
    "The command's words keep their boundaries; a shell line is one word behind -c:\n"
    "  RuvelControl run -c 'make 2>&1 | tail -3; echo done'\n"
    "Exits with the command's code (128 + n after signal n), with 124 when the time-out ended it, and with\n"
    "255, after a line on standard error, when RuvelControl or the server failed. Ctrl-C ends the command\n"
    "with all that it started; a second Ctrl-C leaves at once.";

struct RunOptions {
    bool isLine = false;
    bool passesInput = false;
    bool passesNothing = false;
    bool mergesErrors = false;
    std::string lifeTimeOut = "0";
};

void AddOptions(CLI::App& app, RunOptions& options)
{
    app.add_flag("-c", options.isLine, "The one word is a shell line, passed as it is");
    auto* const input =
        app.add_flag("-i", options.passesInput, "Pass standard input on, also from a terminal");
    app.add_flag("-n", options.passesNothing, "Pass no input on")->excludes(input);
    app.add_flag("--merge", options.mergesErrors, "Standard error comes in one stream with standard output");
    app.add_option("--timeout", options.lifeTimeOut, "End the command after this time, such as 90s or 10m")
        ->type_name("DURATION")
        ->check(CheckDuration);
}
} // namespace

bool IsSameOutput()
{
    struct stat output;
    struct stat errors;
    return fstat(STDOUT_FILENO, &output) == 0 && fstat(STDERR_FILENO, &errors) == 0 &&
           output.st_dev == errors.st_dev && output.st_ino == errors.st_ino;
}

int RunCommand(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(self, "[--] COMMAND [ARGUMENT]...", Footer);
    RunOptions options;
    AddOptions(parser.Options(), options);
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    const std::vector<std::string>& words = parser.Words();
    if (words.empty())
        return Complain("A command to run is required");
    if (options.isLine && words.size() != 1)
        return Complain("-c takes one word, a shell line: quote it");
    RunRequest request;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), request.server))
        return Report(failure);
    request.line = options.isLine ? words.front() : JoinShellWords(words);
    request.lifeTimeOut = ReadDuration(options.lifeTimeOut).value_or(0);
    request.passesInput = !options.passesNothing && (options.passesInput || isatty(STDIN_FILENO) == 0);
    request.mergesErrors = options.mergesErrors || IsSameOutput();
    return CommandRun(std::move(request)).Run();
}
