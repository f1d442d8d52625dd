#include "tests/unit/Commands.h"

namespace
{
using ChildTableTest = commands::CommandTest;

pid_t ForkExiting(int code)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(code);
    return child;
}

TEST_F(ChildTableTest, AReusedIdIsNotMistakenForTheChildThatHadIt)
{
    const ChildId first = ChildTable::Enter(ForkExiting(5));
    EXPECT_TRUE(ChildTable::IsRunning(first));
    EXPECT_TRUE(WaitUntil([] {
        ChildTable::Reap();
        return ChildTable::CountOfUnaskedEnds() == 1;
    }));
    const ChildId second = ChildTable::Enter(static_cast<pid_t>(first.processId));

    EXPECT_FALSE(ChildTable::IsRunning(first));
    EXPECT_TRUE(ChildTable::IsRunning(second));
    int status = 0;
    EXPECT_EQ(ChildTable::Ask(second, status), ChildState::Running);
    EXPECT_TRUE(ChildTable::HoldsRunning(static_cast<pid_t>(second.processId)));
    ChildTable::Forget(second);
    EXPECT_FALSE(ChildTable::HoldsRunning(static_cast<pid_t>(second.processId)));
    EXPECT_EQ(ChildTable::Ask(first, status), ChildState::Ended);
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_EQ(ChildTable::Ask(first, status), ChildState::Unknown);
    EXPECT_EQ(ChildTable::CountOfUnaskedEnds(), 0);
}
} // namespace
