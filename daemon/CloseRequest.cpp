#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"
#include "support/Clock.h"

namespace
{

/** What the clients that are still being taken leave of may take, all of them together; milliseconds. */
constexpr long long LeaveLimit = 3'000;
/** Milliseconds until work that found no memory is gone on with. */
constexpr long long MemoryPause = 10;

} // namespace

/** Answered at once; the socket is closed when everything has ended. */
void RuvelServer::ServeClose(WaitingClient& client)
{
    closer_ = std::make_unique<Connection>();
    TakeSocket(client, *closer_);
    WriteToBaseConnectionSocket(
        closer_.get(), QORUnicodeString(std::string(protocol::BannerLine).append(protocol::Closed)), 0);
    stop_ = Stop::Demanded;
}

/** Nobody new comes in, and who has not been served goes. */
void RuvelServer::StopServing()
{
    CloseRuvelServer();
    checks_.EndAll();
    waiting_.Clear();
    for (const auto& report : reports_)
        report->TerminateThreadOrProcess(1);
    reports_.clear();
}

void RuvelServer::KillAllLaunchedCommand()
{
    CheckForLaunchedCommand(); // what has ended by itself is reported as ever
    const TurnShare share;
    if (EndEverything(share))
        stop_ = Stop::EndingWork;
    else
        isCutShort_ = true;
}

bool RuvelServer::IsToldToEnd(const Connection& connection) const
{
    const auto ending = endings_.find(&connection);
    return ending != endings_.end() && ending->second->HasCause(EndingCause::Shutdown);
}

/** False when the share was used up before the last one: those that have been told are passed by next time.
 */
bool RuvelServer::EndEverything(const TurnShare& share)
{
    for (int i = 1; i <= transfers_.Size(); ++i) {
        if (IsToldToEnd(*transfers_[i]))
            continue;
        EndTransfer(*transfers_[i], EndingCause::Shutdown, protocol::ShutdownTransfer);
        if (share.IsUsedUp())
            return false;
    }
    for (int i = 1; i <= commands_.Size(); ++i) {
        if (IsToldToEnd(*commands_[i]) || HasEndedByItself(*commands_[i]))
            continue;
        EndCommand(*commands_[i], EndingCause::Shutdown, protocol::ShutdownCommand);
        if (share.IsUsedUp())
            return false;
    }
    return true;
}

/** Climbs from stage to stage; everything of a kind is ended side by side. */
void RuvelServer::AdvanceShutdown()
{
    const long long now = Clock::SteadyMilliseconds();
    if (stop_ == Stop::Demanded) {
        StopServing();
        stop_ = Stop::BeginningEnds;
    }
    if (stop_ == Stop::BeginningEnds)
        KillAllLaunchedCommand();
    if (stop_ == Stop::EndingWork && IsWorkEnded()) {
        stop_ = Stop::AwaitingLogs;
        stopDeadline_ = now + 1000LL * Ladders::LogSeconds;
    }
    if (stop_ == Stop::AwaitingLogs && logs_.Size() != 0 && Deadline::IsPast(stopDeadline_, now)) {
        stopDeadline_ = now + MemoryPause; // should it break off
        const TurnShare share;
        const bool isComplete = EndLogs(share);
        stopDeadline_ = isComplete ? Deadline::Never : now;
        if (isComplete)
            stop_ = Stop::EndingLogs;
    }
    if ((stop_ == Stop::AwaitingLogs || stop_ == Stop::EndingLogs) && logs_.Size() == 0) {
        stop_ = Stop::TakingLeave;
        stopDeadline_ = now + LeaveLimit;
        if (closer_ != nullptr)
            Dismiss(*closer_);
    }
    const bool nobodyLeaves = leaving_.IsEmpty() && farewells_.empty();
    if (stop_ == Stop::TakingLeave && (nobodyLeaves || Deadline::IsPast(stopDeadline_, now))) {
        for (const auto& farewell : farewells_)
            farewell->TerminateThreadOrProcess(1);
        stop_ = Stop::Done;
    }
}

bool RuvelServer::IsWorkEnded() const
{
    return commands_.Size() == 0 && transfers_.Size() == 0 && endings_.empty() && remainders_.empty();
}

/** As EndEverything(). */
bool RuvelServer::EndLogs(const TurnShare& share)
{
    for (int i = 1; i <= logs_.Size(); ++i) {
        if (IsBeingEnded(*logs_[i]))
            continue;
        EndingDemand demand;
        demand.cause = EndingCause::Shutdown;
        demand.ladder = Ladders::Worker;
        EndWorkOf(*logs_[i], std::move(demand));
        if (share.IsUsedUp())
            return false;
    }
    return true;
}
