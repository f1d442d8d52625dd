#pragma once

#include "support/Clock.h"

/**
 * What one step may take of the daemon's turn, from the moment at which the object is made. A step that
 * deals with many clients or starts processes goes on until its share is used up and leaves the rest to the
 * next turn, which comes at once: so a crowd that comes together holds nobody else up for longer than a turn.
 */
class TurnShare
{
public:
    bool IsUsedUp() const { return Clock::SteadyMicroseconds() - begin_ >= Microseconds; }

private:
    static constexpr long long Microseconds = 1000;

    long long begin_ = Clock::SteadyMicroseconds();
};
