#include "client/RunCommand.h"

#include <optional>

#include <sys/stat.h>
#include <unistd.h>

#include "client/CommandOptions.h"
#include "client/CommandRun.h"

namespace
{
constexpr const char* Footer =
    "The command's words keep their boundaries; a shell line is one word behind -c:\n"
    "  RuvelControl run -c 'make 2>&1 | tail -3; echo done'\n"
    "Exits with the command's code (128 + n after signal n), with 124 when the time-out ended it, and with\n"
    "255, after a line on standard error, when RuvelControl or the server failed. Ctrl-C ends the command\n"
    "with all that it started; a second Ctrl-C leaves at once.";

struct RunOptions {
    CommandOptions command;
    bool passesInput = false;
    bool passesNothing = false;
    bool mergesErrors = false;
};

void AddOptions(CLI::App& app, RunOptions& options)
{
    AddCommandOptions(app, options.command);
    auto* const input =
        app.add_flag("-i", options.passesInput, "Pass standard input on, also from a terminal");
    app.add_flag("-n", options.passesNothing, "Pass no input on")->excludes(input);
    app.add_flag("--merge", options.mergesErrors, "Standard error comes in one stream with standard output");
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
    RunRequest request;
    if (const std::optional<int> exitCode = JoinCommand(parser, options.command, request.line))
        return *exitCode;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), request.server))
        return Report(failure);
    request.lifeTimeOut = options.command.LifeTimeOut();
    request.passesInput = !options.passesNothing && (options.passesInput || isatty(STDIN_FILENO) == 0);
    request.mergesErrors = options.mergesErrors || IsSameOutput();
    return CommandRun(std::move(request)).Run();
}
