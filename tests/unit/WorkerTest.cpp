#include <csignal>
#include <string>

#include "connections/LogConnection.h"
#include "connections/ReportConnection.h"
#include "connections/RequestConnection.h"
#include "connections/ThreadOrProcessConnection.h"
#include "connections/WorkerStatus.h"
#include "support/Clock.h"
#include "tests/unit/Loopback.h"

#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <sys/wait.h>
#include <unistd.h>

/** In place of the password system's: one that hangs. */
int pam_authenticate(pam_handle_t*, int)
{
    return pause();
}

namespace
{
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

TEST(Worker, OfACheckEndsWhenThePasswordSystemHangs)
{
    RequestConnection check;
    check.SetCredentials("root", "password", 1);
    QORListPtrBaseSocket noSockets(0);
    ASSERT_EQ(check.StartThreadOrProcess(noSockets), 0);
    EXPECT_EQ(CheckUntilEnd(check), WorkerStatus::Signalled);
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
