#include "daemon/RuvelServer.h"

#include <algorithm>
#include <array>
#include <errno.h>
#include <new>
#include <stdlib.h>

#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/CommandEnvironment.h"
#include "support/ProcessSetup.h"
#include "support/ServiceManager.h"
#include "support/TurnShare.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

/** From so many live children on, they are not all asked at each end, but after a pause: milliseconds, and as
 * many times what asking takes that it costs some hundredths of the time. */
constexpr int ManyChildren = 256;
constexpr int ShortestReapPause = 5;
constexpr int ChildrenPerMillisecond = 500;
/** Milliseconds until work that found no memory is gone on with. */
constexpr long long MemoryPause = 10;
/** Milliseconds for which a port may be taken before that is told, and between two looks. */
constexpr int PortPatience = 300;
constexpr int PortPause = 10;

} // namespace

int RuvelServer::MainDaemonLoop(const int& port, const QORUnicodeString& logDirectory, const int& retryNumber,
                                const int& retryTime)
{
    logDirectory_ = logDirectory;
    ServiceManager manager;
    if (PrepareToServe(port, retryNumber, retryTime) != 0)
        return 1;
    manager.TellReady();
    while (stop_ != Stop::Done) {
        try {
            ServeOneTurn();
        } catch (const std::bad_alloc&) {
            isUnfinished_ = true; // whatever was broken off is gone on with soon
            BaseString::PutTrace("Error out of memory", 1);
        }
        if (stop_ != Stop::No)
            manager.TellStopping();
    }
    return 0;
}

void RuvelServer::ServeOneTurn()
{
    if (IsNothingAlive())
        ReapAllChildren();
    WaitForActivity();
    isCutShort_ = false;
    ReceiveSignals();          // before serving: a kill must not hit what has just ended
    checks_.CollectVerdicts(); // before serving: a good user is served in this turn
    AcceptClients();
    ServeCompleteRequests();
    PushAnswers();
    CheckForLaunchedCommand();
    CheckConnectionLife();
    AdvanceEndings();
    AdvanceRemainders();
    StartFarewells();  // after all that may have ended a command
    AdvanceShutdown(); // last: it looks at what the steps before have left
}

int RuvelServer::PrepareToServe(int port, int retryNumber, int retryTime)
{
    signalDescriptor_ = ProcessSetup::BecomeSupervisor();
    if (signalDescriptor_ < 0) {
        BaseString::PutTrace("Error unable to receive signals : ", strerror(errno), 1);
        return 1;
    }
    waiting_.Prepare(sysconf(_SC_OPEN_MAX));
    if (!noPasswordCheck_)
        ProcessSetup::KeepMemoryPrivate();
    if (singleUser_)
        CommandEnvironment::CompleteOwn();
    environmentEntry_ = "RUVELSERVER_TMP=";
    environmentEntry_.Append(logDirectory_);
    putenv(const_cast<char*>(environmentEntry_.ConvertToChar()));
    WriterReader::RemoveAbandoned();
    return OpenWithRetries(port, retryNumber, retryTime) != 0 || ProbeDataPort() != 0;
}

/** A worker that was just forked when its daemon was killed holds the port for another moment. */
void RuvelServer::AwaitPort(int port)
{
    if (port > BaseSocket::HighestPort)
        return;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(port));
    const long long deadline = Clock::SteadyMilliseconds() + PortPatience;
    BaseSocket probe;
    while (probe.Bind(address) != 0 && probe.IsLocalAddressUnavailable() &&
           !Deadline::IsPast(deadline, Clock::SteadyMilliseconds()))
        if (IsToldToStopBy(Clock::SteadyMilliseconds() + PortPause))
            return;
}

int RuvelServer::OpenWithRetries(int port, int retryNumber, int retryTime)
{
    AwaitPort(port);
    const int furtherAttempts = std::max(retryNumber, 0);
    const int pause = std::max(retryTime, 1);
    for (int attempt = 0; OpenRuvelServer(port, 0) != 0; ++attempt) {
        if (attempt == furtherAttempts)
            return 1;
        if (RuvelServerSleep(pause) != 0)
            return 1; // told to stop before it had begun
    }
    return 0;
}

/** Passive logs and transfers connect from this port: better to know now that it cannot be had. */
int RuvelServer::ProbeDataPort()
{
    if (listeningSocket_->GetSocketName(dataAddress_) != 0) {
        BaseString::PutTrace(listeningSocket_->BaseSocketGetLastError(), 1);
        return 1;
    }
    dataAddress_.sin_family = AF_INET;
    dataAddress_.sin_port = htons(static_cast<in_port_t>(serverPort_ - 1));
    BaseString::PutTrace("Check port (", serverPort_ - 1, ") for data connection...", 0);
    BaseSocket probe;
    if (probe.Bind(dataAddress_) != 0) {
        BaseString::PutTrace("(failed)", 1);
        BaseString::PutTrace(probe.BaseSocketGetLastError(), 1);
        return 1;
    }
    BaseString::PutTrace("(successfull)", 1);
    return 0;
}

