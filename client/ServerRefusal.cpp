#include "client/ServerRefusal.h"

#include <string>

#include "protocol/ConnectionTexts.h"
#include "protocol/Texts.h"
#include "protocol/TransferTexts.h"

namespace
{
/**
 * How a refusal is told from others, and what it means. What stands between the beginning and the end may be
 * anybody's, such as the name of a file that tells of another failure.
 */
struct Refusal {
    std::string_view begin;
    /** The server's own reason, or the system's; it closes the line. */
    std::string_view end;
    /** %s is the server, %u the user. */
    std::string_view sentence;
};

/** Without lead and newlines, which differ with where a text is sent. */
constexpr std::string_view Bare(std::string_view text)
{
    if (text.starts_with('\n'))
        text.remove_prefix(1);
    if (text.starts_with(protocol::LineLead))
        text.remove_prefix(protocol::LineLead.size());
    if (text.ends_with('\n'))
        text.remove_suffix(1);
    return text;
}

constexpr std::string_view UserRefused = "Error bad user or password";

constexpr std::string_view CheckFailed = "Error unable to check the password";
constexpr std::string_view UserRefusedSentence =
    "%s refuses user %u or the password: check both (-u, --password-file)";
constexpr std::string_view CheckFailedSentence =
    "%s cannot check passwords at the moment: try again, and look at its trace if it stays so";

// The first that fits counts. What fails for the server itself comes before the system's reasons, which say
// more than the beginning does where it is the user's file that they are about.
constexpr Refusal Refusals[] = {
    {UserRefused, "", UserRefusedSentence},
    {protocol::NotImpersonatedLead, UserRefused, UserRefusedSentence},
    {CheckFailed, "", CheckFailedSentence},
    {protocol::NotImpersonatedLead, CheckFailed, CheckFailedSentence},
    {protocol::NotImpersonatedLead, "", "%s cannot become user %u: its trace says why"},
    {"Error not owner : ", "", "%s serves only the user who started it: ask as that one (-u)"},
    {"Error command line too long", "", "the command is too long for %s: put it into a file there"},
    {"Error only root can start a command as another user", "",
     "%s does not run as root and serves only its own user: ask as that one (-u)"},
    {"Error unable to open log file...(", "", "%s cannot make the command's log: check its folder for logs"},
    {"Error unable to start command", "", "%s cannot start commands at the moment: try again later"},
    {protocol::FileInUse, "",
     "another transfer at %s uses that file: wait for its end (list) or end it (kill)"},
    {protocol::TransferNotStarted, "", "%s has no process left for a transfer: try again later"},
    {protocol::NoDataConnectionLead, "",
     "%s cannot open a port for the data connection: try the other direction (--passive)"},
    {protocol::LogNotStarted, "", "%s has no process left to deliver the log: the output is lost"},
    {protocol::LogNotCheckedLead, "", "%s does not trust the command's log any more: the output is lost"},
    {protocol::LogWithoutSize, "", "%s cannot read the command's log: the output is lost"},
    {protocol::LogNotOpened, "", "%s cannot open the command's log: the output is lost"},
    {protocol::LogNotRead, "", "%s cannot read the command's log: the rest of the output is lost"},
    {protocol::LogLimitReached, "", "the output was longer than a log may be: its rest is lost"},
    {"Error unable to kill ", protocol::KillBadNumberEnd,
     "%s runs nothing with that number: it may have ended already (list)"},
    {"Error unable to kill ", protocol::KillNotOwnerEnd,
     "that belongs to somebody else: only its owner may end it (-u)"},
    {protocol::ReportNotStarted, "", "%s has no process left for the report: try again later"},
    {protocol::BadParameters, "", "%s does not accept a value of the request: check numbers and names"},
    {protocol::MessageEmpty, "", "%s received nothing: what stands between may have swallowed the request"},
    {protocol::MessageNotRecognized, "",
     "%s does not understand the request: check that it is a RuvelServer of this generation"},
    {protocol::ClientTooOld, "", "%s wants a newer RuvelControl: install one"},
    {protocol::ServerTooOld, "", "%s is too old for this request: install a newer RuvelServer there"},
    {"RuvelServer shutdown", "", "%s was shut down, which ended this"},
    {"Command killed due to ", "expired life timeout", "the time-out ended it: allow more time (--timeout)"},
    {"File transfer terminated due to ", "expired life timeout",
     "the time-out ended it: allow more time (--timeout)"},
    {"File transfer N(", "", "somebody ended it with a kill request"},
    {"Command N(", "", "somebody ended the command with a kill request"},
    {"", "No such file or directory", "%s knows no such file or folder: check the path"},
    {"", "Permission denied", "user %u may not do that at %s: check path and permissions there"},
    {"", "No space left on device", "the disk of %s is full: make room there and try again"},
    {"", "Disk quota exceeded", "user %u has no room left at %s: make some and try again"},
    {"", "Read-only file system", "%s cannot write there: the file system is read-only"},
    {"", "Is a directory", "the path names a folder at %s: name a file"},
    {"", "Cannot allocate memory", "%s is out of memory: try again later"},
    {"", "Too many open files", "%s has no descriptor left: try again later"},
    {protocol::FileNotOpenedLead, "", "%s cannot open the file"},
    {protocol::FileNotCreatedLead, "", "%s cannot create the file"},
    {protocol::FileWithoutOffsetLead, "", "%s cannot tell the file's size: name a plain file"},
    {protocol::FileNotReadLead, "", "%s cannot read the file: name a plain file"},
    {protocol::FileNotRewoundLead, "", "%s cannot move in the file: name a plain file"},
};

std::string FillIn(std::string_view sentence, const Server& server)
{
    std::string filled;
    for (std::size_t at = 0; at < sentence.size(); ++at) {
        const std::string_view mark = sentence.substr(at, 2);
        if (mark == "%s" || mark == "%u") {
            filled += mark == "%s" ? server.Name() : server.user;
            ++at;
        } else {
            filled += sentence[at];
        }
    }
    return filled;
}
} // namespace

Failure ExplainRefusal(const Server& server, std::string_view line)
{
    const std::string_view words = Bare(line);
    for (const Refusal& one : Refusals)
        if (words.starts_with(Bare(one.begin)) && words.ends_with(one.end))
            return {FillIn(one.sentence, server), std::string(words)};
    return {server.Name() + " does not do it, for a reason of its own", std::string(words)};
}

Failure NoServerThere(const Server& server)
{
    return {"what answers at " + server.Name() + " is no RuvelServer: check host and port (-H HOST:PORT)"};
}

bool IsUserRefusal(std::string_view line)
{
    return line.ends_with(UserRefused);
}
