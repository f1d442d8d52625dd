#include "support/ProcessTree.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <unordered_set>

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/AdoptedOrphans.h"
#include "support/Clock.h"
#include "support/PidDescriptor.h"
#include "support/ProcessFiles.h"

namespace
{
constexpr long NapNanoseconds = 200000; // between two looks at a tree that is stopping
constexpr int MostNaps = 25;            // 5 ms in all: a member may be unable to stop for as long as it likes
constexpr long long MostMilliseconds = 100; // for a tree that grows as fast as it is stopped
constexpr int MostMissedInARow = 8;         // looks at the orphans alone
// A list of children that come and go may lack one that is there: where somebody was missed one quiet walk is
// no proof yet.
constexpr int QuietWalksAfterMiss = 4;
constexpr long long MostClosingMilliseconds = 10; // for the last look of a search that is broken off
constexpr long long SettlingMilliseconds = 1000;
// What all trees may take of the descriptors that everybody needs, and this part of the limit at most;
// members beyond are told by start time.
constexpr rlim_t MostPidDescriptors = 1024;
constexpr rlim_t PartForPidDescriptors = 4;

/** Steady milliseconds in the unit of start times. */
unsigned long long ToTicks(long long milliseconds)
{
    static const long long ticksPerSecond = sysconf(_SC_CLK_TCK);
    return static_cast<unsigned long long>(milliseconds * ticksPerSecond / 1000);
}

/** One that was just made may still be about to exchange its program, and with it its environment; one whose
 * first thread has ended shows none. */
bool IsSettledIn(const ProcessStatus& process)
{
    return process.state != 'Z' &&
           process.startTime + ToTicks(SettlingMilliseconds) <= ToTicks(Clock::SteadyMilliseconds());
}

void Nap()
{
    const timespec nap{0, NapNanoseconds};
    nanosleep(&nap, nullptr);
}
} // namespace

int ProcessTree::Handle::count = 0;

ProcessTree::Handle::Handle(pid_t processId)
{
    if (!IsOneLeft())
        return;
    descriptor_ = FileDescriptor(PidDescriptor::Open(processId));
    if (IsOpen())
        ++count;
}

ProcessTree::Handle::~Handle()
{
    if (IsOpen())
        --count;
}

/** The limit may be changed at any time. */
bool ProcessTree::Handle::IsOneLeft()
{
    rlimit limit{};
    const rlim_t files = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
    return static_cast<rlim_t>(count) < std::min(MostPidDescriptors, files / PartForPidDescriptors);
}

/**
 * One search for members, each of which is held and stopped as soon as it is found. An id that was read
 * from a list may belong to another process a moment later, so that a member is taken in only after it has
 * been proved, with the pidfd in hand, to be still there and still the child of a member that is there.
 */
class ProcessTree::Search
{
public:
    explicit Search(ProcessTree& tree);

    /** One walk over the tree. */
    void Walk();
    /** Looks at the members' children alone, so that no child of theirs loses the parent that tells it. */
    void CloseOver();
    /** The last walk found new members, or somebody who had just gone: who may have left a successor, which
     * the lists that were read before cannot show. */
    bool HasMoved() const { return grown_ || missed_; }
    bool HasMissedSome() const { return missed_; }
    /** It did not, and left nothing in doubt either; nor did those before it, had somebody been missed. */
    bool IsSettled() const { return quietInARow_ >= (hasEverMissed_ ? QuietWalksAfterMiss : 1); }
    bool AreAllStill() const;
    bool Holds(pid_t processId) const { return members_.contains(processId); }

private:
    bool IsSessionStillTheirs() const;
    bool IsOfTheirSession(const ProcessStatus& orphan);
    void LookForMembers();
    void WalkOrphans(ChildrenReader& reader);
    void WalkMembers(ChildrenReader& reader);
    bool IsStranger(pid_t orphan) const;
    void Miss(pid_t processId);
    void Consider(pid_t orphan);
    void Hold(pid_t processId, const Member* parent);

    ProcessTree& tree_;
    bool sessionIsTheirs_;
    bool grown_ = false;
    bool missed_ = false;
    bool doubtful_ = false;
    bool hasEverMissed_ = false;
    int missedInARow_ = 0;
    int quietInARow_ = 0;
    std::unordered_set<pid_t> members_;
    std::unordered_set<pid_t> strangers_; // orphans that have been looked at: once a search is enough
};

