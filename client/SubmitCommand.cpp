#include "client/SubmitCommand.h"

#include <optional>

#include "client/CollectCommand.h"
#include "client/CommandOptions.h"
#include "client/CommandWrapping.h"
#include "client/LaunchAnswer.h"
#include "client/LogAnswer.h"
#include "client/Output.h"
#include "client/ServerConnection.h"
#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "client/Terminal.h"
#include "protocol/Texts.h"

namespace
{
constexpr const char* Footer =
    "The command runs without input; its output, both streams in one, comes when it has ended, and its code\n"
    "is the one to exit with. With --detach the command is left to itself: its identifier is printed, which\n"
    "state asks for, and its log goes to where collect runs.";

struct SubmitOptions {
    CommandOptions command;
    bool isDetached = false;
    /** ADDRESS:PORT of a collect; either part may be missing. */
    std::string collector;
};

/** Sends the request and passes the log on. */
int WaitForLog(const Server& server, std::string_view request)
{
    ServerConnection connection;
    Failure failure = connection.Connect(server);
    if (!failure)
        failure = connection.Send(request);
    if (failure)
        return Report(failure);
    connection.EndSending();
    LogAnswer log;
    std::string output;
    bool isEnd = false;
    while (!isEnd) {
        std::string bytes;
        if (failure = connection.Receive(bytes, isEnd); failure)
            return Report(failure);
        if (!log.Feed(bytes, output))
            break;
        if (const int error = WriteToStandardOutput(output))
            return Report(SystemFailure("the output cannot be written", error));
        output.clear();
    }
    const StreamEnd end = log.Finish(output);
    if (const int error = WriteToStandardOutput(output))
        return Report(SystemFailure("the output cannot be written", error));
    return ConcludeLaunch(end, server);
}

/** Where the log shall go: what was asked for, else this machine as the server sees it. */
Failure FindCollector(const ServerConnection& connection, const std::string& asked, Server& collector)
{
    collector.port = DefaultCollectorPort;
    collector.host.clear();
    if (!asked.empty() && asked.front() != ':')
        return ReadHost(asked, collector);
    if (!asked.empty())
        if (Failure failure = ReadHost("-" + asked, collector))
            return failure;
    return connection.FindOwnAddress(collector.host);
}

int Detach(const Server& server, const std::string& line, const SubmitOptions& options)
{
    ServerConnection connection;
    Server collector;
    std::string request;
    Failure failure = connection.Connect(server);
    if (!failure)
        failure = FindCollector(connection, options.collector, collector);
    if (!failure)
        failure = BuildRequest(server,
                               {{line, "command"},
                                {"NOSOCKET"},
                                {"NOWINDOW"},
                                {collector.host, "collector"},
                                {std::to_string(collector.port)},
                                {std::to_string(options.command.LifeTimeOut())}},
                               request);
    if (!failure)
        failure = connection.Send(request);
    std::string answer;
    bool isEnd = false;
    while (!failure && !isEnd)
        failure = connection.Receive(answer, isEnd, ServerConnection::LongestAnswer);
    if (failure)
        return Report(failure);
    const std::string lead = std::string(protocol::Identifier).append(protocol::Separator);
    if (answer.starts_with(lead)) {
        const int error = WriteToStandardOutput(Terminal::MakePrintable(answer.substr(lead.size())) + "\n");
        return error == 0 ? 0 : Report(SystemFailure("the identifier cannot be written", error));
    }
    std::string_view rest = answer;
    if (failure = TakeBanner(server, rest); failure)
        return Report(failure);
    return Report(ExplainRefusal(server, rest.substr(0, rest.find('\n'))));
}
} // namespace

int RunSubmit(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(self, "[--] COMMAND [ARGUMENT]...", Footer);
    SubmitOptions options;
    AddCommandOptions(parser.Options(), options.command);
    CLI::Option* const detach =
        parser.Options().add_flag("-d,--detach", options.isDetached, "Print the identifier and leave");
    parser.Options()
        .add_option("--to", options.collector,
                    "With --detach: where collect runs, HOST, HOST:PORT or :PORT (this machine:" +
                        std::to_string(DefaultCollectorPort) + ")")
        ->needs(detach)
        ->type_name("COLLECTOR");
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    std::string line;
    if (const std::optional<int> exitCode = JoinCommand(parser, options.command, line))
        return *exitCode;
    Server server;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
        return Report(failure);
    line = WireLine(line);
    if (options.isDetached)
        return Detach(server, line, options);
    std::string request;
    if (const Failure failure = BuildRequest(
            server,
            {{line, "command"}, {"NOSOCKET"}, {"NOWINDOW"}, {std::to_string(options.command.LifeTimeOut())}},
            request))
        return Report(failure);
    return WaitForLog(server, request);
}

int RunState(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(
        self, "IDENTIFIER",
        "IDENTIFIER is the line that submit --detach has printed. Prints RUNNING while the\n"
        "command or its log's delivery lasts, and NOTFOUND, with exit code 1, afterwards.");
    parser.TakeOptionsAnywhere();
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (parser.Words().size() != 1)
        return Complain("state needs one identifier: quote it");
    // The request carries no password.
    ServerOptions whoAndWhere = parser.WhoAndWhere();
    whoAndWhere.isBatch = true;
    Server server;
    if (const Failure failure = FindServer(whoAndWhere, server))
        return Report(failure);
    std::string request;
    std::string answer;
    if (const Failure failure = BuildStateRequest(parser.Words().front(), request))
        return Report(failure);
    if (const Failure failure = AskServer(server, request, answer))
        return Report(failure);
    if (answer != protocol::Running && answer != protocol::NotFound) {
        std::string_view rest = answer;
        if (const Failure failure = TakeBanner(server, rest))
            return Report(failure);
        return Report(ExplainRefusal(server, rest.substr(0, rest.find('\n'))));
    }
    if (const int error = WriteToStandardOutput(answer + "\n"))
        return Report(SystemFailure("the state cannot be written", error));
    return answer == protocol::Running ? 0 : 1;
}
