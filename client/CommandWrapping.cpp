#include "client/CommandWrapping.h"

#include <array>

#include <sys/random.h>

#include "client/ShellWords.h"

namespace
{
constexpr std::string_view Unsendable = "|\n";
// The first parameter is "|" and the second a newline with a dot behind, since a substitution drops
// newlines at its end. Inside a quoted line each is the close of the quotes, the parameter, the opening.
constexpr std::string_view SetUnsendable = "set -- \"$(printf '\\174')\" \"$(printf '\\n.')\";";
constexpr std::string_view SentBar = "'\"$1\"'";
constexpr std::string_view SentNewline = "'\"${2%.}\"'";
constexpr std::string_view Shell = "/bin/sh -c ";
constexpr std::string_view ExecShell = "exec /bin/sh -c ";

// Every alternative is an "if": the separator may not stand in the lines at all.
constexpr std::string_view OpenErrorsLead = "if [ -p ";
constexpr std::string_view OpenErrorsEnd = ";else exit 126;fi;";
constexpr std::string_view ReaderLead = "trap '' PIPE;set -- \"$RUVELSERVER_TMP\" 0;";
constexpr std::string_view ReadInput = "$(head -c ";
constexpr std::string_view EndOfRun = ";exit $1";
constexpr std::string_view PrintLead = "printf '\\036";
constexpr std::string_view HexadecimalDigits = "0123456789abcdef";
constexpr std::string_view FifoName = "/.ruvel-";
constexpr std::size_t MarkBytes = 16;
/** What a listing shows of a line that is not in the sent one, in bytes. */
constexpr std::size_t LongestPreview = 200;

bool IsSendable(std::string_view line)
{
    return line.find_first_of(Unsendable) == std::string_view::npos;
}

/** One word that the remote shell reads as the line, once SetUnsendable has run if the line needs it. */
std::string QuoteForWire(std::string_view line)
{
    // A shell would take it for options.
    const bool isOption = line.starts_with('-') || line.starts_with('+');
    std::string sent;
    for (const char byte : JoinShellWords({(isOption ? " " : "") + std::string(line)})) {
        if (byte == '|')
            sent += SentBar;
        else if (byte == '\n')
            sent += SentNewline;
        else
            sent += byte;
    }
    return sent;
}

std::string FifoPath(const Wrapping& wrapping)
{
    const char* const folder = wrapping.fifoFolder == Wrapping::InTmp ? "/tmp" : "\"$RUVELSERVER_TMP\"";
    return folder + std::string(FifoName) + wrapping.mark;
}

/** Prints lead and number. The sent line spells the first byte out, so that showing it prints no mark. */
std::string PrintMark(const std::string& lead, std::string_view number)
{
    return std::string(PrintLead) + lead.substr(1) + "%d\\n' " + std::string(number);
}

/**
 * Takes the FIFO for standard error. The reader holds both its ends, so opening cannot wait. What has been
 * opened is checked, not what lay there before: where others may write, a name can be exchanged. Nothing is
 * truncated for the same reason.
 */
std::string OpenErrors(const Wrapping& wrapping)
{
    if (!wrapping.hasErrorsApart)
        return "";
    const std::string fifo = FifoPath(wrapping);
    return std::string(OpenErrorsLead) + fifo + " ]&&exec 2>>" + fifo +
           "&&[ -p /dev/fd/2 ]&&[ -O /dev/fd/2 ];then " + PrintMark(ReadyLead(wrapping.mark), "0") +
           std::string(OpenErrorsEnd);
}

std::string EndLine(const Wrapping& wrapping)
{
    const std::string print = PrintMark(EndLead(wrapping.mark), "$1");
    return ";set -- $?;" + (wrapping.hasErrorsApart ? print + " >&2;" : "") + print + std::string(EndOfRun);
}

/** Undoes QuoteForWire for the word that `text` begins with. */
std::string UnquoteFromWire(std::string_view text)
{
    std::string line;
    bool isQuoted = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::string_view rest = text.substr(at);
        if (isQuoted && rest.starts_with(SentBar)) {
            line += '|';
            at += SentBar.size() - 1;
        } else if (isQuoted && rest.starts_with(SentNewline)) {
            line += '\n';
            at += SentNewline.size() - 1;
        } else if (text[at] == '\'') {
            isQuoted = !isQuoted;
        } else if (!isQuoted && rest.starts_with("\\'")) {
            line += '\'';
            ++at;
        } else if (!isQuoted && (text[at] == ';' || text[at] == ' ')) {
            break;
        } else {
            line += text[at];
        }
    }
    return line;
}

/** What runs a line that it reads from its input, and shows `preview` of it. */
std::string WrapInput(const Wrapping& wrapping, const std::string& preview, const std::string& length)
{
    return OpenErrors(wrapping) + ": " + QuoteForWire(preview) + ";set -- \"" + std::string(ReadInput) +
           length + ")\";set -- \"${1%.}\";(eval \"shift;$1\")" + EndLine(wrapping);
}

