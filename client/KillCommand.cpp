#include "client/KillCommand.h"

#include "client/Output.h"
#include "client/RemoteEnd.h"
#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "client/SubcommandParser.h"
#include "protocol/Texts.h"

namespace
{
std::string_view KillKeyword(bool isTree, bool isForced)
{
    if (isTree)
        return isForced ? "FORCEKILLTREE" : "KILLTREE";
    return isForced ? "FORCEKILL" : "KILL";
}
} // namespace

int RunKill(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(self, "NUMBER...",
                            "NUMBER is what list shows under N, of a command or a transfer.");
    parser.TakeOptionsAnywhere();
    bool isTree = false;
    bool isForced = false;
    parser.Options().add_flag("-t,--tree", isTree, "With everything that the command has started");
    parser.Options().add_flag("-f,--force", isForced, "Without giving it a chance to clean up");
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (parser.Words().empty())
        return Complain("kill needs the number of a command or transfer");
    for (const std::string& word : parser.Words())
        if (word.empty() || word.find_first_not_of("0123456789") != std::string::npos)
            return Complain("\"" + word + "\" is no number: kill takes what list shows under N");
    Server server;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
        return Report(failure);
    int exitCode = 0;
    for (const std::string& number : parser.Words()) {
        if (const Failure failure = EndWork(server, KillKeyword(isTree, isForced), number)) {
            exitCode = Report(Failure{number + ": " + failure.sentence, failure.serverWords});
            // A refused password would be refused again, and each time slowly.
            if (IsUserRefusal(failure.serverWords))
                break;
        }
    }
    return exitCode;
}

int RunShutdown(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(self, "",
                            "Ends all commands and transfers, then the server; returns when it is done.\n"
                            "Only the user who started the server may do that.");
    parser.TakeOptionsAnywhere();
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (!parser.Words().empty())
        return Complain("shutdown takes no words: " + parser.Words().front());
    Server server;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
        return Report(failure);
    std::string request;
    std::string line;
    if (const Failure failure = BuildRequest(server, {{"Close"}}, request))
        return Report(failure);
    if (const Failure failure = AskForLine(server, request, line))
        return Report(failure);
    const bool isClosed = std::string("->").append(line).append("\n") == protocol::Closed;
    return isClosed ? 0 : Report(ExplainRefusal(server, line));
}
