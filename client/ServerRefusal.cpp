#include "client/ServerRefusal.h"

#include <string>

#include "protocol/ConnectionTexts.h"
#include "protocol/Texts.h"
#include "protocol/TransferTexts.h"

namespace
{
/** How a refusal is told from others, and what it means. */
struct Refusal {
    /** Stands somewhere in the line. */
    std::string_view words;
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

// Reasons of the server's own and the system's behind a lead come first: they say more than the lead.
constexpr Refusal Refusals[] = {
    {UserRefused, "%s refuses user %u or the password: check both (-u, --password-file)"},
    {"Error unable to check the password",
     "%s cannot check passwords at the moment: try again, and look at its trace if it stays so"},
    {"Error not owner", "%s serves only the user who started it: ask as that one (-u)"},
    {"No such file or directory", "%s knows no such file or folder: check the path"},
    {"Permission denied", "user %u may not do that at %s: check path and permissions there"},
    {"No space left on device", "the disk of %s is full: make room there and try again"},
    {"Disk quota exceeded", "user %u has no room left at %s: make some and try again"},
    {"Read-only file system", "%s cannot write there: the file system is read-only"},
    {"Is a directory", "the path names a folder at %s: name a file"},
    {"Cannot allocate memory", "%s is out of memory: try again later"},
    {"Resource temporarily unavailable", "%s has no process left to start: try again later"},
    {"Too many open files", "%s has no descriptor left: try again later"},
    {"Error command line too long", "the command is too long for %s: put it into a file there"},
    {"Error only root can start a command as another user",
     "%s does not run as root and serves only its own user: ask as that one (-u)"},
    {"Error unable to take on identity of user", "%s cannot become user %u: its trace says why"},
    {"Error unable to open log file", "%s cannot make the command's log: check its folder for logs"},
    {"Error unable to start command", "%s cannot start commands at the moment: try again later"},
    {"Error unable to kill command : ", "%s cannot signal the command: its trace says why"},
    {protocol::FileInUse, "another transfer at %s uses that file: wait for its end (list) or end it (kill)"},
    {protocol::TransferNotStarted, "%s has no process left for a transfer: try again later"},
    {protocol::NotImpersonatedLead, "%s cannot act as user %u: check user and password"},
    {protocol::NoDataConnectionLead,
     "no data connection with %s: a firewall may be in the way, try the other direction (--passive)"},
    {protocol::FileNotOpenedLead, "%s cannot open the file"},
    {protocol::FileNotCreatedLead, "%s cannot create the file"},
    {protocol::FileWithoutOffsetLead, "%s cannot tell the file's size: name a plain file"},
    {protocol::FileNotReadLead, "%s cannot read the file: name a plain file"},
    {protocol::FileNotRewoundLead, "%s cannot move in the file: name a plain file"},
    {protocol::LogNotStarted, "%s has no process left to deliver the log: the output is lost"},
    {protocol::LogNotCheckedLead, "%s does not trust the command's log any more: the output is lost"},
    {protocol::LogWithoutSize, "%s cannot read the command's log: the output is lost"},
    {protocol::LogNotOpened, "%s cannot open the command's log: the output is lost"},
    {protocol::LogNotRead, "%s cannot read the command's log: the rest of the output is lost"},
    {protocol::LogLimitReached, "the output was longer than a log may be: its rest is lost"},
    {protocol::KillBadNumberEnd, "%s runs nothing with that number: it may have ended already (list)"},
    {protocol::KillNotOwnerEnd, "that belongs to somebody else: only its owner may end it (-u)"},
    {protocol::ReportNotStarted, "%s has no process left for the report: try again later"},
    {protocol::BadParameters, "%s does not accept a value of the request: check numbers and names"},
    {protocol::MessageEmpty, "%s received nothing: what stands between may have swallowed the request"},
    {protocol::MessageNotRecognized,
     "%s does not understand the request: check that it is a RuvelServer of this generation"},
    {protocol::ClientTooOld, "%s wants a newer RuvelControl: install one"},
    {protocol::ServerTooOld, "%s is too old for this request: install a newer RuvelServer there"},
    {"RuvelServer shutdown", "%s was shut down, which ended this"},
    {"expired life timeout", "the time-out ended it: allow more time (--timeout)"},
    {"terminated by user", "somebody ended it with a kill request"},
    {"Command N(", "somebody ended the command with a kill request"},
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
        if (words.find(Bare(one.words)) != std::string_view::npos)
            return {FillIn(one.sentence, server), std::string(words)};
    return {server.Name() + " does not do it, for a reason of its own", std::string(words)};
}

Failure NoServerThere(const Server& server)
{
    return {"what answers at " + server.Name() + " is no RuvelServer: check host and port (-H HOST:PORT)"};
}

bool IsUserRefusal(std::string_view line)
{
    return line.find(UserRefused) != std::string_view::npos;
}
