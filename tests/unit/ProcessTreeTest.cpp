#include <algorithm>

#include <pthread.h>
#include <sys/syscall.h>

#include "support/Clock.h"
#include "support/FileDescriptor.h"
#include "tests/unit/Commands.h"

namespace
{
class ProcessTreeTest : public commands::CommandTest
{
protected:
    ProcessTreeTest()
    {
        // Writes its id into "ids" and then does nothing for longer than any test takes.
        std::ofstream(Path("member")) << Witness() << "; exec sleep 1000\n";
    }

    std::string Witness() const { return "echo $$ >> " + Path("ids"); }

    /** Starts what `shell` says, with a command that is a member in place of each @, and one that makes the
     * shell itself a member in place of each %. */
    void StartTree(BaseProcess& process, const std::string& shell)
    {
        std::string command;
        for (const char c : shell)
            command += c == '@' ? "sh " + Path("member") : c == '%' ? Witness() : std::string(1, c);
        process.SetOutputAndErrorFileName(Path("log" + std::to_string(++logs_)));
        ASSERT_EQ(process.StartBaseProcess(command, nullptr, 0, 0), 0);
    }

    static void KillTree(BaseProcess& process, int force)
    {
        EXPECT_EQ(process.KillBaseProcessTree(force), 0);
        while (process.IsTreeUnfinished())
            process.GoOnWithTree(TurnShare());
    }

    static bool IsNobodyLeft(ProcessTree& tree)
    {
        tree.Look();
        while (tree.GoOn(TurnShare()))
            continue;
        return !tree.IsAnyoneAlive();
    }

    static std::size_t CountOf(const std::vector<pid_t>& ids)
    {
        return static_cast<std::size_t>(std::count_if(ids.begin(), ids.end(), IsAlive));
    }

private:
    int logs_ = 0;
};

TEST_F(ProcessTreeTest, WhoeverTheCommandLeavesInItsSessionIsReachedWhenItHasEnded)
{
    BaseProcess process;
    // Started by the request to end, it bears no mark and has lost its parent; nobody else is in the session.
    StartTree(process, "trap '(env -i @ &); exit 3' TERM; %; while :; do sleep 0.01; done");
    ASSERT_EQ(CountOf(WaitForIds(1)), 1U);
    KillTree(process, 0);
    EXPECT_EQ(WaitForEnd(process), 3);
    const std::vector<pid_t> ids = WaitForIds(2);
    EXPECT_EQ(CountOf(ids), 1U);
    KillTree(process, 1);
    EXPECT_TRUE(WaitUntil([&] {
        ChildTable::Reap();
        return CountOf(ids) == 0;
    }));
}

TEST_F(ProcessTreeTest, NobodyRunsWhileTheTreeIsSignalled)
{
    BaseProcess process;
    StartTree(process, "trap '' TERM; %; exec sleep 1000");
    const pid_t command = WaitForIds(1).at(0);
    // Continued is only who had stopped; a busy machine may give a member no time to.
    EXPECT_TRUE(WaitUntil([&] {
        KillTree(process, 0);
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(command), &info, WCONTINUED | WNOHANG) == 0 &&
               info.si_pid == command;
    }));
}

TEST_F(ProcessTreeTest, WhatIsLeftBehindWhileEndingIsEndedToo)
{
    BaseProcess process;
    // Upon the request it leaves an orphan of another session, and is gone.
    StartTree(process, "trap '(setsid @ &); exit 3' TERM; %\n"
                       "while :; do sleep 0.01; done");
    WaitForIds(1);
    KillTree(process, 0);
    EXPECT_EQ(WaitForEnd(process), 3);
    const std::vector<pid_t> ids = WaitForIds(2);
    ProcessTree tree = process.TakeProcessTree();
    EXPECT_TRUE(WaitUntil([&] { return IsNobodyLeft(tree); }));
    EXPECT_EQ(CountOf(ids), 0U);
}

