#include "client/CommandRun.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/LaunchAnswer.h"
#include "client/RemoteEnd.h"
#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "support/Clock.h"

namespace
{
constexpr std::size_t BlockSize = 65536;
/** Once the command's end is known, what is still to come is on its way already: milliseconds. */
constexpr long long PatienceWithEnd = 10'000;
/** What may be the beginning of an end is held back no longer than this: milliseconds. The rest of an end
 * follows at once, but whoever takes turns with the command may wait for these very bytes. */
constexpr long long HoldingTime = 200;
/** Without a mark, whoever holds standard error open may do so for ever. */
constexpr long long PatienceWithErrors = 2'000;

/** The line of a shell's complaint, without what would break ours. */
std::string FirstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}
} // namespace

CommandRun::CommandRun(RunRequest request)
    : request_(std::move(request)),
      wrapping_{MakeMark(), !request_.mergesErrors},
      command_(wrapping_.mark, wrapping_.hasErrorsApart, STDOUT_FILENO),
      block_(BlockSize, '\0')
{
    if (wrapping_.hasErrorsApart)
        errors_ = std::make_unique<Channel>(wrapping_.mark, true, STDERR_FILENO);
    std::signal(SIGPIPE, SIG_IGN);
}

int CommandRun::Run()
{
    if (const Failure failure = Start())
        return Report(failure);
    while (!IsOver())
        Turn();
    for (Channel* const channel : {&command_, errors_.get()})
        if (channel != nullptr)
            FollowOutput(*channel, channel->output.Flush());
    return Conclude();
}

Failure CommandRun::Start()
{
    if (errors_)
        if (Failure failure = StartErrorReader())
            return failure;
    return StartCommand();
}

Failure CommandRun::StartErrorReader()
{
    if (Failure failure = Launch(*errors_, ErrorReaderLine(wrapping_.mark), 0))
        return failure;
    while (!errors_->hasEnded && !errors_->stream.IsReady())
        Receive(*errors_);
    if (errors_->stream.IsReady()) {
        if (errors_->stream.ReadyNumber() == Wrapping::InLogFolder)
            wrapping_.fifoFolder = Wrapping::InLogFolder;
        return {};
    }
    if (errors_->failure)
        return errors_->failure;
    if (errors_->end.kind == StreamEnd::Refused)
        return ExplainRefusal(request_.server, errors_->end.words);
    if (errors_->end.kind == StreamEnd::NoServer)
        return NoServerThere(request_.server);
    return {"standard error cannot be kept apart at " + request_.server.Name() + ": use --merge (" +
            FirstLine(errors_->stream.WordsBeforeReady()) + ")"};
}

Failure CommandRun::StartCommand()
{
    const bool isLong = request_.line.size() > LongestWrappedLine;
    signals_.emplace();
    if (Failure failure = Launch(
            command_, isLong ? WrapLongLine(wrapping_, request_.line) : WrapLine(wrapping_, request_.line),
            request_.lifeTimeOut))
        return failure;
    input_ = std::make_unique<InputForwarder>(request_.passesInput ? STDIN_FILENO : -1,
                                              command_.connection.Descriptor(),
                                              isLong ? LongLineInput(request_.line) : "");
    return {};
}

Failure CommandRun::Launch(Channel& channel, const std::string& line, long lifeTimeOut)
{
    std::string request;
    if (Failure failure = BuildRequest(
            request_.server,
            {{line, "command"}, {"SOCKET"}, {"NOWINDOW"}, {std::to_string(lifeTimeOut), "time-out"}},
            request))
        return failure;
    if (Failure failure = channel.connection.Connect(request_.server))
        return failure;
    return channel.connection.Send(request);
}

bool CommandRun::IsOver() const
{
    if (givesUpAt_ != 0 && Clock::SteadyMilliseconds() >= givesUpAt_)
        return true;
    return command_.hasEnded && (!errors_ || errors_->hasEnded || errors_->stream.IsWhole());
}

int CommandRun::TimeLeft() const
{
    const long long now = Clock::SteadyMilliseconds();
    long long at = now + ServerConnection::WatchInterval;
    if (givesUpAt_ != 0)
        at = std::min(at, givesUpAt_);
    for (const Channel* const channel : {&command_, static_cast<const Channel*>(errors_.get())})
        if (channel != nullptr && !channel->hasEnded && channel->stream.IsHolding())
            at = std::min(at, channel->arrivedAt + HoldingTime);
    return static_cast<int>(std::max(0LL, at - now));
}

void CommandRun::ReleaseHeld(Channel& channel)
{
    if (!channel.stream.IsHolding() || Clock::SteadyMilliseconds() < channel.arrivedAt + HoldingTime)
        return;
    passing_.clear();
    channel.stream.Release(passing_);
    PassOn(channel, passing_);
}

