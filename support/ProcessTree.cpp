#include "support/ProcessTree.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <new>
#include <optional>
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
constexpr long long MostMicroseconds = 1000000; // for a tree that grows as fast as it is stopped
constexpr int MostMissedInARow = 8;             // looks at the orphans alone
// A list of children that come and go may lack one that is there: where somebody was missed one quiet walk is
// no proof yet.
constexpr int QuietWalksAfterMiss = 4;
constexpr long long MostClosingMicroseconds = 10000; // for the last look of a search that is broken off
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

/** A kill before a request to terminate, and either before none (0). */
int Stronger(int one, int other)
{
    if (one == SIGKILL || other == 0)
        return one;
    return other;
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
 *
 * It goes step by step, each with one process, and may rest between any two: those that have been found
 * stand still meanwhile.
 */
class ProcessTree::Search
{
public:
    explicit Search(ProcessTree& tree);

    /** Goes on for this share of a turn; true as long as it has not come to its end. */
    bool GoOn(const TurnShare& share);
    bool Holds(pid_t processId) const { return members_.contains(processId); }
    /** The tree has moved. */
    void MoveTo(ProcessTree& tree) { tree_ = &tree; }

private:
    enum class Phase { StopKnown, LookWhetherStill, WalkOrphans, WalkMembers, Over };

    void StopNextKnown();
    void BeginLook();
    void LookAtNext();
    void BeginWalk();
    void ConsiderNextOrphan();
    void BeginMembers();
    void WalkNextMember();
    void EndWalk();
    void BeginClosing();
    void BeginClosingRound();
    long long SpentMicroseconds() const;

    bool IsCommandRunning() const { return ChildTable::IsRunning(tree_->command_); }
    bool IsInTheirSession(const Member& member) const;
    bool IsOfTheirSession(const ProcessStatus& orphan);
    bool IsStranger(pid_t orphan) const;
    void Miss(pid_t processId);
    void Consider(pid_t orphan);
    void Hold(pid_t processId, const Member* parent);

    /** The last walk found new members, or somebody who had just gone: who may have left a successor, which
     * the lists that were read before cannot show. */
    bool HasMoved() const { return grown_ || missed_; }
    /** It did not, and left nothing in doubt either; nor did those before it, had somebody been missed. */
    bool IsSettled() const { return quietInARow_ >= (hasEverMissed_ ? QuietWalksAfterMiss : 1); }

    ProcessTree* tree_;
    Phase phase_ = Phase::StopKnown;
    bool isClosing_ = false; // looks at children alone, so that none loses the parent that tells it
    std::size_t next_ = 0;   // the member whose turn it is
    std::optional<ChildrenReader> reader_;
    std::vector<pid_t> orphans_;  // yet to be considered, from the back
    bool areOrphansOld_ = false;  // some may have been reaped since they were listed
    std::vector<pid_t> children_; // of the member before the next one; likewise

    long long begin_ = 0; // of the turn's share
    long long spent_ = 0; // in those before
    long long closingSince_ = 0;
    int naps_ = 0;

    bool sessionIsTheirs_;
    bool isStill_ = false; // nobody ran before the walk
    bool grown_ = false;
    bool missed_ = false;
    bool doubtful_ = false;
    bool hasEverMissed_ = false;
    int missedInARow_ = 0;
    int quietInARow_ = 0;
    std::unordered_set<pid_t> members_;
    std::unordered_set<pid_t> strangers_; // orphans that have been looked at: once a search is enough
};

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

ProcessTree::ProcessTree() = default;

ProcessTree::~ProcessTree() = default;

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
    isUnsettled_ = std::exchange(other.isUnsettled_, false);
    members_ = std::exchange(other.members_, std::vector<Member>());
    phase_ = std::exchange(other.phase_, Phase::Idle);
    next_ = other.next_;
    kept_ = other.kept_;
    search_ = std::exchange(other.search_, nullptr);
    if (search_ != nullptr)
        search_->MoveTo(*this);
    demandedSignal_ = std::exchange(other.demandedSignal_, 0);
    isLookDemanded_ = std::exchange(other.isLookDemanded_, false);
    signal_ = other.signal_;
    lastSignal_ = std::exchange(other.lastSignal_, 0);
    isRestSought_ = std::exchange(other.isRestSought_, false);
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
    if (ProcessFiles::ReadStatus(member.processId, status))
        return status.startTime != member.startTime || status.HasEnded();
    return kill(member.processId, 0) != 0 && errno == ESRCH; // else there was no descriptor to read it with
}