TEST_F(ProcessTreeTest, WhoNeverStaysIsCaught)
{
    // One grows as fast as it can; the other always leaves a successor of another session and ends.
    std::ofstream(Path("hop")) << Witness() << "; (setsid sh " << Path("hop") << " &)\n";
    const std::string growing = "while :; do (setsid @ &); (setsid @ &); done";
    const std::string hopping = "sh " + Path("hop") + "; sleep 1000";
    for (const std::string& shell : {growing, hopping}) {
        BaseProcess process;
        std::filesystem::remove(Path("ids"));
        StartTree(process, shell);
        WaitForIds(20);
        KillTree(process, 1);
        EXPECT_EQ(WaitForEnd(process), 128 + SIGKILL);
        ProcessTree tree = process.TakeProcessTree();
        EXPECT_TRUE(WaitUntil([&] { return IsNobodyLeft(tree); }));
        EXPECT_TRUE(WaitUntil([] {
            ChildTable::Reap();
            return waitpid(-1, nullptr, WNOHANG) == -1;
        }));
    }
}

TEST_F(ProcessTreeTest, ALargeTreeTakesMoreThanOneShareAndMayMoveMeanwhile)
{
    BaseProcess process;
    StartTree(process, "trap '' TERM; for i in $(seq 100); do @ & done; wait");
    const std::vector<pid_t> ids = WaitForIds(100);
    EXPECT_EQ(process.KillBaseProcessTree(0), 0);
    EXPECT_TRUE(process.IsTreeUnfinished());
    EXPECT_EQ(process.KillBaseProcessTree(1), 0); // comes along with the request that it ignores
    ProcessTree tree = process.TakeProcessTree();
    EXPECT_FALSE(process.IsTreeUnfinished());
    EXPECT_TRUE(WaitUntil([&] { return IsNobodyLeft(tree); }));
    EXPECT_EQ(WaitForEnd(process), 128 + SIGKILL);
    EXPECT_EQ(CountOf(ids), 0U);
}

TEST_F(ProcessTreeTest, WhoIsAStrangerToOneTreeIsFoundByItsOwn)
{
    BaseProcess one, other;
    StartTree(other, "(setsid @ &); (env -i @ &); wait; %; exec sleep 1000");
    const std::vector<pid_t> ids = WaitForIds(3);
    StartTree(one, "%; exec sleep 1000");
    ASSERT_EQ(WaitForIds(4).size(), 4U);
    const auto isRemembered = [](pid_t id) {
        ProcessStatus status;
        return ProcessFiles::ReadStatus(id, status) &&
               Clock::SteadyMilliseconds() / 1000 > static_cast<long long>(status.startTime) / 100 + 1;
    };
    EXPECT_TRUE(WaitUntil([&] { return std::all_of(ids.begin(), ids.end(), isRemembered); }));
    for (int look = 0; look < 2; ++look)
        KillTree(one, 1);
    EXPECT_EQ(WaitForEnd(one), 128 + SIGKILL);
    EXPECT_EQ(CountOf(ids), 3U);
    KillTree(other, 1);
    EXPECT_EQ(WaitForEnd(other), 128 + SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return CountOf(ids) == 0; }));
}