bool RuvelServer::IsNothingAlive() const
{
    return commands_.Size() == 0 && logs_.Size() == 0 && transfers_.Size() == 0;
}

void RuvelServer::WaitForActivity()
{
    poller_.Clear();
    signalSlot_ = poller_.Add(signalDescriptor_, POLLIN);
    if (listeningSocket_ != nullptr)
        waiting_.AddTo(poller_, *listeningSocket_);
    leaving_.AddTo(poller_);
    const long long deadline = NextDeadline();
    poller_.Wait(deadline == Deadline::Never ? -1 : std::max(0LL, deadline - Clock::SteadyMilliseconds()));
}

long long RuvelServer::NextDeadline() const
{
    long long next = Deadline::Earlier(waiting_.NextDeadline(), leaving_.NextDeadline());
    next = Deadline::Earlier(next, checks_.NextDeadline());
    next = Deadline::Earlier(next, startFarewellsAt_);
    if (isCutShort_ || !ends_.empty())
        return 0; // more than one turn could do
    if (isUnfinished_)
        next = Deadline::Earlier(next, Clock::SteadyMilliseconds() + MemoryPause);
    next = Deadline::Earlier(next, Deadline::Earlier(stopDeadline_, reapAllAt_));
    for (const auto& [connection, ending] : endings_)
        next = Deadline::Earlier(next, ending->NextDeadline());
    for (const TreeRemainder& remainder : remainders_)
        next = Deadline::Earlier(next, remainder.NextDeadline());
    if (nextEndOfLife_ != 0) {
        const long long wait = 1000LL * nextEndOfLife_ - Clock::EpochMilliseconds();
        next = Deadline::Earlier(next, Clock::SteadyMilliseconds() + std::max(0LL, wait));
    }
    return next;
}

void RuvelServer::ReceiveSignals()
{
    std::array<signalfd_siginfo, 16> signals;
    bool childEnded = false;
    ssize_t count = poller_.Events(signalSlot_) == 0 ? 0 : 1;
    while (count > 0 && (count = read(signalDescriptor_, signals.data(), sizeof signals)) > 0) {
        for (size_t i = 0; i < static_cast<size_t>(count) / sizeof signals[0]; ++i) {
            if (signals[i].ssi_signo == SIGCHLD) {
                childEnded = true;
                ChildTable::ReapOne(static_cast<pid_t>(signals[i].ssi_pid));
            } else if (stop_ == Stop::No) {
                stop_ = Stop::Demanded;
            }
        }
    }
    ReapChildren(childEnded);
}

/** A signal may stand for the ends of several children. Asking all of them costs what they are many: with
 * few it is done at once, with many a moment later, for all the signals that have come by then. */
void RuvelServer::ReapChildren(bool childEnded)
{
    const long long now = Clock::SteadyMilliseconds();
    const int children = ChildTable::CountOfRunning();
    if (childEnded && children <= ManyChildren) {
        reapAllAt_ = now;
    } else if (childEnded) {
        ChildTable::ReapYoungest();
        reapAllAt_ = Deadline::Earlier(reapAllAt_,
                                       now + std::max(ShortestReapPause, children / ChildrenPerMillisecond));
    }
    if (Deadline::IsPast(reapAllAt_, now))
        ReapAllChildren();
}

void RuvelServer::ReapAllChildren()
{
    const long long now = Clock::SteadyMilliseconds();
    reapAllAt_ = now + MemoryPause; // should it break off
    reapAllAt_ = ChildTable::Reap() ? now : Deadline::Never;
}

void RuvelServer::AcceptClients()
{
    if (listeningSocket_ == nullptr)
        return;
    waiting_.AcceptAndRead(poller_, *listeningSocket_,
                           [this] { return leaving_.MakeRoom() || waiting_.MakeRoom(); });
}

void RuvelServer::ServeCompleteRequests()
{
    RefuseUsers();
    const TurnShare share;
    do {
        WaitingClient* client = waiting_.NextComplete();
        if (client == nullptr)
            break;
        Guarded(*client, &RuvelServer::ServeRequest);
    } while (stop_ == Stop::No && !share.IsUsedUp());
    checks_.StartWaiting([this] { return ListSocketsForWorker(); });
    waiting_.Sweep(); // after the checks have forgotten who is gone
}

void RuvelServer::PushAnswers()
{
    leaving_.PushOn(poller_);
}
