#include <csignal>
#include <functional>
#include <string>

#include "connections/LogConnection.h"
#include "connections/ReportConnection.h"
#include "connections/ThreadOrProcessConnection.h"
#include "connections/WorkerStatus.h"
#include "support/Clock.h"
#include "tests/unit/Loopback.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
class TestWorker : public ThreadOrProcessConnection
{
public:
    explicit TestWorker(std::function<int()> routine) : routine_(std::move(routine)) {}
    int ThreadOrProcessRoutine() override { return routine_(); }
    int RunNothing()
    {
        ChildId worker;
        int status = -1;
        EXPECT_EQ(_InitThreadOrProcess(worker, nullptr, nullptr), 0);
        EXPECT_EQ(_WaitThreadOrProcess(worker, status, 20), 1);
        return status;
    }

private:
    std::function<int()> routine_;
};

/** What a check says at last. */
int CheckUntilEnd(ThreadOrProcessConnection& worker)
{
    const long long deadline = Clock::SteadyMilliseconds() + 20000;
    int status = -1;
    while (worker.CheckThreadOrProcess(status) == 0) {
        if (Clock::SteadyMilliseconds() > deadline) {
            ADD_FAILURE() << "the worker did not end";
            return -1;
        }
        usleep(1000);
        ChildTable::Reap();
    }
    return status;
}

TEST(WorkerStatus, TellsHowAWorkerEnded)
{
    const int Core = WCOREFLAG;
    const struct {
        int waitStatus, afterCheck, afterWait;
    } Cases[] = {
        {W_EXITCODE(0, 0), 0, 0},   {W_EXITCODE(255, 0), 255, 255},
        {SIGKILL, 999, 999},        {SIGTERM, 999, 999},
        {SIGQUIT, 666, 333},        {SIGSEGV, 333, 333},
        {SIGTERM | Core, 999, 666}, {SIGQUIT | Core, 666, 666},
        {SIGSEGV | Core, 333, 666}, {W_STOPCODE(SIGSTOP), 0, 0},
    };
    for (const auto& one : Cases) {
        EXPECT_EQ(WorkerStatus::AfterCheck(one.waitStatus), one.afterCheck) << one.waitStatus;
        EXPECT_EQ(WorkerStatus::AfterWait(one.waitStatus), one.afterWait) << one.waitStatus;
    }
}

TEST(Worker, IsStartedOnceAndWaitedFor)
{
    TestWorker worker([] { return pause(); });
    QORListPtrBaseSocket noSockets(0);
    ASSERT_EQ(worker.StartThreadOrProcess(noSockets), 0);
    const long processId = worker.GetWorkerProcessId();
    EXPECT_EQ(worker.StartThreadOrProcess(noSockets), 0);
    EXPECT_EQ(worker.GetWorkerProcessId(), processId);
    int status = -1;
    EXPECT_EQ(worker.WaitThreadOrProcess(status, 0), 0);
    EXPECT_EQ(worker.TerminateThreadOrProcess(1), 0);
    EXPECT_EQ(worker.WaitThreadOrProcess(status, 20), 1);
    EXPECT_EQ(status, 999);
    EXPECT_EQ(worker.RunNothing(), 111);

    ASSERT_EQ(worker.StartThreadOrProcess(noSockets), 0);
    const auto forgotten = static_cast<pid_t>(worker.GetWorkerProcessId());
    worker.ResetThreadOrProcess();
    EXPECT_EQ(worker.CheckThreadOrProcess(status), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kill(forgotten, SIGKILL), 0);
    EXPECT_EQ(waitpid(forgotten, nullptr, 0), forgotten);
}

TEST(Worker, CountsAsGoneWhenItsStatusWasTakenAway)
{
    TestWorker worker([] { return 0; });
    QORListPtrBaseSocket noSockets(0);
    ASSERT_EQ(worker.StartThreadOrProcess(noSockets), 0);
    ChildTable::Clear();
    int status = -1;
    EXPECT_EQ(worker.CheckThreadOrProcess(status), 1);
    EXPECT_EQ(status, 777);
    EXPECT_EQ(worker.CheckThreadOrProcess(status), 1);
    EXPECT_EQ(status, 0);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

/** 0 when this process has nothing open above the standard streams but `kept`, else the descriptor. */
int FindStrayDescriptor(int kept)
{
    DIR* directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory)) {
        const int descriptor = atoi(entry->d_name);
        if (descriptor > 2 && descriptor != kept && descriptor != dirfd(directory))
            return descriptor;
    }
    return 0;
}

TEST(Worker, HoldsOnlyItsOwnClient)
{
    loopback::Pair own;
    loopback::Pair others;
    const int kept = own.server.GetBaseSocketNumber();
    TestWorker worker([&] {
        sigset_t blocked;
        sigprocmask(SIG_SETMASK, nullptr, &blocked);
        if (sigismember(&blocked, SIGTERM) != 0)
            return 201;
        return getpgrp() == getpid() ? FindStrayDescriptor(kept) : 202;
    });
    worker.GetSocket() = own.server;
    own.server.Reset();
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    QORListPtrBaseSocket sockets(0);
    sockets.Append(nullptr);
    sockets.Append(&others.server);
    ASSERT_EQ(worker.StartThreadOrProcess(sockets), 0);
    EXPECT_EQ(CheckUntilEnd(worker), 0);
    sigprocmask(SIG_SETMASK, &before, nullptr);

    // What the worker closed was its own.
    for (auto [from, to] :
         {std::pair(&worker.GetSocket(), &own.client), std::pair(&others.server, &others.client)}) {
        QORUnicodeString text;
        EXPECT_EQ(from->WriteToBaseSocket("still open"), 0);
        EXPECT_EQ(to->ReadFromBaseSocketNonBlocking(text, loopback::DeadlineSeconds), 0);
        EXPECT_EQ(text.View(), "still open");
    }
}
TEST(Worker, OfAReportEndsWhenNobodyTakesIt)
{
    loopback::Pair pair;
    // More than the buffers between the two can hold.
    ReportConnection report(QORUnicodeString(std::string(50'000'000, 'x')), 1);
    report.GetSocket() = pair.server;
    pair.server.Reset();
    QORListPtrBaseSocket noSockets(0);
    ASSERT_EQ(report.StartThreadOrProcess(noSockets), 0);
    EXPECT_EQ(CheckUntilEnd(report), WorkerStatus::Signalled);
}

TEST(Worker, OfALogTellsThatTheSizeCannotBeHad)
{
    loopback::Pair pair;
    BaseConnection command(nullptr);
    command.SetAttributes("NOSOCKET", "joe", 1000, "true", 5, 9, "127.0.0.1", 5678);
    command.GetProcess().SetOutputAndErrorFileName("/proc/self/mem"); // a file of ours that has no end
    LogConnection log(command, 42);
    QORUnicodeString attributes;
    QORUnicodeString line;
    command.GetAttributes("->", attributes);
    log.GetAttributes("->", line);
    EXPECT_EQ(line.View(), std::string(attributes.View()) + ", RC(42)");
    log.GetSocket() = pair.server;
    pair.server.Reset();
    QORListPtrBaseSocket noSockets(0);
    ASSERT_EQ(log.StartThreadOrProcess(noSockets), 0);
    log.GetSocket().CloseBaseSocket();
    EXPECT_EQ(loopback::ReadToEnd(pair.client), "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n"
                                                "->Error unable to get log command file stat\n"
                                                "->ProcessReturnCode = 42\n");
    EXPECT_EQ(CheckUntilEnd(log), 0);
}
} // namespace
