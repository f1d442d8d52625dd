#include "daemon/Ending.h"

// Tests are built with a divisor, so that they can see where a ladder ends.
#ifndef RUVEL_LADDER_DIVISOR
#define RUVEL_LADDER_DIVISOR 1
#endif

namespace
{
constexpr int Seconds(int seconds)
{
    return seconds / RUVEL_LADDER_DIVISOR;
}
} // namespace

const LadderStep Ladders::Worker[2] = {{0, Seconds(90)}, {1, Seconds(30)}};
const LadderStep Ladders::CommandTree[2] = {{0, Seconds(60)}, {1, Seconds(30)}};
const LadderStep Ladders::GentleKill[1] = {{0, Seconds(60)}};
const LadderStep Ladders::ForcedKill[1] = {{1, Seconds(60)}};
const int Ladders::LogSeconds = Seconds(300);