void ProcessTree::Signal(int signal)
{
    if (command_.IsNone())
        return;
    demandedSignal_ = Stronger(demandedSignal_, signal);
    GoOn(TurnShare());
}

void ProcessTree::Look()
{
    isLookDemanded_ = true;
}

bool ProcessTree::GoOn(const TurnShare& share)
{
    while (IsUnfinished()) {
        switch (phase_) {
        case Phase::Idle:
            Begin();
            break;
        case Phase::LettingGo:
            LetGoOfNext();
            break;
        case Phase::Searching:
            SearchOn(share);
            break;
        case Phase::Signalling:
            SignalNext();
            break;
        case Phase::Continuing:
            ContinueNext();
            break;
        }
        if (share.IsUsedUp())
            break;
    }
    return IsUnfinished();
}

void ProcessTree::Enter(Phase phase)
{
    phase_ = phase;
    next_ = 0;
    kept_ = 0;
}

void ProcessTree::Begin()
{
    signal_ = std::exchange(demandedSignal_, 0);
    if (signal_ == 0)
        isLookDemanded_ = false;
    isRestSought_ = signal_ == 0 && members_.empty(); // nobody whose last one could go
    Enter(Phase::LettingGo);
}

void ProcessTree::LetGoOfNext()
{
    if (next_ == members_.size()) {
        members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(kept_), members_.end());
        return EndLettingGo();
    }
    if (!HasEnded(members_[next_])) {
        if (kept_ != next_)
            members_[kept_] = std::move(members_[next_]);
        ++kept_;
    }
    ++next_;
}

void ProcessTree::EndLettingGo()
{
    if (signal_ == 0) {
        if (isRestSought_ || !members_.empty())
            return Enter(Phase::Idle);
        isRestSought_ = true;
        signal_ = lastSignal_;
    }
    Enter(Phase::Searching);
    isUnsettled_ = true;
    try {
        search_ = std::make_unique<Search>(*this);
    } catch (const std::bad_alloc&) {
        // Those that have been found before are signalled.
    }
}

void ProcessTree::SearchOn(const TurnShare& share)
{
    try {
        if (search_ != nullptr && search_->GoOn(share))
            return;
    } catch (const std::bad_alloc&) {
        // Those that have been found are signalled, and none is left stopped.
    }
    signal_ = Stronger(signal_, std::exchange(demandedSignal_, 0));
    lastSignal_ = signal_;
    // With not one descriptor left nobody can be looked for. The command itself needs no proof.
    const auto command = static_cast<pid_t>(command_.processId);
    if ((search_ == nullptr || !search_->Holds(command)) && ChildTable::IsRunning(command_))
        kill(command, signal_);
    search_.reset();
    Enter(Phase::Signalling);
}

void ProcessTree::SignalNext()
{
    if (next_ == members_.size())
        return Enter(Phase::Continuing);
    Send(members_[next_++], signal_);
}

/** Everything but a forced end waits until the process runs again. */
void ProcessTree::ContinueNext()
{
    if (next_ < members_.size()) {
        Send(members_[next_++], SIGCONT);
        return;
    }
    signal_ = 0;
    Enter(isRestSought_ ? Phase::LettingGo : Phase::Idle);
}
