#pragma once

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/BaseProcess.h"
#include "support/Clock.h"
#include "support/ProcessFiles.h"
#include "support/ProcessSetup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/** Commands started by this test program, which is their supervisor and the reaper of their orphans. */
namespace commands
{
constexpr int DeadlineSeconds = 20;

inline bool WaitUntil(const std::function<bool()>& condition)
{
    const long long deadline = Clock::SteadyMilliseconds() + DeadlineSeconds * 1000;
    while (!condition()) {
        if (Clock::SteadyMilliseconds() > deadline)
            return false;
        usleep(1000);
    }
    return true;
}

inline std::string ReadFile(const std::string& name)
{
    std::ostringstream content;
    content << std::ifstream(name).rdbuf();
    return content.str();
}

constexpr rlim_t PlantedDescriptorLimit = 321;

/** Once: makes this a supervisor that was itself started with everything that must not reach a command. */
inline void BecomeOddSupervisor()
{
    static bool done = false;
    if (std::exchange(done, true))
        return;
    for (const int signal : {SIGHUP, SIGUSR1, SIGCHLD, SIGPIPE})
        std::signal(signal, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigaddset(&blocked, SIGRTMIN);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    umask(077);
    EXPECT_GT(open("/dev/null", O_RDWR), 2); // stays open, and not close-on-exec
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = PlantedDescriptorLimit;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::ofstream("/proc/self/oom_score_adj") << "-7"; // takes effect for root only
    EXPECT_GE(ProcessSetup::BecomeSupervisor(), 0);
}

class CommandTest : public testing::Test
{
protected:
    CommandTest()
    {
        BecomeOddSupervisor();
        std::string name = testing::TempDir() + "commandsXXXXXX";
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        folder_ = std::filesystem::canonical(name);
    }
    ~CommandTest() override
    {
        EndEverybody();
        std::filesystem::remove_all(folder_);
    }

    std::string Path(const std::string& name) const { return folder_ + "/" + name; }

    /** Starts it as this process' own user. */
    int Start(BaseProcess& process, const std::string& command)
    {
        process.SetOutputAndErrorFileName(Path("log"));
        return process.StartBaseProcess(command, nullptr, 0, 0);
    }

    /** The exit code, -1 when it did not end in time. */
    static int WaitForEnd(BaseProcess& process)
    {
        int code = -1;
        EXPECT_EQ(process.WaitForProcess(code, DeadlineSeconds), 0);
        return code;
    }

    /** Waits until this many lines, each a process id, stand in the file "ids". */
    std::vector<pid_t> WaitForIds(std::size_t count) const
    {
        std::vector<pid_t> ids;
        EXPECT_TRUE(WaitUntil([&] {
            ids.clear();
            std::istringstream lines(ReadFile(Path("ids")));
            for (pid_t id; lines >> id;)
                ids.push_back(id);
            return ids.size() >= count;
        })) << ids.size();
        return ids;
    }

    static bool IsAlive(pid_t processId)
    {
        ChildTable::Reap();
        ProcessStatus status;
        return ProcessFiles::ReadStatus(processId, status) && !status.HasEnded();
    }

private:
    /** Every descendant comes to its reaper, this process, as soon as those above it have ended. */
    static void EndEverybody()
    {
        siginfo_t ended{};
        while (waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT | WNOHANG) == 0) { // while there are children
            for (const pid_t child : ChildrenReader().ListChildren(getpid()))
                kill(child, SIGKILL);
            usleep(1000);
            ChildTable::Reap();
        }
    }

    std::string folder_;
};
} // namespace commands
