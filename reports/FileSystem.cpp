#include "reports/FileSystem.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace
{
constexpr const char* Header =
    "->File system (Kbytes)         Type      Total       Used  Available Use% Mounted on";

constexpr size_t LongName = 25; // from this length on the type has a line of its own
constexpr int TypeEnd = 33;     // column in which the type ends, behind the arrow
constexpr int CounterWidth = 10;
constexpr unsigned long Kilobyte = 1024;

/** The text, or "-" for a missing one, with nothing in it that could end a line. */
std::string Printable(const char* text)
{
    std::string printable(text != nullptr ? text : "-");
    for (char& character : printable) {
        if (static_cast<unsigned char>(character) < ' ' || character == '\x7F')
            character = '?';
    }
    return printable;
}

/** Automounters put what users know as /home below directories of their own. */
std::string_view WithoutAutomounterPrefix(std::string_view directory)
{
    for (std::string_view prefix : {"/auto/", "/tmp_mnt/"}) {
        if (directory.starts_with(prefix))
            return directory.substr(prefix.size() - 1);
    }
    return directory;
}

FILE* OpenMountTable()
{
    FILE* table = setmntent("/etc/mtab", "r");
    return table != nullptr ? table : setmntent("/proc/mounts", "r");
}
} // namespace

void FileSystem::DeleteEntries()
{
    for (int i = entries_.Size(); i >= 1; --i) {
        delete entries_[i];
        entries_[i] = nullptr;
    }
    entries_.RemoveAll(QORCollec::KeepMemory);
}

int FileSystem::ReadFileSystemEntries()
{
    DeleteEntries();
    FILE* table = OpenMountTable();
    if (table == nullptr)
        return -1;
    while (const mntent* record = getmntent(table))
        entries_.Append(new FileSystemEntry(record));
    endmntent(table);
    return entries_.Size();
}

void FileSystem::PrintFileSystemEntries(QORListValQORUnicodeString& out, const int& withRemote,
                                        const int& withIgnored)
{
    entries_.RemoveNulls();
    PrintHeader(out);
    for (int i = 1; i <= entries_.Size(); ++i)
        PrintFileSystemEntry(out, withRemote, withIgnored, *entries_[i]);
}

void FileSystem::PrintHeader(QORListValQORUnicodeString& out) const
{
    out.Append(Header);
}

void FileSystem::PrintFileSystemEntry(QORListValQORUnicodeString& out, const int& withRemote,
                                      const int& withIgnored, FileSystemEntry& entry) const
{
    // Left out before its counters are asked for: they could hang, or make an automounter mount something.
    if ((withRemote == 0 && entry.IsRemote()) || (withIgnored == 0 && entry.IsIgnored()))
        return;
    if (entry.ComputeStat() == 0)
        out.Append(FormatEntry(entry, entry.GetBlockCounts()));
}

QORUnicodeString FileSystem::FormatEntry(const FileSystemEntry& entry, const BlockCounts& counts)
{
    const std::string name = Printable(entry.GetDevicePathName());
    const std::string type = Printable(entry.GetType());
    const std::string directory = Printable(entry.GetMountDirectory());
    char line[ReportFields::LineSize] = "";
    if (name.size() < LongName)
        ReportFields::AppendToLine(line, "->%s %*s", name.c_str(),
                                   TypeEnd - 1 - static_cast<int>(name.size()), type.c_str());
    else
        ReportFields::AppendToLine(line, "->%s\n->%*s", name.c_str(), TypeEnd, type.c_str());
    for (unsigned long long count : {counts.total, counts.used, counts.available}) {
        char figure[ReportFields::FigureSize];
        PrintReadable(figure, sizeof figure, count, counts.blockSize, Kilobyte);
        ReportFields::AppendToLine(line, " %*s", CounterWidth, figure);
    }
    char use[ReportFields::FigureSize];
    ReportFields::PrintUse(use, sizeof use, counts.used, counts.available);
    ReportFields::AppendToLine(line, " %s%s", use, WithoutAutomounterPrefix(directory).data());
    return line;
}

char* FileSystem::PrintReadable(char* buffer, unsigned int bufferSize, unsigned long long amount,
                                unsigned long fromUnit, unsigned long toUnit)
{
    bool isUnitUnknown = fromUnit == ~0UL || fromUnit == BlockCounts::UnknownBlockSize;
    return ReportFields::PrintFigure(buffer, bufferSize, isUnitUnknown ? ReportFields::Unknown : amount,
                                     fromUnit, toUnit);
}
