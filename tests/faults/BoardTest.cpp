#include <csignal>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <unistd.h>

#include "tests/system/SystemFacts.h"
#include "tests/system/TransferClient.h"

/** Any local user may take the semaphore of a transfer's board, and keep it; a worker may stop while it holds
 * it. Neither holds up the daemon, and the one whose semaphore it is goes on as well. */
TEST(Board, WhoeverHoldsItHoldsUpNobody)
{
    const TestDirectory directory;
    const std::string file = directory.Path() + "/file", content = MakeContent(20'000'000);
    std::ofstream(file, std::ios::binary) << content;
    DaemonUnderTest daemon;
    const Client silent = daemon.Connect();
    TransferClient get(daemon, {.keyword = "TRANSFERGET", .file = file});
    Client data = get.OpenData("WRITE");
    std::string bytes = data.ReadExactly(1'000'000);
    const std::vector<pid_t> workers = daemon.Descendants();
    ASSERT_EQ(workers.size(), 1u);
    // Of sockets and the like it holds only its client's, its data's and the one that listened for it.
    size_t held = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(workers[0]) + "/fd")) {
        const std::string what = std::filesystem::read_symlink(entry);
        held += what.starts_with("socket:") || what.starts_with("anon_inode:");
    }
    EXPECT_EQ(held, 3u);

    const std::vector<int> semaphores = FindSemaphoresOf({daemon.Process().Id(), workers[0]});
    ASSERT_EQ(semaphores.size(), 1u);
    sembuf take{0, -1, 0};
    ASSERT_EQ(semop(semaphores[0], &take, 1), 0);
    StopProcess(workers[0]);
    const std::string listing = Ask(daemon, Keyword("INFO"));
    EXPECT_NE(listing.find("CMD(TRANSFER GET)"), std::string::npos) << listing;
    EXPECT_EQ(listing.find("STATUS("), std::string::npos) << listing;
    EXPECT_EQ(Ask(daemon, Launch("NOSOCKET", "echo on; exit 3")), Finished("on\n", 3));

    kill(workers[0], SIGCONT);
    bytes += data.ReadToEnd();
    EXPECT_TRUE(bytes == content) << bytes.size() << " bytes came";
    EXPECT_EQ(get.Finish(), Transferred(0));
}