TEST_F(ProcessTreeTest, WithNextToNoDescriptorsLeft)
{
    for (const int left : {0, 1, 3}) {
        BaseProcess process;
        std::filesystem::remove(Path("ids"));
        StartTree(process, "@ & @ & (@ &); (setsid @ &); wait");
        const std::vector<pid_t> ids = WaitForIds(4);
        // Settled, so that one look is enough: each has become what it stays.
        EXPECT_TRUE(WaitUntil([&] {
            return std::all_of(ids.begin(), ids.end(), [](pid_t id) {
                const std::string folder = "/proc/" + std::to_string(id);
                return commands::ReadFile(folder + "/comm") == "sleep\n" &&
                       !commands::ReadFile(folder + "/environ").empty();
            });
        }));
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        // The lowest numbers need not be free in a row: whoever started the test may have left some open.
        std::vector<FileDescriptor> free;
        for (int i = 0; i <= left; ++i)
            free.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        const rlimit few{static_cast<rlim_t>(free.back().Number() + 1), before.rlim_max};
        free.erase(free.begin() + 1, free.end());
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        // A look is limited in time, and on a busy machine one may not be enough.
        for (int look = 0; look < (left == 0 ? 1 : 10); ++look)
            KillTree(process, 1);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
        EXPECT_EQ(WaitForEnd(process), 128 + SIGKILL);
        if (left == 0) // nobody but the command itself could be found then
            KillTree(process, 1);
        EXPECT_TRUE(WaitUntil([&] { return CountOf(ids) == 0; })) << left;
    }
}

TEST_F(ProcessTreeTest, AllTreesTogetherTakeAQuarterOfTheDescriptors)
{
    const auto countOpen = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    BaseProcess processes[2];
    for (BaseProcess& process : processes)
        StartTree(process, "trap '' TERM; for i in 1 2 3 4 5 6 7 8 9 10 11 12; do @ & done; wait");
    const std::vector<pid_t> ids = WaitForIds(24);
    const auto open = countOpen();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{64, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    for (BaseProcess& process : processes)
        KillTree(process, 0);
    EXPECT_LE(countOpen() - open, 64 / 4);
    EXPECT_TRUE(WaitUntil([&] {
        for (BaseProcess& process : processes)
            KillTree(process, 1);
        ChildTable::Reap();
        return CountOf(ids) == 0;
    }));
    for (BaseProcess& process : processes)
        process.ResetBeforeDestruction();
    EXPECT_EQ(countOpen(), open) << "a descriptor is still held";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(ProcessTreeTest, BothWaysOfFindingChildrenAgree)
{
    BaseProcess process;
    StartTree(process, "@ & @ & (@ &); wait");
    WaitForIds(3);
    for (const pid_t parent : {getpid(), static_cast<pid_t>(process.GetProcessId())}) {
        std::vector<pid_t> listed;
        EXPECT_TRUE(WaitUntil([&] {
            ChildTable::Reap();
            listed = ChildrenReader().ListChildren(parent);
            return listed.size() == 2; // the shell in between has gone
        }));
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(listed, ChildrenReader(ChildrenReader::Source::AllProcesses).ListChildren(parent));
    }
}

TEST_F(ProcessTreeTest, AProcessWhoseFirstThreadHasEndedStillRuns)
{
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        static const auto run = [](void* descriptor) -> void* {
            const pid_t grandchild = fork();
            if (grandchild == 0)
                for (;;)
                    pause();
            [[maybe_unused]] const auto written =
                write(*static_cast<int*>(descriptor), &grandchild, sizeof grandchild);
            for (;;)
                pause();
        };
        pthread_t thread;
        pthread_create(&thread, nullptr, run, &ready[1]);
        syscall(SYS_exit, 0); // this thread only
    }
    pid_t grandchild = 0;
    ASSERT_EQ(read(ready[0], &grandchild, sizeof grandchild), static_cast<ssize_t>(sizeof grandchild));
    ProcessStatus status;
    EXPECT_TRUE(WaitUntil([&] { return ProcessFiles::ReadStatus(child, status) && status.state == 'Z'; }));
    EXPECT_FALSE(status.HasEnded());
    EXPECT_FALSE(ProcessFiles::IsStill(child));
    EXPECT_EQ(ChildrenReader().ListChildren(child), std::vector<pid_t>{grandchild});
    kill(child, SIGSTOP);
    EXPECT_TRUE(WaitUntil([&] { return ProcessFiles::IsStill(child); }));
    close(ready[0]);
    close(ready[1]);
}
} // namespace
