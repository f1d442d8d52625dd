#include <algorithm>
#include <utility>

#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"
#include "support/Clock.h"
#include "support/TurnShare.h"

namespace
{

constexpr int DeletionLimit = 30;

} // namespace

/** Begins, or joins in, the end of this work. Without memory for it nothing is being ended. */
template <class Work>
void RuvelServer::End(Work& work, EndingDemand demand)
{
    const auto [entry, isNew] = endings_.try_emplace(&work);
    try {
        if (isNew)
            entry->second = std::make_unique<Ending>(work);
        entry->second->Add(std::move(demand));
    } catch (const std::bad_alloc&) {
        if (isNew)
            endings_.erase(entry);
        throw;
    }
}

void RuvelServer::EndWorkOf(BaseConnection& command, EndingDemand demand)
{
    End(command, std::move(demand));
}

void RuvelServer::EndWorkOf(ThreadOrProcessConnection& worker, EndingDemand demand)
{
    End(worker, std::move(demand));
}

/** Ends the whole tree of a command that has lived long enough. */
void RuvelServer::EndCommand(BaseConnection& command, EndingCause cause, std::string_view text)
{
    EndingDemand demand;
    demand.cause = cause;
    demand.ladder = Ladders::CommandTree;
    demand.wholeTree = true;
    demand.text = text;
    EndWorkOf(command, std::move(demand));
}

void RuvelServer::EndTransfer(TransferConnection& transfer, EndingCause cause, std::string_view text)
{
    EndingDemand demand;
    demand.cause = cause;
    demand.ladder = Ladders::Worker;
    demand.text = text;
    EndWorkOf(transfer, std::move(demand));
}

/** As much as one turn has time for. The next one begins behind whoever was served last. */
void RuvelServer::AdvanceEndings()
{
    const long long now = Clock::SteadyMilliseconds();
    const TurnShare share;
    auto next = endings_.upper_bound(lastAdvanced_);
    for (size_t left = endings_.size(); left > 0; --left) {
        if (next == endings_.end())
            next = endings_.begin();
        const auto current = next++;
        if (!current->second->IsDue(now))
            continue; // it has cost next to nothing
        lastAdvanced_ = current->first;
        AdvanceEnding(current, share);
        if (share.IsUsedUp()) {
            isCutShort_ = true;
            return;
        }
    }
}

void RuvelServer::AdvanceEnding(EndingMap::iterator current, const TurnShare& share)
{
    Ending& ending = *current->second;
    for (EndingDemand* demand : ending.Advance(share))
        FinishGuarded(ending, *demand);
    if (!ending.IsOver())
        return;
    remainders_.reserve(remainders_.size() + 1);
    // Off the list first: the work goes, whatever happens on the way.
    const auto over = endings_.extract(current);
    DropEndedWork(*over.mapped());
}

/** As much as one turn has time for: who has waited longest comes first, and the next turn comes at once. */
void RuvelServer::AdvanceRemainders()
{
    const auto isEarlier = [](const TreeRemainder& one, const TreeRemainder& other) {
        return one.NextDeadline() < other.NextDeadline();
    };
    for (const TurnShare share; !remainders_.empty() && !share.IsUsedUp();) {
        const auto next = std::min_element(remainders_.begin(), remainders_.end(), isEarlier);
        if (!Deadline::IsPast(next->NextDeadline(), Clock::SteadyMilliseconds()))
            return;
        if (next->Advance(share)) {
            std::swap(*next, remainders_.back());
            remainders_.pop_back();
        }
    }
}

/** A log that nobody is told of must not stay. */
void RuvelServer::FinishGuarded(Ending& ending, EndingDemand& demand)
{
    try {
        FinishDemand(ending, demand);
    } catch (const std::bad_alloc&) {
        if (ending.GetCommand() != nullptr && !ending.GetCommand()->IsSocketMode())
            ending.GetCommand()->DeleteOutputFile(DeletionLimit);
        throw;
    }
}

/** Tells who asked, and, for the first demand, the work's own client. */
void RuvelServer::FinishDemand(Ending& ending, EndingDemand& demand)
{
    const std::string told = demand.text + demand.codeText + "\n";
    if (demand.asker != nullptr) {
        const std::string answer = std::string(protocol::BannerLine).append(told).append("\n");
        WriteToBaseConnectionSocket(demand.asker.get(), QORUnicodeString(answer), 0);
        Dismiss(*demand.asker);
        demand.asker.reset();
    }
    if (!ending.IsFirst(&demand) || demand.text.empty())
        return;
    int code = 0;
    ending.HasEnded(code);
    if (ending.GetCommand() != nullptr)
        TellEndedCommand(*ending.GetCommand(), demand, code);
    else {
        WriteToBaseConnectionSocket(ending.GetWorker(), QORUnicodeString(told), 0);
        Dismiss(*ending.GetWorker());
    }
}

/** An attached client gets the text as it is; others get it in place of their log, which goes. */
void RuvelServer::TellEndedCommand(BaseConnection& command, const EndingDemand& demand, int code)
{
    std::string message = demand.text + demand.codeText + "\n";
    if (!command.IsSocketMode() && demand.cause != EndingCause::KillRequest)
        message.insert(0, protocol::BannerLine);
    if (command.IsSocketMode()) {
        BidFarewell(command, QORUnicodeString(message));
    } else if (!command.IsPassive()) {
        WriteToBaseConnectionSocket(&command, QORUnicodeString(message), 0);
        Dismiss(command);
    } else {
        auto log = std::make_unique<LogConnection>(command, code);
        log->SetMessage(QORUnicodeString(message));
        QORListPtrBaseSocket sockets = ListSocketsForWorker();
        logs_.MakeRoom(); // a worker that runs must not be lost
        if (log->StartThreadOrProcess(sockets) == 0)
            logs_.Append(log.release());
    }
    if (!command.IsSocketMode())
        command.DeleteOutputFile(DeletionLimit);
}

/** The work leaves its list; what is left of a command's tree goes on being ended. */
void RuvelServer::DropEndedWork(Ending& ending)
{
    int code = 0;
    const bool ended = ending.HasEnded(code);
    if (ending.GetCommand() != nullptr) {
        const auto command = TakeCommand(ending.GetCommand());
        const long long killAt = ending.TreeDeadline();
        if (killAt != Deadline::Never)
            remainders_.emplace_back(command->GetProcess().TakeProcessTree(), killAt);
        if (!ended)
            command->GetProcess().ResetBeforeDestruction();
        return;
    }
    const std::unique_ptr<ThreadOrProcessConnection> worker(ending.GetWorker());
    if (!ended)
        worker->ResetThreadOrProcess();
    if (LogConnection* log = TakeOff(logs_, worker.get()); log != nullptr)
        log->DeleteOutputFile(DeletionLimit);
    TakeOff(transfers_, worker.get());
    Dismiss(*worker);
}
