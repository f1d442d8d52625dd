#include "daemon/Ending.h"

// Tests are built with divisors, so that they can see where a ladder ends. On a busy machine what has been
// killed takes a while to end, so the last steps are not as short as the others.
#ifndef RUVEL_LADDER_DIVISOR
#define RUVEL_LADDER_DIVISOR 1
#define RUVEL_FORCED_DIVISOR 1
#endif

namespace
{
constexpr int Seconds(int seconds)
{
    return seconds / RUVEL_LADDER_DIVISOR;
}

constexpr int ForcedSeconds(int seconds)
{
    return seconds / RUVEL_FORCED_DIVISOR;
}
} // namespace

const LadderStep Ladders::Worker[2] = {{0, Seconds(90)}, {1, ForcedSeconds(30)}};
const LadderStep Ladders::CommandTree[2] = {{0, Seconds(60)}, {1, ForcedSeconds(30)}};
const LadderStep Ladders::GentleKill[1] = {{0, Seconds(60)}};
const LadderStep Ladders::ForcedKill[1] = {{1, ForcedSeconds(60)}};
const int Ladders::LogSeconds = Seconds(300);