void CommandRun::Turn()
{
    enum { Signal, Command, Errors, Input, Output, ErrorOutput, Count };
    std::array<pollfd, Count> polled;
    polled.fill({-1, 0, 0});
    polled[Signal] = {signals_->Descriptor(), POLLIN, 0};
    if (!command_.hasEnded) {
        const bool mayRead = !command_.output.HasPending();
        const bool mayWrite = command_.stream.IsPastBanner() && input_->WantsRoom();
        if (mayRead || mayWrite)
            polled[Command] = {command_.connection.Descriptor(),
                               static_cast<short>((mayRead ? POLLIN : 0) | (mayWrite ? POLLOUT : 0)), 0};
        if (command_.stream.IsPastBanner() && input_->WantsInput())
            polled[Input] = {STDIN_FILENO, POLLIN, 0};
    }
    if (errors_ && !errors_->hasEnded && !errors_->output.HasPending())
        polled[Errors] = {errors_->connection.Descriptor(), POLLIN, 0};
    // Whether anybody still reads is found out by writing, as for a command here: those who have read all
    // they want may close it and wait for the exit code.
    if (command_.output.HasPending())
        polled[Output] = {command_.output.Descriptor(), POLLOUT, 0};
    if (errors_ && errors_->output.HasPending())
        polled[ErrorOutput] = {errors_->output.Descriptor(), POLLOUT, 0};

    if (poll(polled.data(), polled.size(), TimeLeft()) < 0)
        return;
    if (polled[Signal].revents != 0)
        EndBySignal(signals_, signals_->Take(),
                    [&] { return EndCommandTree(request_.server, ListingKey(wrapping_.mark)); });
    if (polled[Output].revents != 0)
        PassOn(command_, {});
    if (polled[ErrorOutput].revents != 0)
        PassOn(*errors_, {});
    if (polled[Errors].revents != 0)
        Receive(*errors_);
    if ((polled[Command].revents & ~POLLOUT) != 0 && !command_.output.HasPending())
        Receive(command_);
    if ((polled[Command].revents & POLLOUT) != 0)
        input_->Send();
    if (polled[Input].revents != 0)
        input_->Read();
    for (Channel* const channel : {&command_, errors_.get()})
        if (channel != nullptr && !channel->hasEnded) {
            channel->connection.WatchPeer();
            ReleaseHeld(*channel);
        }
    FollowCommand();
}

void CommandRun::Receive(Channel& channel)
{
    const ssize_t count = recv(channel.connection.Descriptor(), block_.data(), block_.size(), 0);
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return channel.connection.WatchPeer();
    if (count < 0)
        channel.failure = channel.connection.Broken(errno);
    channel.arrivedAt = Clock::SteadyMilliseconds();
    passing_.clear();
    const bool isServer = channel.stream.Feed(
        std::string_view(block_.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))), passing_);
    if (count <= 0 || !isServer) {
        channel.hasEnded = true;
        channel.end = channel.stream.Finish(passing_);
    }
    PassOn(channel, passing_);
}

void CommandRun::PassOn(Channel& channel, std::string_view bytes)
{
    FollowOutput(channel, channel.output.Write(bytes));
}

void CommandRun::FollowOutput(Channel& channel, int error)
{
    // Without a reader of its standard error a command can still do its work.
    if (error == 0 || &channel != &command_ || command_.failure)
        return;
    signals_.reset();
    if (!command_.hasEnded && !command_.stream.IsWhole())
        static_cast<void>(EndCommandTree(request_.server, ListingKey(wrapping_.mark)));
    if (error == EPIPE)
        DieBySignal(SIGPIPE);
    command_.failure = SystemFailure("the output cannot be written", error);
    givesUpAt_ = Clock::SteadyMilliseconds();
}

void CommandRun::FollowCommand()
{
    if (errors_ && !hasLetReaderGo_ && command_.stream.IsReady()) {
        hasLetReaderGo_ = true;
        // If it has gone meanwhile, its stream's end says so.
        static_cast<void>(errors_->connection.Send("\n"));
    }
    if (givesUpAt_ == 0 && (command_.hasEnded || command_.stream.IsWhole()))
        givesUpAt_ =
            Clock::SteadyMilliseconds() + (command_.stream.IsWhole() ? PatienceWithEnd : PatienceWithErrors);
    if (command_.hasEnded)
        input_->Stop();
}

int CommandRun::Conclude()
{
    if (command_.failure)
        return Report(command_.failure);
    const bool saysMore = !command_.end.words.empty() || command_.end.kind == StreamEnd::NoServer;
    return command_.stream.IsWhole() && !saysMore ? ConcludeWhole() : ConcludeCut();
}

int CommandRun::ConcludeWhole()
{
    const std::string name = request_.server.Name();
    const int code = command_.stream.Code();
    if (command_.end.kind != StreamEnd::Code)
        return Report("the output is whole and its end says code " + std::to_string(code) + ", but " + name +
                      " did not confirm it: the server may have been ended");
    if (command_.end.code != code)
        return Report("the output's end says code " + std::to_string(code) + ", but " + name + " says " +
                      std::to_string(command_.end.code) + ": something disguises the command's end");
    if (command_.stream.HasLeaked())
        return Report(
            "the output has a few bytes too many at its end: the network held up the rest of the end");
    if (errors_ && !errors_->stream.IsWhole())
        return Report("standard error was cut short (the command's code is " + std::to_string(code) +
                      "): its reader at " + name + " was ended");
    return code;
}

int CommandRun::ConcludeCut()
{
    const StreamEnd& end = command_.end;
    // Where the server says nothing of its own, the command's shell did not come to its end by itself.
    if (end.kind == StreamEnd::Code && end.words.empty()) {
        if (!command_.stream.IsReady())
            return Report("the command was not started, since standard error cannot be kept apart at " +
                          request_.server.Name() + ": use --merge (" +
                          FirstLine(command_.stream.WordsBeforeReady()) + ")");
        // Output that was cut short is no success, whatever the command made of its signal.
        if (end.code == 0)
            return Report("the end of the output is missing: something ended the command's shell");
    }
    return ConcludeLaunch(end, request_.server);
}
