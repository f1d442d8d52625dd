#include "client/RemoteScript.h"

#include <vector>

#include "client/CommandWrapping.h"
#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "client/ShellWords.h"
#include "client/StreamFilter.h"

std::string MakeScriptLine(std::string_view script, std::initializer_list<std::string_view> words)
{
    std::vector<std::string> parts = {"set", "--"};
    parts.insert(parts.end(), words.begin(), words.end());
    return WireLine(JoinShellWords(parts).append("\n").append(script));
}

Failure RunRemoteScript(const Server& server, std::string_view script,
                        std::initializer_list<std::string_view> words, ScriptResult& result)
{
    std::string request;
    std::string answer;
    if (Failure failure = BuildRequest(
            server, {{MakeScriptLine(script, words), "script"}, {"SOCKET"}, {"NOWINDOW"}, {"0"}}, request))
        return failure;
    if (Failure failure = AskServer(server, request, answer))
        return failure;
    StreamFilter filter;
    filter.Feed(answer, result.output);
    const StreamEnd end = filter.Finish(result.output);
    result.code = end.code;
    switch (end.kind) {
    case StreamEnd::Code:
        break;
    case StreamEnd::Refused:
        return ExplainRefusal(server, end.words);
    case StreamEnd::NoServer:
        return NoServerThere(server);
    case StreamEnd::NoCode:
    case StreamEnd::Cut:
        return {"the connection to " + server.Name() + " was cut before the answer was complete; try again"};
    }
    return {};
}
