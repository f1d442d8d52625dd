#include "support/ProcessTreeSearch.h"

#include <algorithm>
#include <csignal>
#include <ctime>

#include <unistd.h>

#include "support/AdoptedOrphans.h"
#include "support/Clock.h"
#include "support/PidDescriptor.h"

namespace
{
constexpr long NapNanoseconds = 200000; // between two looks at a tree that is stopping
constexpr int MostNaps = 25;            // 5 ms in all: a member may be unable to stop for as long as it likes
constexpr long long MostMicroseconds = 1000000; // for a tree that grows as fast as it is stopped
constexpr int MostMissedInARow = 8;             // looks at the orphans alone
// A list of children that come and go may lack one that is there: where somebody was missed one quiet walk is
// no proof yet.
constexpr int QuietWalksAfterMiss = 4;
constexpr long long MostClosingMicroseconds = 10000; // for the last look of a search that is broken off
constexpr long long SettlingMilliseconds = 1000;

/** One that was just made may still be about to exchange its program, and with it its environment; one whose
 * first thread has ended shows none. */
bool IsSettledIn(const ProcessStatus& process)
{
    return process.state != 'Z' && process.startTime + ProcessFiles::ToTicks(SettlingMilliseconds) <=
                                       ProcessFiles::ToTicks(Clock::SteadyMilliseconds());
}

void Nap()
{
    const timespec nap{0, NapNanoseconds};
    nanosleep(&nap, nullptr);
}
} // namespace

ProcessTree::Search::Search(ProcessTree& tree) : tree_(&tree), sessionIsTheirs_(IsCommandRunning())
{
    if (sessionIsTheirs_)
        tree.NoteRunning(Clock::SteadyMilliseconds());
    for (const Member& member : tree.members_)
        members_.insert(member.processId);
}

bool ProcessTree::Search::GoOn(const TurnShare& share)
{
    begin_ = Clock::SteadyMicroseconds();
    areOrphansOld_ = true;
    while (phase_ != Phase::Over) {
        switch (phase_) {
        case Phase::StopKnown:
            StopNextKnown();
            break;
        case Phase::LookWhetherStill:
            LookAtNext();
            break;
        case Phase::WalkOrphans:
            ConsiderNextOrphan();
            break;
        case Phase::WalkMembers:
            WalkNextMember();
            break;
        case Phase::Over:
            break;
        }
        if (share.IsUsedUp())
            break;
    }
    spent_ = SpentMicroseconds();
    return phase_ != Phase::Over;
}

long long ProcessTree::Search::SpentMicroseconds() const
{
    return spent_ + Clock::SteadyMicroseconds() - begin_;
}

void ProcessTree::Search::StopNextKnown()
{
    if (next_ == tree_->members_.size())
        return BeginLook();
    const Member& member = tree_->members_[next_++];
    sessionIsTheirs_ = sessionIsTheirs_ || IsInTheirSession(member);
    Send(member, SIGSTOP);
}

/** A tree that stood still before a walk, and in which the walk found nobody new, is complete. */
void ProcessTree::Search::BeginLook()
{
    isStill_ = !missed_;
    next_ = 0;
    phase_ = Phase::LookWhetherStill;
}

void ProcessTree::Search::LookAtNext()
{
    if (isStill_ && next_ < tree_->members_.size()) {
        isStill_ = ProcessFiles::IsStill(tree_->members_[next_++].processId);
        return;
    }
    if (!isClosing_)
        return BeginWalk();
    if (isStill_ || SpentMicroseconds() - closingSince_ >= MostClosingMicroseconds)
        phase_ = Phase::Over;
    else
        BeginClosingRound();
}

void ProcessTree::Search::BeginWalk()
{
    grown_ = false;
    missed_ = false;
    doubtful_ = false;
    const auto command = static_cast<pid_t>(tree_->command_.processId);
    if (IsCommandRunning() && !Holds(command))
        Hold(command, nullptr);
    reader_.emplace();
    orphans_ = reader_->ListChildren(getpid());
    areOrphansOld_ = false;
    phase_ = Phase::WalkOrphans;
}

/** The youngest first: who always leaves a successor and goes is found at the end of the list or never. */
void ProcessTree::Search::ConsiderNextOrphan()
{
    if (!orphans_.empty()) {
        const pid_t orphan = orphans_.back();
        orphans_.pop_back();
        // Another command or a worker is no orphan, whatever it bears.
        if (!Holds(orphan) && !IsStranger(orphan) && !ChildTable::HoldsRunning(orphan))
            Consider(orphan);
        return;
    }
    // A successor is caught by being quick; but somebody else's must not keep this from the rest.
    missedInARow_ = missed_ ? missedInARow_ + 1 : 0;
    if (missedInARow_ % MostMissedInARow == 0)
        BeginMembers();
    else
        EndWalk();
}

void ProcessTree::Search::BeginMembers()
{
    next_ = 0;
    children_.clear();
    phase_ = Phase::WalkMembers;
}

