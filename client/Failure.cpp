#include "client/Failure.h"

#include <cstring>

#include <unistd.h>

#include "client/Terminal.h"

namespace
{
std::string_view programName = "RuvelControl";

/** What came from elsewhere can neither end the line nor command the terminal. */
void AppendLine(std::string& lines, std::string_view lead, std::string_view text)
{
    lines.append(lead).append(": ").append(Terminal::MakePrintable(text)).append("\n");
}

/** One write, so that the lines stay whole among others. Nobody is left to tell of a failure. */
void WriteToStandardError(const std::string& lines)
{
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, lines.data(), lines.size());
}
} // namespace

std::string_view ProgramName()
{
    return programName;
}

void SetProgramName(std::string_view name)
{
    programName = name;
}

void Say(std::string_view text)
{
    std::string line;
    AppendLine(line, programName, text);
    WriteToStandardError(line);
}

int Report(const Failure& failure)
{
    std::string lines;
    AppendLine(lines, programName, failure.sentence);
    if (!failure.serverWords.empty())
        AppendLine(lines, "  the server's words", failure.serverWords);
    WriteToStandardError(lines);
    return ClientFailure;
}

int Report(std::string_view sentence)
{
    return Report(Failure{std::string(sentence)});
}

Failure SystemFailure(std::string_view what, int error)
{
    return {std::string(what).append(": ").append(strerror(error))};
}
