#include "daemon/RuvelServer.h"

#include <new>
#include <string>

#include "connections/WorkerStatus.h"
#include "protocol/Texts.h"
#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/ProcessSetup.h"
#include "support/TurnShare.h"

namespace
{

/** The argument of DeleteOutputFile, which means nothing to it. */
constexpr int DeletionLimit = 30;
/** Milliseconds until a worker that could not be had is tried for again. */
constexpr long long FarewellPause = 100;

} // namespace

void RuvelServer::CheckForLaunchedCommand()
{
    // Nobody's end is unreported: so a turn costs nothing however many commands live.
    if (ChildTable::CountOfUnaskedEnds() == 0 && ends_.empty() && !isUnfinished_)
        return;
    isUnfinished_ = true; // should a report break off, the next turn goes on with it
    CheckLogs();
    CheckTransfers();
    CheckCommands();
    CheckReports();
    CheckFarewells();
    isUnfinished_ = false;
}

/** What has ended leaves its list before anything else: should memory run out on the way, its client finds
 * the connection closed. */
void RuvelServer::CheckLogs()
{
    for (int i = logs_.Size(); i >= 1; --i) {
        int status = 0;
        if (IsBeingEnded(*logs_[i]) || !logs_[i]->CheckThreadOrProcess(status))
            continue;
        const std::unique_ptr<LogConnection> log(logs_[i]);
        logs_.RemoveAt(i);
        log->DeleteOutputFile(DeletionLimit);
        Dismiss(*log);
    }
}

void RuvelServer::CheckTransfers()
{
    for (int i = transfers_.Size(); i >= 1; --i) {
        int status = 0;
        if (IsBeingEnded(*transfers_[i]) || !transfers_[i]->CheckThreadOrProcess(status))
            continue;
        const std::unique_ptr<TransferConnection> transfer(transfers_[i]);
        transfers_.RemoveAt(i);
        WriteToBaseConnectionSocket(transfer.get(), QORUnicodeString(protocol::ReturnCodeLine(status)), 0);
        Dismiss(*transfer);
    }
}

void RuvelServer::CheckCommands()
{
    ChildTable::TakeEnds(ends_);
    for (const TurnShare share; !ends_.empty() && !share.IsUsedUp();) {
        const auto ended = commandOf_.find(ends_.front());
        ends_.pop_front();
        int code = 0;
        if (ended == commandOf_.end() || IsBeingEnded(*ended->second) ||
            !ended->second->GetProcess().CheckForProcess(code))
            continue;
        const auto command = TakeCommand(ended->second);
        try {
            ReportCommand(*command, code);
        } catch (const std::bad_alloc&) {
            command->DeleteOutputFile(DeletionLimit);
            throw;
        }
    }
}

/** Off the list and out of the index. */
std::unique_ptr<BaseConnection> RuvelServer::TakeCommand(BaseConnection* command)
{
    commandOf_.erase(command->GetProcess().GetSerial());
    TakeOff(commands_, command);
    return std::unique_ptr<BaseConnection>(command);
}

void RuvelServer::CheckReports()
{
    std::erase_if(reports_, [this](const std::unique_ptr<ReportConnection>& report) {
        int status = 0;
        if (!report->CheckThreadOrProcess(status))
            return false;
        if (status == WorkerStatus::Signalled)
            BaseString::PutTrace("Error system report not delivered in time : dropped", 1);
        Dismiss(*report);
        return true;
    });
}

/** The client on the command's socket gets the return line; every other gets the log, by a worker. */
void RuvelServer::ReportCommand(BaseConnection& command, int code)
{
    if (command.IsSocketMode())
        return BidFarewell(command, QORUnicodeString(protocol::ReturnCodeLine(code)));
    auto log = std::make_unique<LogConnection>(command, code);
    if (!command.IsPassive()) {
        log->GetSocket() = command.GetSocket();
        command.GetSocket().Reset();
    }
    QORListPtrBaseSocket sockets = ListSocketsForWorker();
    logs_.MakeRoom(); // a worker that runs must not be lost
    if (log->StartThreadOrProcess(sockets) == 0) {
        logs_.Append(log.release());
        return;
    }
    if (!log->IsPassive())
        WriteToBaseConnectionSocket(log.get(),
                                    QORUnicodeString(std::string(protocol::BannerLine)
                                                         .append(protocol::LogNotStarted)
                                                         .append(protocol::ReturnCodeLine(code))),
                                    0);
    command.DeleteOutputFile(DeletionLimit);
    Dismiss(*log);
}

/** The last words to a client that has been attached to a command. */
void RuvelServer::BidFarewell(BaseConnection& command, const QORUnicodeString& words)
{
    // A command of the daemon's own user could end the daemon as well as hold it up.
    if (singleUser_) {
        WriteToBaseConnectionSocket(&command, words, 1);
        return Dismiss(command);
    }
    farewells_.push_back(std::make_unique<FarewellConnection>(command, words, readTimeOut_));
    if (startFarewellsAt_ == Deadline::Never)
        startFarewellsAt_ = Clock::SteadyMilliseconds();
}

