#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reports/FileSystem.h"
#include "reports/SystemInfo.h"

namespace
{
constexpr unsigned long long Unknown = ~0ULL;

FileSystemEntry Mounted(std::string device, std::string directory, std::string type)
{
    mntent record{};
    record.mnt_fsname = device.data();
    record.mnt_dir = directory.data();
    record.mnt_type = type.data();
    record.mnt_opts = const_cast<char*>("rw");
    return FileSystemEntry(&record);
}

std::vector<std::string> Lines(const QORListValQORUnicodeString& list)
{
    std::vector<std::string> lines;
    for (int i = 1; i <= list.Size(); ++i)
        lines.emplace_back(list[i].View());
    return lines;
}

std::vector<std::string> Print(const SystemFigures& figures)
{
    QORListValQORUnicodeString out;
    SystemInfo::PrintFigures(out, figures);
    return Lines(out);
}
} // namespace

TEST(FileSystemEntry, CountsUsedBlocksOnlyWhereTheyAddUp)
{
    struct statvfs status {
    };
    status.f_bsize = 65536;
    status.f_frsize = 512;
    status.f_blocks = 1000;
    status.f_bfree = 300;
    status.f_bavail = 200;
    BlockCounts counts = FileSystemEntry::CountBlocks(status);
    EXPECT_EQ(counts.blockSize, 512U);
    EXPECT_EQ(counts.available, 200U);
    EXPECT_EQ(counts.used, 700U);
    for (unsigned long long free : {1001ULL, Unknown}) {
        status.f_bfree = free;
        EXPECT_EQ(FileSystemEntry::CountBlocks(status).used, Unknown) << free;
    }
    status.f_blocks = Unknown;
    EXPECT_EQ(FileSystemEntry::CountBlocks(status).available, Unknown);
}

