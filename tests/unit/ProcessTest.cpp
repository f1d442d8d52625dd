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

TEST_F(ChildTableTest, EachChildKeepsItsOwnStatusAmongStrangers)
{
    std::vector<ChildId> children;
    for (int code = 0; code < 40; ++code) {
        children.push_back(ChildTable::Enter(ForkExiting(code)));
        ForkExiting(99); // never entered
    }
    ChildTable::Forget(children[7]);
    for (int code = 39; code >= 0; --code) {
        int status = 0;
        const ChildState state = ChildTable::Wait(children[static_cast<std::size_t>(code)], status,
                                                  commands::DeadlineSeconds * 1000);
        EXPECT_EQ(state, code == 7 ? ChildState::Unknown : ChildState::Ended);
        EXPECT_EQ(WEXITSTATUS(status), code == 7 ? 0 : code);
    }
    EXPECT_TRUE(WaitUntil([] {
        ChildTable::Reap();
        return waitpid(-1, nullptr, WNOHANG) == -1; // the strangers have been reaped as well
    }));
    EXPECT_EQ(ChildTable::CountOfUnaskedEnds(), 0);
}

TEST_F(ProcessTest, TheEndIsKnownAfterSomebodyElseHasReaped)
{
    BaseProcess process;
    ASSERT_EQ(Start(process, "read line; exit 4"), 0);
    EXPECT_TRUE(WaitUntil([] {
        BaseProcess::CleanZombiProcess();
        return ChildTable::CountOfUnaskedEnds() == 1;
    }));
    int code = -1;
    for (int i = 0; i < 2; ++i) {
        EXPECT_NE(process.CheckForProcess(code), 0);
        EXPECT_EQ(code, 4);
    }
    EXPECT_EQ(process.WaitForProcess(code, 0), 0);
    EXPECT_EQ(process.KillBaseProcess(1), 0); // whoever has that id now
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

TEST_F(ProcessTest, WhatCannotStartSaysWhyAndLeavesNothing)
{
    std::filesystem::create_directory(Path("directory"));
    const struct {
        std::string command;
        std::string input;
        std::string log;
        std::string reason;
    } cases[] = {
        {std::string(131072, ' '), "/dev/null", "new", "Error command line too long : "},
        {std::string("echo a\0rm b", 11), "/dev/null", "new", "Error command line holds a NUL"},
        {"exit 0", "/nonexistent/x", "new", "Error unable to open file...(/nonexistent/x) : No such"},
        {"exit 0", "/dev/null", "missing/new", "Error unable to open log file...("},
        {"exit 0", "/dev/null", "directory", "Error unable to open log file...("},
    };
    for (const auto& [command, input, log, reason] : cases) {
        BaseProcess process;
        process.SetInputFileName(input);
        process.SetOutputAndErrorFileName(Path(log));
        EXPECT_NE(process.StartBaseProcess(command, nullptr, 0, 0), 0) << reason;
        EXPECT_TRUE(process.BaseProcessGetLastError().View().starts_with(reason))
            << process.BaseProcessGetLastError().ConvertToChar();
        EXPECT_EQ(process.GetProcessId(), 0);
        EXPECT_FALSE(std::filesystem::exists(Path("new")));
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "something was forked";

    BaseProcess longest;
    ASSERT_EQ(Start(longest, "exit 6" + std::string(131071 - 6, ' ')), 0);
    EXPECT_EQ(WaitForEnd(longest), 6);
}

TEST_F(ProcessTest, AForkThatFailsLeavesNoLog)
{
    ASSERT_EQ(chmod(std::filesystem::path(Path("log")).parent_path().c_str(), 0777), 0);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit none{0, 0}; // of processes, for anybody but root
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0))
            _exit(2);
        BaseProcess process;
        EXPECT_NE(Start(process, "exit 0"), 0);
        EXPECT_EQ(process.BaseProcessGetLastError(),
                  QORUnicodeString("Error unable to start command : Resource temporarily unavailable"));
        EXPECT_FALSE(std::filesystem::exists(Path("log")));
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see the expectations that failed above";
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
    EXPECT_EQ(Log(), "Error unable to start command, /bin/sh : Argument list too long\n");
}

TEST_F(ProcessTest, OnlyRootStartsForAnother)
{
    if (geteuid() == 0)
        return;
    BaseProcess process;
    process.SetUserVerified();
    process.SetOutputAndErrorFileName(Path("log"));
    EXPECT_NE(process.StartBaseProcessUser("exit 0", "root", "", nullptr, 0), 0);
    EXPECT_EQ(process.BaseProcessGetLastError(),
              QORUnicodeString("Error only root can start a command as another user"));
    EXPECT_FALSE(std::filesystem::exists(Path("log")));
}
} // namespace
