#include "support/ProcessTree.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>
#include <utility>

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/PidDescriptor.h"
#include "support/ProcessFiles.h"
#include "support/ProcessTreeSearch.h"

namespace
{
// What all trees may take of the descriptors that everybody needs, and this part of the limit at most;
// members beyond are told by start time.
constexpr rlim_t MostPidDescriptors = 1024;
constexpr rlim_t PartForPidDescriptors = 4;

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
    lastSeenRunning_ = ProcessFiles::ToTicks(milliseconds);
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