TEST(FileSystem, EveryColumnInItsPlace)
{
    const std::string name25(25, 'd');
    struct {
        FileSystemEntry entry;
        BlockCounts counts; // total, free, available, used, block size
        std::string text;
    } cases[] = {
        {Mounted("/dev/sda1", "/tmp_mnt/home/x", "ext4"),
         {4000, 2500, 1900, 1500, 4096},
         "->/dev/sda1                    ext4      16000       6000       7600  45% /home/x"},
        {Mounted(name25, "/auto/data", "a_type_of_more_than_thirty_three_letters"),
         {1000, 999, 999, 1, 512},
         "->" + name25 +
             "\n->a_type_of_more_than_thirty_three_letters        500          0        499   1% /data"},
        {Mounted(name25, "/autos", "nfs"),
         {Unknown, Unknown, Unknown, Unknown, 512},
         "->" + name25 +
             "\n->                              nfs          -          -          -   -  /autos"},
        {Mounted("none", "/tmp_mnt", "proc"),
         {0, 0, 0, 0, BlockCounts::UnknownBlockSize},
         "->none                         proc          -          -          -   -  /tmp_mnt"},
        // Figures whose sum is nothing in 64 bits, and names that would forge lines.
        {Mounted("a\nb", "/x\n->y", "f\033"),
         {Unknown - 1, 2, 2, Unknown - 1, 1},
         "->a?b                            f? 18014398509481983 18014398509481983          0 100% /x?->y"},
        {FileSystemEntry(nullptr),
         {3, 2, 2, 1, 1024},
         "->-                               -          3          1          2  34% -"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(FileSystem::FormatEntry(one.entry, one.counts).View(), one.text);
    FileSystemEntry longest = Mounted(std::string(5000, 'd'), "/", "ext4");
    EXPECT_EQ(FileSystem::FormatEntry(longest, BlockCounts()).View(), "->" + std::string(4093, 'd'));
}

TEST(SystemInfo, ProcessorsAndOperatingSystem)
{
    struct {
        int configured, online;
        const char* description;
        std::vector<std::string> lines;
    } cases[] = {{-1, 4, "x86", {}},
                 {0, 4, "x86", {}},
                 {1, 1, "x86", {"->Found 1 processor(s) (x86)"}},
                 {4, -1, "", {"->Found 4 processor(s)"}},
                 {4, 0, "x86", {"->Found 4 processor(s) (x86)"}},
                 {4, 1, "x86", {"->Found 4 processor(s), 1 of which is online (x86)"}},
                 {4, 4, "", {"->Found 4 processor(s), 4 of which are online"}}};
    for (const auto& one : cases) {
        SystemFigures figures;
        figures.processorsConfigured = one.configured;
        figures.processorsOnline = one.online;
        figures.processorDescription = one.description;
        std::vector<std::string> lines = Print(figures);
        lines.resize(lines.size() - 3);
        EXPECT_EQ(lines, one.lines);
    }
    SystemFigures figures;
    figures.operatingSystem = "Linux 6.1 #1 x86_64" + std::string(5000, '!');
    EXPECT_EQ(Print(figures)[0],
              ("->Found operating system Linux 6.1 #1 x86_64" + std::string(5000, '!')).substr(0, 4095));
}

TEST(SystemInfo, MemoryToTheColumn)
{
    const std::string header =
        "->Memory (bytes)         Total  (Mbytes)          Used  (Mbytes)     Available  (Mbytes) Use%";
    const std::string unknown =
        "            -       (-)             -       (-)             -       (-)   -  ";
    EXPECT_EQ(Print({}), (std::vector<std::string>{header, "->Physical       " + unknown,
                                                   "->Virtual        " + unknown}));
    SystemFigures figures;
    figures.totalMemory = 536870912;
    figures.usedMemory = 4096;
    figures.freeMemory = 536866816;
    figures.totalSwap = figures.usedSwap = figures.freeSwap = 0;
    EXPECT_EQ(
        Print(figures)[1],
        "->Physical           536870912     (512)          4096       (0)     536866816     (511)   1% ");
    EXPECT_EQ(
        Print(figures)[2],
        "->Virtual                    0       (0)             0       (0)             0       (0)   -  ");
    // A hundred million megabytes: the columns burst, but the padding keeps its one blank.
    figures.totalSwap = figures.usedSwap = 104857600000000ULL;
    EXPECT_EQ(Print(figures)[2],
              "->Virtual        104857600000000  (100000000) 104857600000000  (100000000)     "
              "        0       (0) 100% ");
}

TEST(SystemInfo, ReadsTheKernelsTables)
{
    SystemFigures figures;
    figures.ReadMemory("MemTotal:       2000 kB\nMemFree:  10 kB\nMemAvailable: 500 kB\nSwapTotal:\t7 kB\n"
                       "SwapFree: 8 kB\nHugePages_Total: 0");
    EXPECT_EQ(figures.totalMemory, 2048000U);
    EXPECT_EQ(figures.freeMemory, 512000U);
    EXPECT_EQ(figures.usedMemory, 1536000U);
    EXPECT_EQ(figures.totalSwap, 7168U);
    EXPECT_EQ(figures.freeSwap, 8192U);
    EXPECT_EQ(figures.usedSwap, Unknown) << "more free than there is";
    figures.ReadMemory("MemTotal: lots\nMemAvailable: 99999999999999999 kB\n");
    EXPECT_EQ(figures.totalMemory, Unknown);
    EXPECT_EQ(figures.freeMemory, Unknown);

    struct {
        const char *table, *description;
    } cases[] = {
        {"", "arch"},
        {"processor\t: 0\ncpu family\t: 6\nmodel name\t: A: B, C \ncpu MHz\t\t: 2599.998\n\nmodel name\t: "
         "D\n",
         "arch, A: B, C at 2599 Mhz"},
        {"system type : x\ncpu model : M V2.0", "arch, M V2.0"},
        {"cpu MHz : fast\ncpu : P", "arch, P"},
    };
    for (const auto& one : cases) {
        figures.ReadProcessor(one.table, "arch");
        EXPECT_EQ(figures.processorDescription, one.description);
    }
}
