#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "tests/system/TransferClient.h"

namespace
{
/** File systems that only this test and the daemons that it starts can see, until the object goes. */
class PrivateMounts
{
public:
    PrivateMounts() : outside_(open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC))
    {
        if (outside_ < 0 || unshare(CLONE_NEWNS) != 0)
            Fail("unshare");
        Mount("", "/", "", MS_REC | MS_PRIVATE);
    }
    PrivateMounts(const PrivateMounts&) = delete;
    PrivateMounts& operator=(const PrivateMounts&) = delete;
    ~PrivateMounts()
    {
        EXPECT_EQ(setns(outside_, CLONE_NEWNS), 0);
        close(outside_);
    }

    void Mount(const std::string& source, const std::string& target, const std::string& type,
               unsigned long flags, const std::string& options = {})
    {
        if (mount(source.c_str(), target.c_str(), type.c_str(), flags, options.c_str()) != 0)
            Fail(target);
    }
    /** A file system in memory on a new directory. */
    void MakeMemory(const std::string& target, const std::string& size, unsigned long flags = 0)
    {
        std::filesystem::create_directory(target);
        Mount("none", target, "tmpfs", flags, "size=" + size);
    }

private:
    [[noreturn]] static void Fail(const std::string& what)
    {
        throw std::runtime_error(what + ": " + strerror(errno));
    }

    int outside_;
};
} // namespace

TEST(Mounts, AFullDiskFailsAPutThatIsTold)
{
    const TestDirectory directory;
    PrivateMounts mounts;
    const std::string disk = directory.Path() + "/disk", file = disk + "/file";
    mounts.MakeMemory(disk, "64k");
    DaemonUnderTest daemon;
    const std::string content = MakeContent(5000000);

    TransferClient whole(daemon, {.keyword = "TRANSFERPUT", .file = file});
    EXPECT_EQ(whole.Put(content), Transferred(1));
    EXPECT_EQ(ListDirectory(disk), std::vector<std::string>{});
    EXPECT_TRUE(daemon.Process().WaitForTrace("Error unable to write in remote file...(" + file +
                                              ") : No space left on device\n"));

    // What is there stays as it was, and what still fitted is there to go on from.
    std::ofstream(file) << "old ";
    TransferClient update(daemon, {.keyword = "TRANSFERUPDATEPUT", .file = file});
    update.ReplyToOffer(OfferOf("old "), "UPDATEWRITE");
    EXPECT_EQ(update.Put(content), Transferred(1));
    const std::string kept = ReadFile(file);
    EXPECT_EQ(kept.size(), 65536u);
    EXPECT_TRUE(("old " + content).starts_with(kept));
}

/** A table with every kind of line, over file systems whose figures are known. */
TEST(Mounts, TheReportFollowsTheMountTable)
{
    const TestDirectory directory;
    PrivateMounts mounts;
    const std::string name24(24, 'd'), name25(25, 'd');
    const std::string half = directory.Path() + "/half full", full = directory.Path() + "/full";
    mounts.MakeMemory(half, "1000k");
    std::ofstream(half + "/file") << std::string(4000, 'x');
    mounts.MakeMemory(full, "400k");
    std::ofstream(full + "/file") << std::string(400 * 1024, 'x');
    // The rest of the system's settings, and a table of this test's own among them.
    const std::string settings = directory.Path() + "/etc";
    mounts.MakeMemory(settings, "10m");
    for (const char* name : {"passwd", "group", "hosts", "nsswitch.conf"})
        if (std::filesystem::exists(std::string("/etc/") + name))
            std::filesystem::copy(std::string("/etc/") + name, settings);
    const std::string escaped = directory.Path() + "/half\\040full";
    std::ofstream(settings + "/mtab")
        << "/dev/one " << escaped << " tmpfs rw 0 0\n"
        << name24 << " " << full << " tmpfs rw 0 0\n"
        << name25 << " " << escaped << " a_type_of_thirty_characters___ rw 0 0\n"
        << "host:/export " << full << " nfs rw 0 0\n"
        << "//host/share " << full << " smbfs rw 0 0\n"
        << "//host/share /proc cifs rw 0 0\n"
        << "auto " << full << " autofs rw 0 0\n"
        << "none " << full << " tmpfs rw,ignore,noatime 0 0\n"
        << "none " << full << " ignore rw 0 0\n"
        << "none " << directory.Path() << "/missing tmpfs rw 0 0\n"
        << "# a remark\n\nproc /proc proc rw,noignore 0 0\n";
    mounts.Mount(settings, "/etc", "", MS_BIND);
    DaemonUnderTest daemon;
    const std::string answer = Ask(daemon, Keyword("ALLINFO"));
    const std::string header =
        "->File system (Kbytes)         Type      Total       Used  Available Use% Mounted on\n";
    ASSERT_NE(answer.find(header), std::string::npos) << answer;
    EXPECT_EQ(answer.substr(answer.find(header) + header.size()),
              "->/dev/one                    tmpfs       1000          4        996   1% " + half + "\n->" +
                  name24 + "    tmpfs        400        400          0 100% " + full + "\n->" + name25 +
                  "\n->   a_type_of_thirty_characters___       1000          4        996   1% " + half +
                  "\n->//host/share                 cifs          0          0          0   -  /proc\n"
                  "->proc                         proc          0          0          0   -  /proc\n");
}
