#include "client/ShellCommand.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <optional>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/CommandWrapping.h"
#include "client/EndMark.h"
#include "client/InputForwarder.h"
#include "client/LaunchAnswer.h"
#include "client/OutputStream.h"
#include "client/RemoteEnd.h"
#include "client/ServerConnection.h"
#include "client/ServerRequest.h"
#include "client/SignalWatch.h"
#include "client/StreamFilter.h"
#include "client/SubcommandParser.h"

namespace
{
constexpr std::size_t BlockSize = 65536;
/** What the server puts its own shell in place of. */
constexpr std::string_view AnyShell = "/bin/sh";

/**
 * Passes input and output on until the shell has ended. The first line tells it to say which process it is,
 * so that it can be found and ended when this process is interrupted or nobody reads its output any more.
 */
class ShellStream
{
public:
    ShellStream(const Server& server, const ServerConnection& connection, const std::string& mark)
        : server_(server),
          connection_(connection),
          input_(STDIN_FILENO, connection.Descriptor(), TellProcessLine(mark)),
          output_(STDOUT_FILENO),
          process_(ReadyLead(mark))
    {
        std::signal(SIGPIPE, SIG_IGN);
    }

    Failure Run(StreamEnd& end);

private:
    Failure Turn();
    Failure Receive();
    Failure Print(std::string_view bytes);
    /** What comes before the shell says which process it is, is its output too. */
    void TakeProcess(std::string& bytes);
    Failure End() const;

    const Server& server_;
    const ServerConnection& connection_;
    InputForwarder input_;
    OutputStream output_;
    StreamFilter filter_;
    EndMark process_;
    std::optional<SignalWatch> signals_{std::in_place};
    bool hasEnded_ = false;
};

Failure ShellStream::Run(StreamEnd& end)
{
    while (!hasEnded_)
        if (Failure failure = Turn())
            return failure;
    std::string last;
    end = filter_.Finish(last);
    TakeProcess(last);
    process_.Finish(last);
    if (Failure failure = Print(last))
        return failure;
    const int error = output_.Flush();
    return error == 0 ? Failure{} : SystemFailure("the output cannot be written", error);
}

/** What standard output does not take holds the server back, and nothing goes out before the banner. */
Failure ShellStream::Turn()
{
    const bool mayRead = !output_.HasPending();
    const bool mayWrite = filter_.IsPastBanner() && input_.WantsRoom();
    const bool wantsInput = filter_.IsPastBanner() && input_.WantsInput();
    std::array<pollfd, 4> polled = {
        {{mayRead || mayWrite ? connection_.Descriptor() : -1,
          static_cast<short>((mayRead ? POLLIN : 0) | (mayWrite ? POLLOUT : 0)), 0},
         {wantsInput ? STDIN_FILENO : -1, POLLIN, 0},
         {output_.HasPending() ? output_.Descriptor() : -1, POLLOUT, 0},
         {signals_->Descriptor(), POLLIN, 0}}};
    if (poll(polled.data(), polled.size(), ServerConnection::WatchInterval) < 0)
        return errno == EINTR ? Failure{} : SystemFailure("cannot wait for the shell", errno);
    if (polled[3].revents != 0)
        EndBySignal(signals_, signals_->Take(), [this] { return End(); });
    if (polled[2].revents != 0)
        if (Failure failure = Print({}))
            return failure;
    connection_.WatchPeer();
    if ((polled[0].revents & POLLOUT) != 0)
        input_.Send();
    if (polled[1].revents != 0)
        input_.Read();
    return (polled[0].revents & ~POLLOUT) != 0 && mayRead ? Receive() : Failure{};
}

Failure ShellStream::Receive()
{
    std::array<char, BlockSize> block;
    const ssize_t count = recv(connection_.Descriptor(), block.data(), block.size(), MSG_DONTWAIT);
    if (count < 0)
        return errno == EINTR || errno == EAGAIN ? Failure{} : connection_.Broken(errno);
    std::string bytes;
    const bool isServer =
        filter_.Feed(std::string_view(block.data(), static_cast<std::size_t>(count)), bytes);
    hasEnded_ = count == 0 || !isServer;
    TakeProcess(bytes);
    return Print(bytes);
}

void ShellStream::TakeProcess(std::string& bytes)
{
    if (process_.IsFound())
        return;
    std::string before;
    process_.Feed(bytes, before);
    bytes = before + process_.TakeRest();
}

Failure ShellStream::End() const
{
    return process_.IsFound() ? EndProcessTree(server_, process_.Number()) : Failure{};
}

Failure ShellStream::Print(std::string_view bytes)
{
    const int error = output_.Write(bytes);
    if (error == 0)
        return {};
    signals_.reset();
    static_cast<void>(End());
    if (error == EPIPE)
        DieBySignal(SIGPIPE);
    return SystemFailure("the output cannot be written", error);
}
} // namespace

int RunShell(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(
        self, "",
        "Lines of standard input go to a shell at the server, and its output comes back. There is\n"
        "no terminal at its end: no prompt, no editing. Exits with the shell's code. Ctrl-C ends the shell\n"
        "with all that it started; a second Ctrl-C leaves at once.");
    parser.TakeOptionsAnywhere();
    std::string lifeTimeOut = "0";
    parser.Options()
        .add_option("--timeout", lifeTimeOut, "End the shell after this time, such as 90s or 10m")
        ->type_name("DURATION")
        ->check(CheckDuration);
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (!parser.Words().empty())
        return Complain("shell takes no words: " + parser.Words().front() + " (run takes a command)");
    Server server;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
        return Report(failure);
    std::string request;
    if (const Failure failure = BuildRequest(server,
                                             {{AnyShell},
                                              {"SOCKET"},
                                              {"NOWINDOW"},
                                              {"INTERACTIVE"},
                                              {std::to_string(ReadDuration(lifeTimeOut).value_or(0))}},
                                             request))
        return Report(failure);
    ServerConnection connection;
    Failure failure = connection.Connect(server);
    if (!failure)
        failure = connection.Send(request);
    StreamEnd end;
    if (!failure)
        failure = ShellStream(server, connection, MakeMark()).Run(end);
    return failure ? Report(failure) : ConcludeLaunch(end, server);
}
