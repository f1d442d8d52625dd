#include "support/WaitForDescriptor.h"

#include <cerrno>
#include <climits>

#include <poll.h>
#include <unistd.h>

#include "support/Clock.h"

namespace
{
constexpr useconds_t ScarcityPause = 10000; // microseconds until the next attempt
} // namespace

long long DeadlineIn(int seconds)
{
    return Clock::SteadyMilliseconds() + seconds * 1000LL;
}

bool WaitForDescriptor(int descriptor, short events, long long deadline)
{
    for (;;) {
        const long long left = deadline - Clock::SteadyMilliseconds();
        if (left <= 0)
            return false;
        pollfd waited{descriptor, events, 0};
        const int ready = poll(&waited, 1, static_cast<int>(left < INT_MAX ? left : INT_MAX));
        if (ready > 0)
            return true;
        // A connection must not be given up, and made again, because a look at it has failed.
        if (ready < 0 && errno != EINTR)
            usleep(ScarcityPause);
    }
}