ProcessTree::Search::Search(ProcessTree& tree) : tree_(tree), sessionIsTheirs_(IsSessionStillTheirs())
{
    if (ChildTable::IsRunning(tree_.command_))
        tree_.NoteRunning(Clock::SteadyMilliseconds());
    for (const Member& member : tree_.members_) {
        members_.insert(member.processId);
        Send(member, SIGSTOP);
    }
}

/** A session id is reused like any other once the session's last process has gone. */
bool ProcessTree::Search::IsSessionStillTheirs() const
{
    if (ChildTable::IsRunning(tree_.command_))
        return true;
    return std::any_of(tree_.members_.begin(), tree_.members_.end(), [&](const Member& member) {
        ProcessStatus status;
        return ProcessFiles::ReadStatus(member.processId, status) &&
               status.session == tree_.command_.processId && status.startTime == member.startTime;
    });
}

/** Whoever was there while the command still ran can have no other session of this id; and as long as
 * somebody is in it, no other can have its id. */
bool ProcessTree::Search::IsOfTheirSession(const ProcessStatus& orphan)
{
    if (orphan.session != tree_.command_.processId)
        return false;
    if (orphan.startTime <= tree_.lastSeenRunning_) // no id is used again within a tick
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
    if (!ProcessFiles::ReadStatus(orphan, status))
        return;
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
    if (environment.find('\0' + tree_.mark_ + '\0') != std::string::npos)
        return Hold(orphan, nullptr);
    // It may have ended between the two looks, and its successor be there by now.
    if (!ProcessFiles::ReadStatus(orphan, status) || status.HasEnded())
        return Miss(orphan);
    strangers_.insert(orphan);
    if (reading == ProcessFiles::Reading::Whole && IsSettledIn(status))
        AdoptedOrphans::Note(orphan, status.session, environment, tree_.mark_);
}

/** `parent` null: a child of this process, whose id stays its own because nobody else reaps it. */
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
    if (parent != nullptr &&
        (status.parent != parent->processId || Send(*parent, 0) != 0 || Send(member, 0) != 0)) {
        doubtful_ = true; // it has lost its parent just now: to be found among the orphans
        return;
    }
    grown_ = true;
    members_.insert(processId);
    // Stopped only once it is known: nobody else would let it go on.
    tree_.members_.push_back(std::move(member));
    Send(tree_.members_.back(), SIGSTOP);
}

/** The youngest first: who always leaves a successor and goes is found at the end of the list or never. */
void ProcessTree::Search::WalkOrphans(ChildrenReader& reader)
{
    const std::vector<pid_t> children = reader.ListChildren(getpid());
    for (auto child = children.rbegin(); child != children.rend(); ++child) {
        // Another command or a worker is no orphan, whatever it bears.
        if (!members_.contains(*child) && !IsStranger(*child) && !ChildTable::HoldsRunning(*child))
            Consider(*child);
    }
}

bool ProcessTree::Search::IsStranger(pid_t orphan) const
{
    const auto session = static_cast<pid_t>(tree_.command_.processId);
    return strangers_.contains(orphan) || AdoptedOrphans::IsStranger(orphan, session, tree_.mark_);
}

void ProcessTree::Search::Walk()
{
    grown_ = false;
    missed_ = false;
    doubtful_ = false;
    LookForMembers();
    quietInARow_ = HasMoved() || doubtful_ ? 0 : quietInARow_ + 1;
}

void ProcessTree::Search::LookForMembers()
{
    ChildrenReader reader;
    const auto command = static_cast<pid_t>(tree_.command_.processId);
    if (ChildTable::IsRunning(tree_.command_) && !members_.contains(command))
        Hold(command, nullptr);
    WalkOrphans(reader);
    // A successor is caught by being quick; but somebody else's must not keep this from the rest.
    missedInARow_ = missed_ ? missedInARow_ + 1 : 0;
    if (missedInARow_ % MostMissedInARow != 0)
        return;
    WalkMembers(reader);
}

/** Members found here are walked too: they join at the end. */
void ProcessTree::Search::WalkMembers(ChildrenReader& reader)
{
    for (std::size_t i = 0; i < tree_.members_.size(); ++i)
        for (const pid_t child : reader.ListChildren(tree_.members_[i].processId))
            if (child > 1 && child != getpid() && !members_.contains(child))
                Hold(child, &tree_.members_[i]);
}

