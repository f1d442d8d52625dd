#include "support/Clock.h"

#include <ctime>

namespace
{
long long ReadMicroseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
} // namespace

// The clock that also counts while the machine sleeps: a life time-out is about the time of day.
long long Clock::SteadyMilliseconds()
{
    return SteadyMicroseconds() / 1000;
}

long long Clock::SteadyMicroseconds()
{
    return ReadMicroseconds(CLOCK_BOOTTIME);
}

long long Clock::EpochMilliseconds()
{
    static const long long wallClockAtStart = ReadMicroseconds(CLOCK_REALTIME) / 1000 - SteadyMilliseconds();
    return wallClockAtStart + SteadyMilliseconds();
}
