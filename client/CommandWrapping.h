#pragma once

#include <string>
#include <string_view>

/**
 * Command lines as they are sent. A line cannot hold the separator, and one with a newline would break
 * listings, so both are sent as something that the remote shell turns back into them; and a command whose
 * end must be known for sure is sent inside a line that tells it.
 */

/** The line itself where it can be sent as it is, else one that makes the remote shell run exactly it. */
std::string WireLine(std::string_view line);

/** What the command that a listing shows was to its user, without what was wrapped round it. */
std::string OwnLine(std::string_view sentLine);

/** How one command is run, and how its lines mark what the client waits for. */
struct Wrapping {
    /** Random, so that no output holds it by chance: hexadecimal digits. */
    std::string mark;
    /** Standard error goes to the FIFO, which ErrorReaderLine() has made in this folder. */
    bool hasErrorsApart = false;
    enum { InLogFolder = 0, InTmp = 1 } fifoFolder = InTmp;
};

/** A new random mark. */
std::string MakeMark();

/** What stands in the stream before a number and a newline, where the command or the reader says "ready". */
std::string ReadyLead(const std::string& mark);
/** The same at the end of either stream, before the command's exit code. */
std::string EndLead(const std::string& mark);
/** A line by which a shell says ready, with the process that leads its session, which a listing shows, as the
 * number. */
std::string TellProcessLine(const std::string& mark);
/** A text that only the sent line of the wrapped command holds, for finding it in a listing. */
std::string ListingKey(const std::string& mark);

/** Lines of more bytes than this travel as the first bytes of the command's input. */
inline constexpr std::size_t LongestWrappedLine = 60000;

/** A line that runs `line`, which must not be longer, and then prints EndLead and the code. */
std::string WrapLine(const Wrapping& wrapping, std::string_view line);
/** The same for a longer one: LongLineInput() must be the first bytes of the command's input. */
std::string WrapLongLine(const Wrapping& wrapping, std::string_view line);
std::string LongLineInput(std::string_view line);

/**
 * The line of a second launch, which makes the FIFO, says that it is ready and in which folder (the number
 * of a Wrapping::fifoFolder), waits for a line that says that the command has opened the other end, unlinks
 * the FIFO and passes on what comes through it. When the client goes instead, it cleans up and ends.
 */
std::string ErrorReaderLine(const std::string& mark);
