#include "client/CommandOptions.h"

#include "client/ShellWords.h"

void AddCommandOptions(CLI::App& app, CommandOptions& options)
{
    app.add_flag("-c", options.isLine, "The one word is a shell line, passed as it is");
    app.add_option("--timeout", options.lifeTimeOut, "End the command after this time, such as 90s or 10m")
        ->type_name("DURATION")
        ->check(CheckDuration);
}

std::optional<int> JoinCommand(const SubcommandParser& parser, const CommandOptions& options,
                               std::string& line)
{
    const std::vector<std::string>& words = parser.Words();
    if (words.empty())
        return Complain("A command to run is required");
    if (options.isLine && words.size() != 1)
        return Complain("-c takes one word, a shell line: quote it");
    line = options.isLine ? words.front() : JoinShellWords(words);
    return std::nullopt;
}