void ProcessTree::Search::CloseOver()
{
    const long long start = Clock::SteadyMilliseconds();
    do {
        Nap();
        grown_ = false;
        ChildrenReader reader;
        WalkMembers(reader);
    } while ((grown_ || !AreAllStill()) && Clock::SteadyMilliseconds() - start < MostClosingMilliseconds);
}

bool ProcessTree::Search::AreAllStill() const
{
    return std::all_of(tree_.members_.begin(), tree_.members_.end(),
                       [](const Member& member) { return ProcessFiles::IsStill(member.processId); });
}

ProcessTree::ProcessTree(const ChildId& command, std::string mark) : command_(command), mark_(std::move(mark))
{
}

ProcessTree::ProcessTree(ProcessTree&& other) noexcept
{
    *this = std::move(other);
}

ProcessTree& ProcessTree::operator=(ProcessTree&& other) noexcept
{
    command_ = std::exchange(other.command_, ChildId());
    mark_ = std::exchange(other.mark_, std::string());
    lastSeenRunning_ = std::exchange(other.lastSeenRunning_, 0);
    lastSignal_ = std::exchange(other.lastSignal_, 0);
    isUnsettled_ = std::exchange(other.isUnsettled_, false);
    members_ = std::exchange(other.members_, std::vector<Member>());
    return *this;
}

void ProcessTree::NoteRunning(long long milliseconds)
{
    lastSeenRunning_ = ToTicks(milliseconds);
}

/** 0, also when this process may not signal the member; -1 when the member is gone. */
int ProcessTree::Send(const Member& member, int signal)
{
    int result = -1;
    if (member.pidDescriptor.IsOpen()) {
        result = PidDescriptor::SendSignal(member.pidDescriptor.Number(), signal);
    } else {
        ProcessStatus status;
        if (!ProcessFiles::ReadStatus(member.processId, status) || status.startTime != member.startTime)
            return -1;
        result = kill(member.processId, signal);
    }
    return result == 0 || errno == EPERM ? 0 : -1;
}

bool ProcessTree::HasEnded(const Member& member)
{
    if (member.pidDescriptor.IsOpen()) {
        pollfd ending{member.pidDescriptor.Number(), POLLIN, 0};
        return poll(&ending, 1, 0) == 1;
    }
    ProcessStatus status;
    return !ProcessFiles::ReadStatus(member.processId, status) || status.startTime != member.startTime ||
           status.HasEnded();
}

void ProcessTree::LetGoOfEnded()
{
    std::erase_if(members_, HasEnded);
}

/** Stops the members from the top until no new one appears; true when the command itself is among them. */
bool ProcessTree::StopAll()
{
    Search search(*this);
    const long long start = Clock::SteadyMilliseconds();
    int naps = 0;
    for (isUnsettled_ = true; isUnsettled_;) {
        // A tree that stood still before a walk, and in which the walk found nobody new, is complete.
        const bool still = !search.HasMissedSome() && search.AreAllStill();
        search.Walk();
        isUnsettled_ = !still || !search.IsSettled();
        if (Clock::SteadyMilliseconds() - start > MostMilliseconds || naps == MostNaps)
            break;
        if (search.HasMoved() || !isUnsettled_)
            continue;
        ++naps;
        Nap();
    }
    if (isUnsettled_)
        search.CloseOver();
    return search.Holds(static_cast<pid_t>(command_.processId));
}

void ProcessTree::Signal(int signal)
{
    if (command_.IsNone())
        return;
    lastSignal_ = signal;
    isUnsettled_ = false;
    LetGoOfEnded();
    bool isCommandHeld = false;
    try {
        isCommandHeld = StopAll();
    } catch (const std::bad_alloc&) {
        // Those that have been found are signalled, and none is left stopped.
    }
    for (const Member& member : members_)
        Send(member, signal);
    // With not one descriptor left nobody can be looked for. The command itself needs no proof.
    const auto command = static_cast<pid_t>(command_.processId);
    if (!isCommandHeld && ChildTable::IsRunning(command_))
        kill(command, signal);
    // Everything but a forced end waits until the process runs again.
    for (const Member& member : members_)
        Send(member, SIGCONT);
}

int ProcessTree::CountAlive()
{
    const bool hadMembers = !members_.empty();
    LetGoOfEnded();
    if (hadMembers && members_.empty()) {
        Signal(lastSignal_);
        LetGoOfEnded();
    }
    return static_cast<int>(members_.size()) + (isUnsettled_ ? 1 : 0);
}
