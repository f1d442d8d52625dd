#include "client/RemoteEnd.h"

#include <algorithm>
#include <string>

#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "protocol/Texts.h"

namespace
{
constexpr std::string_view NumberLead = "->N(";

Failure Ask(const Server& server, std::initializer_list<RequestField> fields, std::string& answer)
{
    std::string request;
    if (Failure failure = BuildRequest(server, fields, request))
        return failure;
    return AskServer(server, request, answer);
}

/** The number in the listing's line that holds the key, empty when there is none. */
std::string FindNumber(std::string_view listing, std::string_view key)
{
    const std::size_t at = listing.find(key);
    if (at == std::string_view::npos)
        return "";
    // A wrapped command's line has no newline in it, so what stands in front of the key is all its own.
    const std::size_t newline = listing.rfind('\n', at);
    const std::string_view line = listing.substr(newline == std::string_view::npos ? 0 : newline + 1);
    if (!line.starts_with(NumberLead))
        return "";
    return std::string(line.substr(NumberLead.size(), line.find(')') - NumberLead.size()));
}
/** The number in the one line about this process. A command's text may look like such a line: then there are
 * two, and it is not guessed which is true. */
std::string FindNumberOf(std::string_view listing, int process)
{
    const std::string behind = "), PID(" + std::to_string(process) + "), UID(";
    std::string number;
    while (!listing.empty()) {
        const std::string_view line = listing.substr(0, listing.find('\n'));
        listing.remove_prefix(std::min(line.size() + 1, listing.size()));
        const std::size_t end = line.find(')');
        if (!line.starts_with(NumberLead) || end == std::string_view::npos ||
            !line.substr(end).starts_with(behind))
            continue;
        if (!number.empty())
            return "";
        number = line.substr(NumberLead.size(), end - NumberLead.size());
    }
    return number;
}

Failure FetchListing(const Server& server, std::string& listing)
{
    if (Failure failure = Ask(server, {{"INFO"}}, listing))
        return failure;
    std::string_view rest = listing;
    if (TakeBanner(server, rest) || listing.find(protocol::FoundLead) == std::string::npos)
        return ExplainRefusal(server, listing.substr(0, listing.find('\n')));
    return {};
}

Failure EndTree(const Server& server, const std::string& number)
{
    std::string answer;
    return number.empty() ? Failure{} : Ask(server, {{"KILLTREE"}, {number, "number"}}, answer);
}
} // namespace

Failure EndCommandTree(const Server& server, std::string_view key)
{
    std::string listing;
    if (Failure failure = FetchListing(server, listing))
        return failure;
    return EndTree(server, FindNumber(listing, key));
}

Failure EndProcessTree(const Server& server, int process)
{
    std::string listing;
    if (Failure failure = FetchListing(server, listing))
        return failure;
    return EndTree(server, FindNumberOf(listing, process));
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
