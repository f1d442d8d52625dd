#include "support/Clock.h"

#include <ctime>

namespace
{
long long ReadMilliseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
} // namespace

// The clock that also counts while the machine sleeps: a life time-out is about the time of day.
long long Clock::SteadyMilliseconds()
{
    return ReadMilliseconds(CLOCK_BOOTTIME);
}

long long Clock::EpochMilliseconds()
{
    static const long long wallClockAtStart = ReadMilliseconds(CLOCK_REALTIME) - SteadyMilliseconds();
    return wallClockAtStart + SteadyMilliseconds();
}