/** The line that is wrapped in one of any form, if it is that. */
std::string Unwrap(std::string_view sentLine)
{
    std::string_view rest = sentLine;
    if (rest.starts_with(OpenErrorsLead) && rest.find(OpenErrorsEnd) != std::string_view::npos)
        rest.remove_prefix(rest.find(OpenErrorsEnd) + OpenErrorsEnd.size());
    if (rest.starts_with(": "))
        return UnquoteFromWire(rest.substr(2));
    if (rest.starts_with(SetUnsendable))
        rest.remove_prefix(SetUnsendable.size());
    for (const std::string_view shell : {Shell, ExecShell})
        if (rest.starts_with(shell))
            return UnquoteFromWire(rest.substr(shell.size()));
    return std::string(sentLine);
}

/** The characters from `kinds` that follow where `lead` stands last. */
std::string TakeBehind(std::string_view line, std::string_view lead, std::string_view kinds)
{
    const std::size_t at = line.rfind(lead);
    if (at == std::string_view::npos)
        return "";
    line.remove_prefix(at + lead.size());
    return std::string(line.substr(0, line.find_first_not_of(kinds)));
}
} // namespace

std::string WireLine(std::string_view line)
{
    if (IsSendable(line))
        return std::string(line);
    return std::string(SetUnsendable).append(ExecShell).append(QuoteForWire(line));
}

std::string MakeMark()
{
    std::array<unsigned char, MarkBytes> random;
    // So few bytes come at once and whole.
    [[maybe_unused]] const ssize_t count = getrandom(random.data(), random.size(), 0);
    std::string mark;
    for (const unsigned char byte : random) {
        mark += HexadecimalDigits[byte >> 4];
        mark += HexadecimalDigits[byte & 15];
    }
    return mark;
}

std::string ReadyLead(const std::string& mark)
{
    return "\036" + mark + "+";
}

std::string EndLead(const std::string& mark)
{
    return "\036" + mark + ":";
}

std::string TellProcessLine(const std::string& mark)
{
    // The fourth word behind the name, which stands in parentheses. In a subshell, so that nothing is left of
    // it.
    return "(read x </proc/self/stat;set -- ${x##*\\)};" + PrintMark(ReadyLead(mark), "$4") + ")\n";
}

std::string ListingKey(const std::string& mark)
{
    return mark + ":%d";
}

std::string WrapLine(const Wrapping& wrapping, std::string_view line)
{
    std::string sent = OpenErrors(wrapping);
    if (!IsSendable(line))
        sent += SetUnsendable;
    return sent.append(Shell).append(QuoteForWire(line)).append(EndLine(wrapping));
}

std::string WrapLongLine(const Wrapping& wrapping, std::string_view line)
{
    // No argument can be as long as such a line, so it is not a shell's but evaluated by a part of this one.
    std::string preview(line.substr(0, LongestPreview));
    for (char& byte : preview)
        if (Unsendable.find(byte) != std::string_view::npos)
            byte = ' ';
    return WrapInput(wrapping, preview + "...", std::to_string(LongLineInput(line).size()));
}

std::string LongLineInput(std::string_view line)
{
    return std::string(line) + '.';
}

std::string ErrorReaderLine(const std::string& mark)
{
    const std::string fifo = "\"$1\"" + std::string(FifoName) + mark;
    const std::string remove = "rm -f " + fifo;
    return std::string(ReaderLead) +
           "if [ ! -d \"$1\" ];then set -- /tmp 1;elif [ ! -w \"$1\" ];then set -- /tmp 1;fi;" + "trap '" +
           remove + ";exit 1' HUP INT TERM;if mkfifo -m 600 " + fifo + "&&exec 3<>" + fifo + " 4<" + fifo +
           "&&[ -p /dev/fd/3 ]&&[ -O /dev/fd/3 ]&&" + PrintMark(ReadyLead(mark), "$2") +
           ";then read x;set -- \"$1\" $?;" + remove + ";if [ $2 = 0 ];then exec cat <&4 3<&- 4<&-;fi;else " +
           remove + ";fi;exit 1";
}

std::string OwnLine(std::string_view sentLine)
{
    const std::string own = Unwrap(sentLine);
    const std::string mark = TakeBehind(sentLine, PrintLead, HexadecimalDigits);
    const std::string length = TakeBehind(sentLine, ReadInput, "0123456789");
    if (ErrorReaderLine(mark) == sentLine)
        return "(passes on a command's standard error)";
    // What is only like a wrapped line is shown as it is: something may hide in it.
    if (WireLine(own) == sentLine)
        return own;
    const bool hasErrorsApart = sentLine.starts_with(OpenErrorsLead);
    for (const auto folder : {Wrapping::InLogFolder, Wrapping::InTmp}) {
        const Wrapping wrapping = {mark, hasErrorsApart, folder};
        if (WrapLine(wrapping, own) == sentLine ||
            (own.ends_with("...") && WrapInput(wrapping, own, length) == sentLine))
            return own;
    }
    return std::string(sentLine);
}
