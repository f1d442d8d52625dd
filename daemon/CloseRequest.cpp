#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"
#include "support/Clock.h"

namespace
{

/** What the clients that are still being taken leave of may take, all of them together; milliseconds. */
constexpr long long LeaveLimit = 3'000;

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
    for (int i = 1; i <= transfers_.Size(); ++i)
        EndTransfer(*transfers_[i], EndingCause::Shutdown, protocol::ShutdownTransfer);
    for (int i = 1; i <= commands_.Size(); ++i)
        EndCommand(*commands_[i], EndingCause::Shutdown, protocol::ShutdownCommand);
}

/** Climbs from stage to stage; everything of a kind is ended side by side. */
void RuvelServer::AdvanceShutdown()
{
    const long long now = Clock::SteadyMilliseconds();
    if (stop_ == Stop::Demanded) {
        StopServing();
        KillAllLaunchedCommand();
        stop_ = Stop::EndingWork;
    }
    if (stop_ == Stop::EndingWork && IsWorkEnded()) {
        stop_ = Stop::AwaitingLogs;
        stopDeadline_ = now + 1000LL * Ladders::LogSeconds;
    }
    if (stop_ == Stop::AwaitingLogs && logs_.Size() != 0 && Deadline::IsPast(stopDeadline_, now)) {
        stop_ = Stop::EndingLogs;
        stopDeadline_ = Deadline::Never;
        EndLogs();
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

void RuvelServer::EndLogs()
{
    for (int i = 1; i <= logs_.Size(); ++i) {
        EndingDemand demand;
        demand.cause = EndingCause::Shutdown;
        demand.ladder = Ladders::Worker;
        EndWorkOf(*logs_[i], std::move(demand));
    }
}
