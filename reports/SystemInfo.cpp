#include "reports/SystemInfo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "support/BaseString.h"

#include <sys/utsname.h>
#include <unistd.h>

namespace
{
constexpr const char* MemoryHeader =
    "->Memory (bytes)         Total  (Mbytes)          Used  (Mbytes)     Available  (Mbytes) Use%";

constexpr int BytesWidth = 13;
constexpr int MegabytesWidth = 7; // with the blanks before their parenthesis, of which one always stays
constexpr unsigned long long Megabyte = 1048576;
constexpr int TableSize = 16384; // the first processor stands at the beginning of its table

/** The beginning of one of the kernel's tables, empty when it cannot be read. */
std::string ReadTable(const char* path)
{
    std::string table(TableSize, '\0');
    int length = BaseString::ConvertBinaryFileToBuffer(path, table.data(), TableSize);
    table.resize(static_cast<size_t>(std::max(length, 0)));
    return table;
}

void PrintOperatingSystem(QORListValQORUnicodeString& out, const SystemFigures& figures)
{
    if (figures.operatingSystem.empty())
        return;
    char line[ReportFields::LineSize] = "";
    ReportFields::AppendToLine(line, "->Found operating system %s", figures.operatingSystem.c_str());
    out.Append(line);
}

void PrintProcessors(QORListValQORUnicodeString& out, const SystemFigures& figures)
{
    int configured = figures.processorsConfigured;
    int online = figures.processorsOnline;
    if (configured == -1 || configured == 0)
        return;
    char line[ReportFields::LineSize] = "";
    ReportFields::AppendToLine(line, "->Found %d processor(s)", configured);
    if (configured != 1 && online != -1 && online != 0)
        ReportFields::AppendToLine(line, ", %d of which %s online", online, online < 2 ? "is" : "are");
    if (!figures.processorDescription.empty())
        ReportFields::AppendToLine(line, " (%s)", figures.processorDescription.c_str());
    out.Append(line);
}

/** `title` is the line's beginning, up to the first column. */
void PrintMemory(QORListValQORUnicodeString& out, const char* title, unsigned long long total,
                 unsigned long long used, unsigned long long free)
{
    char line[ReportFields::LineSize] = "";
    ReportFields::AppendToLine(line, "%s", title);
    for (unsigned long long amount : {total, used, free}) {
        char bytes[ReportFields::FigureSize];
        char megabytes[ReportFields::FigureSize];
        SystemInfo::PrintReadable(bytes, sizeof bytes, amount, 1);
        SystemInfo::PrintReadable(megabytes, sizeof megabytes, amount, Megabyte);
        int pad = std::max(MegabytesWidth - static_cast<int>(strlen(megabytes)), 1);
        ReportFields::AppendToLine(line, "%*s %*s(%s) ", BytesWidth, bytes, pad, " ", megabytes);
    }
    char use[ReportFields::FigureSize];
    ReportFields::PrintUse(use, sizeof use, used, free);
    ReportFields::AppendToLine(line, "%s", use);
    out.Append(line);
}
} // namespace

void SystemInfo::ComputeStat()
{
    InitOrResetStat();
    utsname system;
    if (uname(&system) == 0) {
        figures_.operatingSystem =
            std::string(system.sysname) + " " + system.release + " " + system.version + " " + system.machine;
        figures_.ReadProcessor(ReadTable("/proc/cpuinfo"), system.machine);
    }
    figures_.processorsConfigured = static_cast<int>(sysconf(_SC_NPROCESSORS_CONF));
    figures_.processorsOnline = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    figures_.ReadMemory(ReadTable("/proc/meminfo"));
}

void SystemInfo::PrintSystemInfo(QORListValQORUnicodeString& out)
{
    ComputeStat();
    PrintFigures(out, figures_);
}

void SystemInfo::PrintFigures(QORListValQORUnicodeString& out, const SystemFigures& figures)
{
    PrintOperatingSystem(out, figures);
    PrintProcessors(out, figures);
    out.Append(MemoryHeader);
    PrintMemory(out, "->Physical       ", figures.totalMemory, figures.usedMemory, figures.freeMemory);
    PrintMemory(out, "->Virtual        ", figures.totalSwap, figures.usedSwap, figures.freeSwap);
}

char* SystemInfo::PrintReadable(char* buffer, unsigned int bufferSize, unsigned long long amount,
                                unsigned long long divisor)
{
    return ReportFields::PrintFigure(buffer, bufferSize, amount, 1, divisor);
}
