#include "daemon/Ending.h"

#include <algorithm>

#include "protocol/Texts.h"
#include "support/Clock.h"

#include <signal.h>

void Ending::Add(EndingDemand demand)
{
    demands_.push_back(std::make_unique<EndingDemand>(std::move(demand)));
    EndingDemand& added = *demands_.back();
    added.stepDeadline = Clock::SteadyMilliseconds() + 1000LL * added.ladder.front().seconds;
    Signal(added);
}

void Ending::Signal(const EndingDemand& demand)
{
    const int force = demand.ladder[demand.step].force;
    if (worker_ != nullptr)
        worker_->TerminateThreadOrProcess(force);
    else if (demand.wholeTree)
        command_->GetProcess().KillBaseProcessTree(force);
    else
        command_->GetProcess().KillBaseProcess(force);
}

bool Ending::HasEnded(int& code)
{
    if (!ended_)
        ended_ = worker_ != nullptr ? HasWorkerEnded() : command_->GetProcess().CheckForProcess(code_) != 0;
    code = code_;
    return ended_;
}

/** A worker that is being ended is waited for, and a wait tells a fatal signal in its own way. It looks for
 * ended children first: so it is made only where it ends at once. */
bool Ending::HasWorkerEnded()
{
    return !worker_->IsWorkerRunning() && worker_->WaitThreadOrProcess(code_, 0) != 0;
}

bool Ending::HasCause(EndingCause cause) const
{
    return std::any_of(demands_.begin(), demands_.end(),
                       [cause](const auto& demand) { return demand->cause == cause; });
}

bool Ending::IsDue(long long now)
{
    int code = 0;
    return HasEnded(code) || IsOver() || Deadline::IsPast(NextDeadline(), now);
}

bool Ending::IsTreeUnfinished() const
{
    return command_ != nullptr && command_->GetProcess().IsTreeUnfinished();
}

std::vector<EndingDemand*> Ending::Advance(const TurnShare& share)
{
    if (IsTreeUnfinished())
        command_->GetProcess().GoOnWithTree(share);
    int code = 0;
    const bool ended = HasEnded(code);
    const long long now = Clock::SteadyMilliseconds();
    std::vector<EndingDemand*> finished;
    finished.reserve(demands_.size());
    for (auto& demand : demands_) {
        if (!demand->codeText.empty())
            continue;
        if (ended)
            demand->codeText = std::to_string(code);
        else if (Deadline::IsPast(demand->stepDeadline, now))
            Climb(*demand, now);
        if (!demand->codeText.empty())
            finished.push_back(demand.get());
    }
    return finished;
}

void Ending::Climb(EndingDemand& demand, long long now)
{
    if (demand.step + 1 == demand.ladder.size()) {
        demand.codeText = protocol::NoCode;
        return;
    }
    ++demand.step;
    demand.stepDeadline = now + 1000LL * demand.ladder[demand.step].seconds;
    Signal(demand);
}

bool Ending::IsOver() const
{
    return std::all_of(demands_.begin(), demands_.end(),
                       [](const auto& demand) { return !demand->codeText.empty(); });
}

long long Ending::NextDeadline() const
{
    if (IsTreeUnfinished())
        return 0;
    long long next = Deadline::Never;
    for (const auto& demand : demands_)
        if (demand->codeText.empty())
            next = Deadline::Earlier(next, demand->stepDeadline);
    return next;
}

long long Ending::TreeDeadline() const
{
    long long deadline = Deadline::Never;
    for (const auto& demand : demands_)
        if (demand->wholeTree)
            deadline =
                Deadline::Earlier(deadline, demand->ladder[demand->step].force ? 0 : demand->stepDeadline);
    return deadline;
}

namespace
{

constexpr long long LookInterval = 1000;
/** More than one is needed only for what could not be stopped while the tree was looked through. */
constexpr int MostKills = 30;

} // namespace

bool TreeRemainder::Advance(const TurnShare& share)
{
    const long long now = Clock::SteadyMilliseconds();
    if (!tree_.IsUnfinished()) {
        if (!Deadline::IsPast(nextLook_, now))
            return false;
        if (Deadline::IsPast(killAt_, now)) {
            tree_.Signal(SIGKILL);
            ++killsSent_;
        }
        tree_.Look();
    }
    if (tree_.GoOn(share))
        return false;
    nextLook_ = now + LookInterval;
    if (!Deadline::IsPast(killAt_, now))
        nextLook_ = Deadline::Earlier(nextLook_, killAt_);
    return !tree_.IsAnyoneAlive() || killsSent_ == MostKills;
}
