#include <csignal>
#include <functional>
#include <string>

#include "connections/ReportConnection.h"
#include "connections/ThreadOrProcessConnection.h"
#include "connections/WorkerStatus.h"
#include "support/Clock.h"
#include "tests/unit/Loopback.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
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

int WaitForever()
{
    for (;;)
        pause();
}

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

class Worker : public testing::Test
{
protected:
    Worker()
    {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
    }
    QORListPtrBaseSocket noSockets_{0};
    int status_ = -1;
};

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

TEST_F(Worker, SaysThatItHadNothingToRun)
{
    EXPECT_EQ(TestWorker(nullptr).RunNothing(), 111);
}

TEST_F(Worker, IsStartedOnceAndReportsItsSignal)
{
    const struct {
        int signal, afterCheck, afterWait;
    } Cases[] = {{SIGKILL, 999, 999}, {SIGQUIT, 666, 333}, {SIGUSR1, 333, 333}};
    for (const auto& one : Cases) {
        TestWorker worker(WaitForever);
        for (const bool isChecked : {true, false}) {
            ASSERT_EQ(worker.StartThreadOrProcess(noSockets_), 0);
            const long processId = worker.GetWorkerProcessId();
            EXPECT_EQ(worker.StartThreadOrProcess(noSockets_), 0);
            EXPECT_EQ(worker.GetWorkerProcessId(), processId);
            EXPECT_EQ(worker.CheckThreadOrProcess(status_), 0);
            EXPECT_EQ(worker.WaitThreadOrProcess(status_, 0), 0);
            kill(static_cast<pid_t>(processId), one.signal);
            if (isChecked) {
                EXPECT_EQ(CheckUntilEnd(worker), one.afterCheck);
                continue;
            }
            EXPECT_EQ(worker.WaitThreadOrProcess(status_, 20), 1);
            EXPECT_EQ(status_, one.afterWait);
        }
    }
}

TEST_F(Worker, IsForgottenByAReset)
{
    TestWorker worker(WaitForever);
    ASSERT_EQ(worker.StartThreadOrProcess(noSockets_), 0);
    const auto processId = static_cast<pid_t>(worker.GetWorkerProcessId());
    worker.ResetThreadOrProcess();
    EXPECT_EQ(worker.CheckThreadOrProcess(status_), 1);
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(kill(processId, SIGKILL), 0);
    EXPECT_EQ(waitpid(processId, nullptr, 0), processId);
}

TEST_F(Worker, CountsAsGoneWhenItsStatusWasTakenAway)
{
    TestWorker worker([] { return 0; });
    ASSERT_EQ(worker.StartThreadOrProcess(noSockets_), 0);
    ChildTable::Clear();
    EXPECT_EQ(worker.CheckThreadOrProcess(status_), 1);
    EXPECT_EQ(status_, 777);
    EXPECT_EQ(worker.CheckThreadOrProcess(status_), 1);
    EXPECT_EQ(status_, 0);
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

TEST_F(Worker, HoldsOnlyItsOwnClient)
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
} // namespace

TEST_F(Worker, OfAReportEndsWhenNobodyTakesIt)
{
    loopback::Pair pair;
    // More than the buffers between the two can hold.
    ReportConnection report(QORUnicodeString(std::string(50'000'000, 'x')), 1);
    report.GetSocket() = pair.server;
    pair.server.Reset();
    ASSERT_EQ(report.StartThreadOrProcess(noSockets_), 0);
    EXPECT_EQ(CheckUntilEnd(report), WorkerStatus::Signalled);
}
