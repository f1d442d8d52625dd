#include "client/ServerRequest.h"

#include <algorithm>

#include "client/ClientVersion.h"
#include "client/ServerRefusal.h"
#include "protocol/RequestText.h"
#include "protocol/Texts.h"

namespace
{
/** The banner line up to the version, which may be another than this client was built with. */
constexpr std::string_view BannerLead = protocol::BannerLine.substr(0, protocol::BannerLine.find(" V") + 2);

Failure AppendField(const RequestField& field, std::string& request)
{
    for (const std::string_view unsendable :
         {std::string_view(protocol::Separator), std::string_view("\0", 1)})
        if (field.value.find(unsendable) != std::string_view::npos)
            return {"the " + std::string(field.name) + " holds a " +
                    (unsendable == protocol::Separator ? "\"|\", which separates" : "NUL, which ends") +
                    " the fields of a request and cannot be sent in one"};
    request.append(protocol::Separator).append(field.value);
    return {};
}

Failure Terminate(std::string& request)
{
    // A request that may arrive in pieces says where it ends.
    if (request.size() >= protocol::RequestText::SmallestSegment)
        request += '\n';
    if (request.size() > protocol::RequestText::Limit)
        return {"the request is longer than a server accepts (1 MiB): shorten what is sent"};
    return {};
}
} // namespace

Failure BuildRequest(const Server& server, std::span<const RequestField> fields, std::string& request)
{
    request = ClientVersion;
    for (const RequestField& field :
         {RequestField{server.user, "user"}, RequestField{server.password, "password"}})
        if (Failure failure = AppendField(field, request))
            return failure;
    for (const RequestField& field : fields)
        if (Failure failure = AppendField(field, request))
            return failure;
    return Terminate(request);
}

Failure BuildStateRequest(std::string_view identifier, std::string& request)
{
    request = ClientVersion;
    for (const RequestField& field : {RequestField{"ID"}, RequestField{identifier, "identifier"}})
        if (Failure failure = AppendField(field, request))
            return failure;
    return Terminate(request);
}

Failure AskServer(const Server& server, std::string_view request, std::string& answer, std::size_t limit)
{
    ServerConnection connection;
    if (Failure failure = connection.Connect(server))
        return failure;
    if (Failure failure = connection.Send(request))
        return failure;
    connection.EndSending();
    bool isEnd = false;
    while (!isEnd)
        if (Failure failure = connection.Receive(answer, isEnd, limit))
            return failure;
    if (answer.empty())
        return {"the connection to " + server.Name() + " was closed without an answer; the server may be " +
                "ending, or something else may listen there"};
    return {};
}

Failure AskForLine(const Server& server, std::string_view request, std::string& line)
{
    std::string answer;
    if (Failure failure = AskServer(server, request, answer))
        return failure;
    std::string_view rest = answer;
    // A refused user is told so without a banner.
    if (!rest.starts_with("->Error "))
        if (Failure failure = TakeBanner(server, rest))
            return failure;
    rest = rest.substr(0, rest.find('\n'));
    if (!rest.starts_with(protocol::LineLead))
        return {"the answer of " + server.Name() + " was cut; look at what runs (list)"};
    line = rest.substr(protocol::LineLead.size());
    return {};
}

Failure TakeBanner(const Server& server, std::string_view& answer)
{
    const std::size_t lineEnd = answer.find('\n');
    if (!answer.starts_with(BannerLead) || lineEnd == std::string_view::npos)
        return NoServerThere(server);
    answer.remove_prefix(lineEnd + 1);
    return {};
}