/** Members found here are walked too: they join at the end. */
void ProcessTree::Search::WalkNextMember()
{
    if (!children_.empty()) {
        const pid_t child = children_.back();
        children_.pop_back();
        if (child > 1 && child != getpid() && !Holds(child))
            Hold(child, &tree_->members_[next_ - 1]);
    } else if (next_ < tree_->members_.size()) {
        children_ = reader_->ListChildren(tree_->members_[next_++].processId);
    } else if (isClosing_) {
        BeginLook();
        isStill_ = !grown_;
    } else {
        EndWalk();
    }
}

void ProcessTree::Search::EndWalk()
{
    quietInARow_ = HasMoved() || doubtful_ ? 0 : quietInARow_ + 1;
    tree_->isUnsettled_ = !isStill_ || !IsSettled();
    if (!tree_->isUnsettled_) {
        phase_ = Phase::Over;
        return;
    }
    if (SpentMicroseconds() > MostMicroseconds || naps_ == MostNaps)
        return BeginClosing();
    if (!HasMoved()) {
        ++naps_;
        Nap();
    }
    BeginLook();
}

void ProcessTree::Search::BeginClosing()
{
    isClosing_ = true;
    closingSince_ = SpentMicroseconds();
    BeginClosingRound();
}

void ProcessTree::Search::BeginClosingRound()
{
    Nap();
    grown_ = false;
    reader_.emplace();
    BeginMembers();
}

/** A session id is reused like any other once the session's last process has gone. */
bool ProcessTree::Search::IsInTheirSession(const Member& member) const
{
    ProcessStatus status;
    return ProcessFiles::ReadStatus(member.processId, status) &&
           status.session == tree_->command_.processId && status.startTime == member.startTime;
}

/** Whoever was there while the command still ran can have no other session of this id; and as long as
 * somebody is in it, no other can have its id. */
bool ProcessTree::Search::IsOfTheirSession(const ProcessStatus& orphan)
{
    if (orphan.session != tree_->command_.processId)
        return false;
    if (orphan.startTime <= tree_->lastSeenRunning_) // no id is used again within a tick
        sessionIsTheirs_ = true;
    return sessionIsTheirs_;
}

/** One that has ended tells no more whose it was. */
void ProcessTree::Search::Miss(pid_t processId)
{
    missed_ = true;
    hasEverMissed_ = true;
    strangers_.insert(processId);
}

/** Takes the orphan in if it is of the tree, and does not ask again if it is not. */
void ProcessTree::Search::Consider(pid_t orphan)
{
    ProcessStatus status;
    if (!ProcessFiles::ReadStatus(orphan, status)) {
        if (areOrphansOld_)
            Miss(orphan);
        return;
    }
    if (IsOfTheirSession(status)) {
        Hold(orphan, nullptr);
        return;
    }
    if (status.HasEnded())
        return Miss(orphan);
    std::string environment;
    const ProcessFiles::Reading reading = ProcessFiles::ReadEnvironment(orphan, environment);
    if (reading == ProcessFiles::Reading::NotYet) {
        doubtful_ = true;
        return;
    }
    if (environment.find('\0' + tree_->mark_ + '\0') != std::string::npos)
        return Hold(orphan, nullptr);
    // It may have ended between the two looks, and its successor be there by now.
    if (!ProcessFiles::ReadStatus(orphan, status) || status.HasEnded())
        return Miss(orphan);
    strangers_.insert(orphan);
    if (reading == ProcessFiles::Reading::Whole && IsSettledIn(status))
        AdoptedOrphans::Note(orphan, status.session, environment, tree_->mark_);
}

/** `parent` null: a child of this process, whose id stays its own until this process reaps it. */
void ProcessTree::Search::Hold(pid_t processId, const Member* parent)
{
    Member member{processId, Handle(processId), 0};
    ProcessStatus status;
    if (!ProcessFiles::ReadStatus(processId, status)) {
        // Either it is gone, or the pidfd was the last descriptor there was, which reading needs more.
        member.pidDescriptor = Handle();
        if (!ProcessFiles::ReadStatus(processId, status))
            return Miss(processId);
    }
    member.startTime = status.startTime;
    if (parent == nullptr && status.parent != getpid())
        return Miss(processId); // reaped since the list was read, and its id used again
    if (parent != nullptr &&
        (status.parent != parent->processId || Send(*parent, 0) != 0 || Send(member, 0) != 0)) {
        doubtful_ = true; // it has lost its parent just now: to be found among the orphans
        return;
    }
    grown_ = true;
    members_.insert(processId);
    // Stopped only once it is known: nobody else would let it go on.
    tree_->members_.push_back(std::move(member));
    Send(tree_->members_.back(), SIGSTOP);
}

bool ProcessTree::Search::IsStranger(pid_t orphan) const
{
    const auto session = static_cast<pid_t>(tree_->command_.processId);
    return strangers_.contains(orphan) || AdoptedOrphans::IsStranger(orphan, session, tree_->mark_);
}

bool ProcessTree::Search::IsSettled() const
{
    return quietInARow_ >= (hasEverMissed_ ? QuietWalksAfterMiss : 1);
}
