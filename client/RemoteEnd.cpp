#include "client/RemoteEnd.h"

#include <algorithm>
#include <functional>
#include <string>

#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "protocol/Texts.h"

namespace
{
constexpr std::string_view NumberLead = "->N(";

/** Whether a line, from the end of its number on, is about the command that is looked for. */
using IsAbout = std::function<bool(std::string_view behindNumber)>;

/** The number in the one line that is about the command; empty when there is none. A command's text may look
 * like such a line: then there are two, and it is not guessed which is true. */
Failure FindNumber(std::string_view listing, const IsAbout& isAbout, std::string& number)
{
    number.clear();
    while (!listing.empty()) {
        const std::string_view line = listing.substr(0, listing.find('\n'));
        listing.remove_prefix(std::min(line.size() + 1, listing.size()));
        const std::size_t end = line.find(')');
        if (!line.starts_with(NumberLead) || end == std::string_view::npos || !isAbout(line.substr(end)))
            continue;
        if (!number.empty())
            return {"the listing shows more than one command that it may be (list)"};
        number = line.substr(NumberLead.size(), end - NumberLead.size());
    }
    return {};
}

Failure FetchListing(const Server& server, std::string& listing)
{
    std::string request;
    if (Failure failure = BuildRequest(server, {{"INFO"}}, request))
        return failure;
    if (Failure failure = AskServer(server, request, listing, LongestListing))
        return failure;
    std::string_view rest = listing;
    if (TakeBanner(server, rest) || listing.find(protocol::FoundLead) == std::string::npos)
        return ExplainRefusal(server, listing.substr(0, listing.find('\n')));
    return {};
}

Failure EndTree(const Server& server, const IsAbout& isAbout)
{
    std::string listing;
    if (Failure failure = FetchListing(server, listing))
        return failure;
    std::string number;
    if (Failure failure = FindNumber(listing, isAbout, number))
        return failure;
    if (number.empty())
        return {}; // it has ended
    const Failure failure = EndWork(server, "KILLTREE", number);
    const bool hasEnded = failure.serverWords.find(protocol::KillBadNumberEnd) != std::string::npos;
    return hasEnded ? Failure{} : failure;
}
} // namespace

Failure EndWork(const Server& server, std::string_view keyword, const std::string& number)
{
    std::string request;
    std::string line;
    if (Failure failure = BuildRequest(server, {{keyword}, {number, "number"}}, request))
        return failure;
    if (Failure failure = AskForLine(server, request, line))
        return failure;
    if (line.starts_with("Command N(") || line.starts_with("File transfer N("))
        return {};
    return ExplainRefusal(server, line);
}

Failure EndCommandTree(const Server& server, std::string_view key)
{
    // A wrapped command has no newline in it: it is all in its line.
    return EndTree(server, [key](std::string_view line) { return line.find(key) != std::string_view::npos; });
}

Failure EndProcessTree(const Server& server, int process)
{
    const std::string lead = "), PID(" + std::to_string(process) + "), UID(";
    return EndTree(server, [&lead](std::string_view line) { return line.starts_with(lead); });
}

void EndBySignal(std::optional<SignalWatch>& signals, int signal, const std::function<Failure()>& end)
{
    Say("interrupted: ending the remote command; once more leaves at once");
    // The next one ends this process without further ado.
    signals.reset();
    if (const Failure failure = end())
        Say("the remote command may still run: " + failure.sentence);
    DieBySignal(signal);
}
