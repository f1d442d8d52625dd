// The lines of the mount table, as anybody who may mount something can have them written: the report's lines
// stay lines of a report.

#include <cstdio>

#include <mntent.h>
#include <sys/statvfs.h>

#include "reports/FileSystem.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
std::string_view table;
/** How full every file system is; asking the real ones could hang. */
unsigned long long figures = 0;
} // namespace

// Stand in for the system's: the build has the linker call these instead.
extern "C" FILE* __wrap_setmntent(const char*, const char*)
{
    return fmemopen(const_cast<char*>(table.data()), table.size(), "r");
}

extern "C" int __wrap_statvfs(const char* path, struct statvfs* status)
{
    Require(path != nullptr, "a file system is asked for by name");
    if (figures % 7 == 6)
        return -1;
    *status = {};
    status->f_frsize = figures % 3 == 0 ? 4096 : static_cast<unsigned long>(figures);
    status->f_blocks = figures % 5 == 0 ? ~0ULL : figures << (figures % 60);
    status->f_bfree = figures % 2 == 0 ? status->f_blocks / 2 : ~0ULL - figures;
    status->f_bavail = status->f_bfree - figures % 4;
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto [choice, text] = TakeChoice(data, size);
    if (text.empty())
        return 0;
    table = text;
    figures = choice;
    FileSystem report;
    if (report.ReadFileSystemEntries() < 0)
        return 0;
    QORListValQORUnicodeString lines;
    report.PrintFileSystemEntries(lines, 1, 1);
    for (int i = 1; i <= lines.Size(); ++i) {
        Require(lines[i].GetLengthInByte() < 4096, "a line fits into its buffer");
        // A long device name has a line of its own, and no other line begins inside.
        for (const std::string_view line : Split(lines[i].View(), '\n')) {
            Require(line.starts_with("->"), "every line has its lead");
            for (const char character : line)
                Require(static_cast<unsigned char>(character) >= ' ', "and nothing that ends or hides it");
        }
    }
    return 0;
}
