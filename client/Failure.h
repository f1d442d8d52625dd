#pragma once

#include <string>
#include <string_view>

/** What every failure of the client or the server ends with; commands have the codes below it too. */
inline constexpr int ClientFailure = 255;

/** Why something was not done; the empty one says that nothing failed: `if (Failure failure = ...)`. */
struct Failure {
    /** One line without a newline: what happened, and what to do about it. */
    std::string sentence;
    /** The server's own words, where it was the one to refuse. */
    std::string serverWords = {};

    explicit operator bool() const { return !sentence.empty(); }
};

/** What the messages on standard error begin with: the name that this program was called by. */
std::string_view ProgramName();
/** Once, at the start; `name` must live as long as the program. */
void SetProgramName(std::string_view name);

/** Writes the program's name and the text as one line to standard error. */
void Say(std::string_view text);
/** Says the sentence and below it, indented, the server's words. ClientFailure: the code to exit with. */
int Report(const Failure& failure);
int Report(std::string_view sentence);

/** A failure of the system's: "what: reason of the error number". */
Failure SystemFailure(std::string_view what, int error);
