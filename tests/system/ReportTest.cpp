#include <algorithm>
#include <iomanip>
#include <map>
#include <sstream>

#include <gtest/gtest.h>
#include <mntent.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include "tests/system/DaemonUnderTest.h"

// The report on this machine, worked out a second time from the system's own figures.

namespace
{
using Figure = unsigned long long;

std::string Use(Figure used, Figure whole)
{
    std::ostringstream text;
    if (whole == 0)
        return "  -  ";
    text << std::setw(3) << (used * 100 + whole - 1) / whole << "% ";
    return text.str();
}

std::string MemoryLine(const char* title, const char* total, const char* available)
{
    std::map<std::string, Figure> table;
    std::istringstream lines(ReadFile("/proc/meminfo"));
    std::string key;
    for (Figure kilobytes = 0; lines >> key >> kilobytes; std::getline(lines, key))
        table[key] = kilobytes * 1024;
    const Figure whole = table.at(total), unused = table.at(available);
    std::ostringstream text;
    text << title;
    for (const Figure bytes : {whole, whole - unused, unused}) {
        const std::string megabytes = "(" + std::to_string(bytes >> 20) + ")";
        text << std::setw(13) << bytes << " " << std::setw(9) << megabytes << " ";
    }
    text << Use(whole - unused, whole);
    return text.str();
}

void AppendFileSystem(std::vector<std::string>& report, const mntent& mount)
{
    const std::string device = mount.mnt_fsname, type = mount.mnt_type;
    struct statvfs facts;
    if (device.find(':') != std::string::npos || type == "autofs" || type == "ignore" ||
        hasmntopt(&mount, "ignore") || (device.starts_with("//") && type == "smbfs") ||
        statvfs(mount.mnt_dir, &facts) != 0) {
        return;
    }
    std::ostringstream text;
    text << "->" << device;
    if (device.size() < 25) {
        text << " " << std::setw(32 - static_cast<int>(device.size())) << type;
    } else {
        report.push_back(text.str());
        text.str("");
        text << "->" << std::setw(33) << type;
    }
    const Figure used = facts.f_blocks - facts.f_bfree;
    for (const Figure blocks : {Figure{facts.f_blocks}, used, Figure{facts.f_bavail}})
        text << " " << std::setw(10) << blocks * facts.f_frsize / 1024;
    text << " " << Use(used, used + facts.f_bavail) << mount.mnt_dir;
    report.push_back(text.str());
}

std::vector<std::string> ReportOnThisMachine()
{
    utsname system;
    uname(&system);
    std::vector<std::string> report = {
        std::string("->Found operating system ") + system.sysname + " " + system.release + " " +
            system.version + " " + system.machine,
        "->Memory (bytes)         Total  (Mbytes)          Used  (Mbytes)     Available  (Mbytes) Use%",
        MemoryLine("->Physical       ", "MemTotal:", "MemAvailable:"),
        MemoryLine("->Virtual        ", "SwapTotal:", "SwapFree:"),
        "->File system (Kbytes)         Type      Total       Used  Available Use% Mounted on"};
    FILE* table = setmntent("/proc/self/mounts", "r");
    while (const mntent* mount = getmntent(table))
        AppendFileSystem(report, *mount);
    endmntent(table);
    return report;
}

/** Words and numbers of a line. */
std::vector<std::string> Split(std::string line)
{
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '(' || c == ')' || c == '%'; }, ' ');
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

/** True when the line is one of the two, or lies between them: other programs use this machine too. */
bool LiesBetween(const std::string& line, const std::string& before, const std::string& after)
{
    if (line == before || line == after)
        return true;
    const std::vector<std::string> got = Split(line), low = Split(before), high = Split(after);
    if (got.size() != low.size() || got.size() != high.size() || line.size() != before.size())
        return false;
    for (size_t i = 0; i < got.size(); ++i) {
        const auto [least, most] = std::minmax({std::stoull("0" + low[i]), std::stoull("0" + high[i])});
        const Figure figure = std::stoull("0" + got[i]);
        if (got[i] != low[i] && (figure < least || figure > most || figure == 0))
            return false;
    }
    return true;
}
} // namespace

TEST(Report, IsWhatTheSystemSays)
{
    DaemonUnderTest daemon;
    const std::string listing = Ask(daemon, Keyword("INFO"));
    const std::string processors = "->Found " + std::to_string(get_nprocs_conf()) + " processor(s)";
    std::string answer;
    std::vector<std::string> before, after;
    const auto agrees = [&] {
        before = ReportOnThisMachine();
        answer = Ask(daemon, Keyword("ALLINFO"));
        after = ReportOnThisMachine();
        if (!answer.starts_with(listing) || before.size() != after.size())
            return false;
        std::istringstream lines(answer.substr(listing.size()));
        std::string line;
        for (size_t i = 0; i < before.size(); ++i) {
            if (!std::getline(lines, line) || !LiesBetween(line, before[i], after[i]))
                return false;
            if (i == 0 && (!std::getline(lines, line) || !line.starts_with(processors)))
                return false;
        }
        return lines.peek() == EOF && answer.ends_with("\n");
    };
    std::ostringstream expected;
    EXPECT_TRUE(WaitUntil(agrees, Patience / 3)) << answer << "but the system says\n"
                                                 << [&] {
                                                        for (const std::string& line : before)
                                                            expected << line << "\n";
                                                        return expected.str();
                                                    }();
}
