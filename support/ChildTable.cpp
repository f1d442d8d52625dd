#include "support/ChildTable.h"

#include <algorithm>
#include <array>
#include <climits>
#include <unordered_map>
#include <vector>

#include "support/AdoptedOrphans.h"
#include "support/Clock.h"
#include "support/PidDescriptor.h"
#include "support/TurnShare.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
struct Record {
    unsigned long long serial = 0;
    bool ended = false;
    int waitStatus = 0;
    long long timeOfEnd = 0;
};

// Keyed by process id, which is what waitpid() tells. An id may occur several times: once as running, and
// for each earlier child that had it and has ended without having been asked for.
using Records = std::unordered_multimap<pid_t, Record>;

Records records;
Records::node_type spare; // the room that Prepare() made
/** Tables that Clear() has let go of, still within reach so that nothing takes them for lost. */
struct Abandoned {
    Records records;
    Abandoned* earlier;
};
Abandoned* abandoned = nullptr;
unsigned long long lastSerial = 0;
int unaskedEnds = 0;
std::vector<unsigned long long> ends; // serials that nobody has taken yet; there is room for everybody's
std::array<pid_t, 16> youngest{};     // the last that were entered, each in the place of its serial

constexpr int MostReapedByWalk = 16;
constexpr int BlindPollMilliseconds = 10; // between two looks at a child for which no pidfd could be had

Records::iterator FindRunning(pid_t processId)
{
    const auto [begin, end] = records.equal_range(processId);
    const auto found = std::find_if(begin, end, [](const auto& entry) { return !entry.second.ended; });
    return found == end ? records.end() : found;
}

Records::iterator FindChild(const ChildId& child)
{
    const auto [begin, end] = records.equal_range(static_cast<pid_t>(child.processId));
    const auto found =
        std::find_if(begin, end, [&](const auto& entry) { return entry.second.serial == child.serial; });
    return found == end ? records.end() : found;
}

/** A stranger's status is dropped. */
void NoteEnd(pid_t processId, int waitStatus)
{
    const auto found = FindRunning(processId);
    if (found == records.end())
        return AdoptedOrphans::Forget(processId);
    found->second.ended = true;
    found->second.waitStatus = waitStatus;
    found->second.timeOfEnd = Clock::SteadyMilliseconds();
    ++unaskedEnds;
    ends.push_back(found->second.serial);
}

/** Does not wait. A look that fails is made once more: the end that it missed may be the last for long. */
pid_t AskForEnd(pid_t processId, int& waitStatus)
{
    const pid_t ended = waitpid(processId, &waitStatus, WNOHANG);
    return ended >= 0 ? ended : waitpid(processId, &waitStatus, WNOHANG);
}

/** False when no child is there that has ended. */
bool ReapAny()
{
    int waitStatus = 0;
    const pid_t processId = AskForEnd(-1, waitStatus);
    if (processId > 0)
        NoteEnd(processId, waitStatus);
    return processId > 0;
}

std::vector<pid_t> ListRunning()
{
    std::vector<pid_t> running;
    for (const auto& [processId, record] : records)
        if (!record.ended)
            running.push_back(processId);
    return running;
}

/** Waits until the child ends, or for at most this long; it may return early. */
void Doze(int pidDescriptor, long long milliseconds)
{
    if (pidDescriptor < 0)
        milliseconds = milliseconds < 0 ? BlindPollMilliseconds
                                        : std::min<long long>(milliseconds, BlindPollMilliseconds);
    pollfd waiting{pidDescriptor, POLLIN, 0}; // a negative descriptor only waits
    poll(&waiting, 1, static_cast<int>(std::min<long long>(milliseconds, INT_MAX)));
}
} // namespace

namespace ChildTable
{
void Prepare()
{
    if (!spare.empty())
        return;
    if (ends.capacity() < ends.size() + records.size() + 1)
        ends.reserve(2 * (ends.size() + records.size() + 1));
    records.reserve(records.size() + 2); // one for the spare itself, one for good: no later growth
    spare = records.extract(records.emplace(0, Record()));
}

ChildId Enter(pid_t processId)
{
    Prepare();
    spare.key() = processId;
    spare.mapped() = Record{++lastSerial, false, 0, 0};
    records.insert(std::move(spare));
    youngest[lastSerial % youngest.size()] = processId;
    return ChildId{processId, lastSerial};
}

bool Reap()
{
    const TurnShare share;
    // Each of these calls passes by all older children that live: when many have ended, one call for each of
    // them would cost their number squared.
    for (int i = 0; i < MostReapedByWalk; ++i)
        if (!ReapAny())
            return false;
    for (const pid_t processId : ListRunning())
        ReapOne(processId);
    bool isMoreLikely = true;
    while (isMoreLikely && !share.IsUsedUp())
        isMoreLikely = ReapAny(); // strangers
    return isMoreLikely;
}

void ReapOne(pid_t processId)
{
    int waitStatus = 0;
    if (processId > 0 && AskForEnd(processId, waitStatus) == processId)
        NoteEnd(processId, waitStatus);
}

void ReapYoungest()
{
    for (const pid_t processId : youngest)
        if (HoldsRunning(processId))
            ReapOne(processId);
}

ChildState Ask(const ChildId& child, int& waitStatus)
{
    const auto found = FindChild(child);
    if (found == records.end())
        return ChildState::Unknown;
    if (!found->second.ended)
        return ChildState::Running;
    waitStatus = found->second.waitStatus;
    records.erase(found);
    --unaskedEnds;
    return ChildState::Ended;
}

long long TimeOfEnd(const ChildId& child)
{
    const auto found = FindChild(child);
    return found == records.end() ? 0 : found->second.timeOfEnd;
}

ChildState Wait(const ChildId& child, int& waitStatus, long long limitMilliseconds)
{
    Reap();
    ChildState state = Ask(child, waitStatus);
    if (state != ChildState::Running || limitMilliseconds == 0)
        return state;
    const int pidDescriptor = PidDescriptor::Open(static_cast<pid_t>(child.processId));
    const long long start = Clock::SteadyMilliseconds();
    long long left = limitMilliseconds;
    while (state == ChildState::Running && (limitMilliseconds < 0 || left > 0)) {
        Doze(pidDescriptor, left);
        Reap();
        state = Ask(child, waitStatus);
        if (limitMilliseconds >= 0)
            left = limitMilliseconds - (Clock::SteadyMilliseconds() - start);
    }
    if (pidDescriptor >= 0)
        close(pidDescriptor);
    return state;
}

bool IsRunning(const ChildId& child)
{
    const auto found = FindChild(child);
    return found != records.end() && !found->second.ended;
}

bool HoldsRunning(pid_t processId)
{
    return FindRunning(processId) != records.end();
}

void Forget(const ChildId& child)
{
    const auto found = FindChild(child);
    if (found == records.end())
        return;
    if (found->second.ended)
        --unaskedEnds;
    records.erase(found);
}

int CountOfUnaskedEnds()
{
    return unaskedEnds;
}

int CountOfRunning()
{
    return static_cast<int>(records.size()) - unaskedEnds;
}

void TakeEnds(std::deque<unsigned long long>& serials)
{
    serials.insert(serials.end(), ends.begin(), ends.end());
    ends.clear();
}

void Clear()
{
    // Let go of and not freed: that would touch, and so copy, every page that the parent's table is on.
    abandoned = new Abandoned{std::move(records), abandoned};
    records = Records();
    ends.clear();
    youngest.fill(0);
    unaskedEnds = 0;
}
} // namespace ChildTable
