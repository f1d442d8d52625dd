#include "tests/unit/Commands.h"

namespace
{
using commands::CommandTest;
using commands::WaitUntil;

using ChildTableTest = CommandTest;
using ProcessTest = CommandTest;

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

TEST_F(ProcessTest, AskingKillingAndForgetting)
{
    BaseProcess process;
    ASSERT_EQ(Start(process, "trap '' TERM; echo $$ >> ids; kill -STOP $$; exec sleep 1000"), 0);
    int code = -1;
    EXPECT_EQ(process.CheckForProcess(code), 0);
    EXPECT_NE(process.WaitForProcess(code, 0), 0);
    EXPECT_EQ(code, -1);

    const pid_t processId = process.GetProcessId();
    ProcessStatus status;
    const auto hasState = [&](char state) {
        return WaitUntil(
            [&] { return ProcessFiles::ReadStatus(processId, status) && status.state == state; });
    };
    EXPECT_TRUE(hasState('T'));
    EXPECT_EQ(process.KillBaseProcess(0), 0); // ignored, but it runs again
    EXPECT_TRUE(hasState('S'));
    EXPECT_EQ(process.CheckForProcess(code), 0);

    process.ResetBeforeDestruction();
    EXPECT_EQ(process.GetProcessId(), 0);
    EXPECT_NE(process.CheckForProcess(code), 0);
    EXPECT_EQ(process.KillBaseProcess(1), 0);
    EXPECT_EQ(process.KillBaseProcessTree(1), 0);
    EXPECT_TRUE(IsAlive(processId)) << "a forgotten process was signalled";
}

TEST_F(ProcessTest, AFailureBeyondTheForkReachesTheLog)
{
    const std::string large(120000, 'x'); // 30 of them are more than the kernel passes on
    for (int i = 0; i < 30; ++i)
        setenv(("LARGE" + std::to_string(i)).c_str(), large.c_str(), 1);
    BaseProcess process;
    const int result = Start(process, "exit 0");
    for (int i = 0; i < 30; ++i)
        unsetenv(("LARGE" + std::to_string(i)).c_str());
    ASSERT_EQ(result, 0);
    EXPECT_EQ(WaitForEnd(process), 126);
    EXPECT_EQ(commands::ReadFile(Path("log")),
              "Error unable to start command, /bin/sh : Argument list too long\n");
}
} // namespace