/** Those without a worker get one; where none can be had, again after a pause. */
void RuvelServer::StartFarewells()
{
    const long long now = Clock::SteadyMilliseconds();
    if (!Deadline::IsPast(startFarewellsAt_, now))
        return;
    startFarewellsAt_ = now + FarewellPause; // should it break off
    const TurnShare share;
    for (const auto& farewell : farewells_) {
        if (farewell->IsHandedOver())
            continue;
        if (share.IsUsedUp()) {
            startFarewellsAt_ = now;
            return;
        }
        QORListPtrBaseSocket sockets = ListSocketsForWorker();
        if (farewell->HandOver(sockets) != 0)
            return;
    }
    startFarewellsAt_ = Deadline::Never;
}

void RuvelServer::CheckFarewells()
{
    std::erase_if(farewells_, [](const std::unique_ptr<FarewellConnection>& farewell) {
        int status = 0;
        return farewell->IsHandedOver() && farewell->CheckThreadOrProcess(status);
    });
}

void RuvelServer::NoteLifeTime(const Connection& connection)
{
    const long endOfLife = connection.GetEndOfLife();
    if (endOfLife != 0 && (nextEndOfLife_ == 0 || endOfLife < nextEndOfLife_))
        nextEndOfLife_ = endOfLife;
}

void RuvelServer::CheckConnectionLife()
{
    const long now = BaseString::GetTimeInSec();
    if (nextEndOfLife_ == 0 || now < nextEndOfLife_)
        return;
    nextEndOfLife_ = 0;
    try {
        const TurnShare share;
        if (!ExpireTransfers(now, share) || !ExpireCommands(now, share))
            nextEndOfLife_ = now;
    } catch (const std::bad_alloc&) {
        nextEndOfLife_ = now; // some have not been looked at
        throw;
    }
}

/** False when the share was used up before the last one: those that are being ended by then are passed by in
 * the next turn. */
bool RuvelServer::ExpireTransfers(long now, const TurnShare& share)
{
    for (int i = 1; i <= transfers_.Size(); ++i) {
        if (IsBeingEnded(*transfers_[i]))
            continue;
        if (!transfers_[i]->IsEndOfLife(now)) {
            NoteLifeTime(*transfers_[i]);
            continue;
        }
        EndTransfer(*transfers_[i], EndingCause::LifeTimeOut, protocol::TransferExpired);
        if (share.IsUsedUp())
            return false;
    }
    return true;
}

/** As ExpireTransfers(). */
bool RuvelServer::ExpireCommands(long now, const TurnShare& share)
{
    for (int i = 1; i <= commands_.Size(); ++i) {
        if (IsBeingEnded(*commands_[i]) || HasEndedByItself(*commands_[i]))
            continue;
        if (!commands_[i]->IsEndOfLife(now)) {
            NoteLifeTime(*commands_[i]);
            continue;
        }
        EndCommand(*commands_[i], EndingCause::LifeTimeOut, protocol::CommandExpired);
        if (share.IsUsedUp())
            return false;
    }
    return true;
}

namespace
{

template <class List>
void AppendOpenSockets(List& connections, QORListPtrBaseSocket& sockets)
{
    for (int i = 1; i <= connections.Size(); ++i)
        if (connections[i] != nullptr && connections[i]->GetSocket().GetBaseSocketStatus())
            sockets.Append(&connections[i]->GetSocket());
}

} // namespace

QORListPtrBaseSocket RuvelServer::ListSocketsForWorker()
{
    QORListPtrBaseSocket sockets(0);
    if (!ProcessSetup::ClosesAllAtOnce())
        GetListOfSocketToClose(sockets);
    return sockets;
}

void RuvelServer::GetListOfSocketToClose(QORListPtrBaseSocket& sockets)
{
    if (listeningSocket_ != nullptr)
        sockets.Append(listeningSocket_.get());
    AppendOpenSockets(logs_, sockets);
    AppendOpenSockets(transfers_, sockets);
    AppendOpenSockets(commands_, sockets);
    for (const auto& report : reports_)
        sockets.Append(&report->GetSocket());
    for (const auto& farewell : farewells_)
        if (!farewell->IsHandedOver())
            sockets.Append(&farewell->GetSocket());
    waiting_.AppendSocketsTo(sockets);
    leaving_.AppendSocketsTo(sockets);
    if (closer_ != nullptr)
        sockets.Append(&closer_->GetSocket());
}

int RuvelServer::WriteToBaseConnectionSocket(Connection* connection, const QORUnicodeString& text,
                                             const int& /*online*/)
{
    if (connection == nullptr)
        return -1;
    // Attached clients and others are written to alike: at once, and in order.
    connection->GetSendQueue().Append(text.View());
    if (connection->GetSendQueue().Flush(connection->GetSocket()) != SendQueue::Result::Failed)
        return 0;
    // Should it still stand: nothing may come behind the gap, neither from here nor from a command.
    connection->GetSocket().ShutdownBoth();
    BaseString::PutTrace(connection->GetSocket().BaseSocketGetLastError(), 1);
    return 1;
}
