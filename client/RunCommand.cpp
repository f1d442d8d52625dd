#include "client/RunCommand.h"

#include <cerrno>
#include <climits>
#include <optional>

#include <poll.h>
#include <unistd.h>

#include "client/ServerConnection.h"
#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "client/ShellWords.h"
#include "client/StreamFilter.h"
#include "client/SubcommandParser.h"
#include "support/WaitForDescriptor.h"

namespace
{
/** Whoever takes the output may take as long as they like. */
constexpr int NoTimeOut = INT_MAX;
/** As timeout(1) has it. */
constexpr int ExpiredCode = 124;
constexpr int HighestExitCode = 255;

/** Writes everything to standard output, also to one that does not block: 0 or the error. */
int Print(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (errno == EAGAIN)
            WaitForDescriptor(STDOUT_FILENO, POLLOUT, DeadlineIn(NoTimeOut));
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

/** The answer's last word: what it means for our own exit code, said on standard error where it matters. */
int Conclude(const StreamEnd& end, const Server& server)
{
    switch (end.kind) {
    case StreamEnd::Code:
        if (!end.words.empty())
            Report(ExplainRefusal(server, end.words));
        if (end.isExpired)
            return ExpiredCode;
        if (end.code < 0 || end.code > HighestExitCode)
            return Report(server.Name() + " lost the command's exit code (" + std::to_string(end.code) + ")");
        // Output that the server cut short is no success, whatever the command made of its signal.
        return end.code == 0 && !end.words.empty() ? ClientFailure : end.code;
    case StreamEnd::NoCode:
        return Report(end.words.empty() ? Failure{server.Name() + " tells no exit code"}
                                        : ExplainRefusal(server, end.words));
    case StreamEnd::Refused:
        return Report(ExplainRefusal(server, end.words));
    case StreamEnd::NoServer:
        return Report("what answers at " + server.Name() + " is no RuvelServer: check host and port (-H)");
    case StreamEnd::Cut:
        break;
    }
    return Report("the connection to " + server.Name() + " was cut before the command's end");
}

/** Passes the answer on until its end. */
int ReceiveAnswer(ServerConnection& connection, const Server& server)
{
    StreamFilter filter;
    std::string arrived;
    std::string output;
    bool isEnd = false;
    bool isServer = true;
    Failure failure;
    while (isServer && !isEnd && !failure) {
        arrived.clear();
        failure = connection.Receive(arrived, isEnd);
        isServer = filter.Feed(arrived, output);
        if (const int error = Print(output))
            return Report(SystemFailure("the output cannot be written", error));
        output.clear();
    }
    const StreamEnd end = filter.Finish(output);
    if (const int error = Print(output))
        return Report(SystemFailure("the output cannot be written", error));
    return failure ? Report(failure) : Conclude(end, server);
}

int Run(const Server& server, const std::string& line, long lifeTimeOut)
{
    std::string request;
    if (const Failure failure = BuildRequest(
            server, {{line, "command"}, {"SOCKET"}, {"NOWINDOW"}, {std::to_string(lifeTimeOut), "time-out"}},
            request))
        return Report(failure);
    ServerConnection connection;
    if (const Failure failure = connection.Connect(server))
        return Report(failure);
    if (const Failure failure = connection.Send(request))
        return Report(failure);
    connection.EndSending();
    return ReceiveAnswer(connection, server);
}

constexpr const char* Footer =
    "The command's words keep their boundaries; for pipes, variables and the like run a shell:\n"
    "  RuvelControl run -- sh -c 'make 2>&1; echo done'\n"
    "Exits with the command's code, with 124 when the time-out ended it, and with 255, after one line\n"
    "on standard error, when RuvelControl or the server failed.";
} // namespace

int RunCommand(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(self, "[--] COMMAND [ARGUMENT]...", Footer);
    std::string lifeTimeOut = "0";
    parser.Options()
        .add_option("--timeout", lifeTimeOut,
                    "End the command after this time, such as 90s or 10m; 0 is never")
        ->type_name("DURATION")
        ->check(CheckDuration);
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (parser.Words().empty())
        return Complain("A command to run is required");
    Server server;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
        return Report(failure);
    return Run(server, JoinShellWords(parser.Words()), ReadDuration(lifeTimeOut).value_or(0));
}
