#include "support/LogFile.h"
#include "support/FileDescriptor.h"
#include "tests/unit/Commands.h"

namespace
{
using LogFileTest = commands::CommandTest;

TEST_F(LogFileTest, APipeWithAReaderIsNoLogEither)
{
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0666), 0);
    const FileDescriptor reader(open(Path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string reason;
    EXPECT_EQ(LogFile::Create(Path("pipe"), geteuid(), getegid(), reason), -1);
    EXPECT_EQ(LogFile::OpenForReading(Path("pipe"), geteuid(), reason), -1);
}

TEST_F(LogFileTest, WhoHoldsAnOldFileOpenSeesNothingOfTheNewOne)
{
    std::ofstream(Path("log")) << "old";
    std::filesystem::permissions(Path("log"), std::filesystem::perms(0644));
    const FileDescriptor spy(open(Path("log").c_str(), O_RDONLY | O_CLOEXEC));
    std::string reason;
    const FileDescriptor made(LogFile::Create(Path("log"), geteuid(), getegid(), reason));
    ASSERT_TRUE(made.IsOpen()) << reason;
    ASSERT_EQ(write(made.Number(), "new", 3), 3);
    char seen[8] = {};
    EXPECT_EQ(read(spy.Number(), seen, sizeof seen), 3);
    EXPECT_STREQ(seen, "old");
    EXPECT_EQ(commands::ReadFile(Path("log")), "new");
    struct stat status = {};
    fstat(made.Number(), &status);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(fcntl(made.Number(), F_GETFL) & (O_NONBLOCK | O_APPEND), O_APPEND);
    EXPECT_EQ(fcntl(made.Number(), F_GETFD), FD_CLOEXEC);
}
} // namespace
