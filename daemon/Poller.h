#pragma once

#include <cstddef>
#include <vector>

#include <poll.h>

/**
 * The one place where the daemon's loop waits. Each turn everybody who waits for a descriptor adds it and
 * keeps the slot; after the wait the slot tells what has happened.
 */
class Poller
{
public:
    /** Slot of somebody who waits for nothing this turn. */
    static constexpr int NoSlot = -1;

    void Clear() { descriptors_.clear(); }
    /** The slot of `descriptor`, waited upon for `events` (POLLIN, POLLOUT). */
    int Add(int descriptor, short events);
    /** Waits for an event, at most this long (negative: without limit). */
    void Wait(long long milliseconds);
    /** What has happened on the slot's descriptor, errors and hang-ups included; 0 for nothing. */
    short Events(int slot) const
    {
        return slot == NoSlot ? short{0} : descriptors_[static_cast<std::size_t>(slot)].revents;
    }

private:
    std::vector<pollfd> descriptors_;
};

/** A moment on the steady clock, in milliseconds; or never. */
namespace Deadline
{
inline constexpr long long Never = -1;
/** The earlier of two, either of which may be never. */
constexpr long long Earlier(long long a, long long b)
{
    if (a == Never || b == Never)
        return a == Never ? b : a;
    return a < b ? a : b;
}
constexpr bool IsPast(long long deadline, long long now)
{
    return deadline != Never && deadline <= now;
}
} // namespace Deadline
