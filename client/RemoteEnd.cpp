#include "client/RemoteEnd.h"

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
} // namespace

Failure EndCommandTree(const Server& server, std::string_view key)
{
    std::string listing;
    if (Failure failure = Ask(server, {{"INFO"}}, listing))
        return failure;
    std::string_view rest = listing;
    if (TakeBanner(server, rest) || listing.find(protocol::FoundLead) == std::string::npos)
        return ExplainRefusal(server, listing.substr(0, listing.find('\n')));
    const std::string number = FindNumber(listing, key);
    if (number.empty())
        return {};
    std::string answer;
    return Ask(server, {{"KILLTREE"}, {number, "number"}}, answer);
}
