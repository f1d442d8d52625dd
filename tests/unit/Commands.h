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
#include "support/ProcessFiles.h"
#include "support/ProcessSetup.h"
#include "tests/system/Waiting.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/** Commands started by this test program, which is their supervisor and the reaper of their orphans. */
namespace commands
{
inline std::string ReadFile(const std::string& name)
{
    std::ostringstream content;
    content << std::ifstream(name).rdbuf();
    return content.str();
}

class CommandTest : public testing::Test
{
protected:
    CommandTest()
    {
        EXPECT_GE(ProcessSetup::BecomeSupervisor(), 0);
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

    /** The exit code, -1 when it did not end in time. */
    static int WaitForEnd(BaseProcess& process)
    {
        int code = -1;
        EXPECT_EQ(process.WaitForProcess(code, static_cast<int>(Patience.count())), 0);
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
