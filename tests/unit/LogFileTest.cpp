#include "support/LogFile.h"
#include "support/FileDescriptor.h"
#include "tests/unit/Commands.h"

namespace
{
using LogFileTest = commands::CommandTest;

/** What somebody may have put where a log is to be made or read, and what must be left as it was. */
struct Planted {
    const char* what;
    std::function<void(const std::string& name, const std::string& victim)> plant;
};

const Planted traps[] = {
    {"a link to a file", [](auto& name, auto& victim) { std::filesystem::create_symlink(victim, name); }},
    {"a link to nowhere", [](auto& name, auto&) { std::filesystem::create_symlink("/nonexistent", name); }},
    {"another name", [](auto& name, auto& victim) { std::filesystem::create_hard_link(victim, name); }},
    {"a pipe", [](auto& name, auto&) { EXPECT_EQ(mkfifo(name.c_str(), 0666), 0); }},
    {"a folder", [](auto& name, auto&) { std::filesystem::create_directory(name); }},
};

TEST_F(LogFileTest, WhatIsNoLogIsNeitherWrittenNorRead)
{
    std::ofstream(Path("victim")) << "secret";
    for (const Planted& trap : traps) {
        const std::string name = Path(trap.what);
        trap.plant(name, Path("victim"));
        std::string reason;
        EXPECT_EQ(LogFile::Create(name, geteuid(), getegid(), reason), -1) << trap.what;
        EXPECT_TRUE(reason.starts_with("Error unable to open log file...(" + name + ") : ")) << reason;
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(name))) << trap.what;
        reason.clear();
        EXPECT_EQ(LogFile::OpenForReading(name, geteuid(), reason), -1) << trap.what;
        EXPECT_FALSE(reason.empty());
    }
    EXPECT_EQ(commands::ReadFile(Path("victim")), "secret");
}

TEST_F(LogFileTest, APipeWithAReaderIsNoLogEither)
{
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0666), 0);
    const FileDescriptor reader(open(Path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string reason;
    EXPECT_EQ(LogFile::Create(Path("pipe"), geteuid(), getegid(), reason), -1);
    EXPECT_EQ(LogFile::OpenForReading(Path("pipe"), geteuid(), reason), -1);
}

TEST_F(LogFileTest, OnlyItsUserReadsAndOnlyOwnFilesAreReplaced)
{
    const uid_t somebody = geteuid() + 1;
    std::string reason;
    const FileDescriptor made(LogFile::Create(Path("log"), geteuid(), getegid(), reason));
    ASSERT_TRUE(made.IsOpen()) << reason;
    EXPECT_EQ(LogFile::OpenForReading(Path("log"), somebody, reason), -1);
    const FileDescriptor read(LogFile::OpenForReading(Path("log"), geteuid(), reason));
    EXPECT_TRUE(read.IsOpen()) << reason;
    EXPECT_EQ(LogFile::Create(std::string("log\0x", 5), geteuid(), getegid(), reason), -1);

    // Given to a stranger: root may, anybody else is refused and leaves no file.
    const int given = LogFile::Create(Path("given"), somebody, getegid(), reason);
    struct stat status = {};
    if (geteuid() != 0) {
        EXPECT_EQ(given, -1);
        EXPECT_NE(stat(Path("given").c_str(), &status), 0);
        return;
    }
    const FileDescriptor theirs(given);
    ASSERT_EQ(stat(Path("given").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, somebody);
    EXPECT_EQ(LogFile::Create(Path("given"), 0, 0, reason), -1) << "another user's file was replaced";
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
