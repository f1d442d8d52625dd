#include <iomanip>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include "tests/system/DaemonUnderTest.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace
{
/** How a line on memory begins: what does not change while others use this machine. */
std::string MemoryLead(const char* title, const std::string& name)
{
    const std::string table = ReadFile("/proc/meminfo");
    const unsigned long long bytes = std::stoull(table.substr(table.find(name) + name.size())) * 1024;
    std::ostringstream text;
    text << title << std::setw(13) << bytes << " " << std::setw(9) << "(" + std::to_string(bytes >> 20) + ")"
         << " ";
    return text.str();
}
} // namespace

/** To the end of the lines whose figures stand still; the others are looked at where they are known. */
TEST(Report, IsWhatTheSystemSays)
{
    DaemonUnderTest daemon;
    const std::string listing = Ask(daemon, Keyword("INFO"));
    const std::string answer = Ask(daemon, Keyword("ALLINFO"));
    ASSERT_TRUE(answer.starts_with(listing)) << answer;
    EXPECT_TRUE(answer.ends_with("\n"));
    utsname system;
    uname(&system);
    const std::string leads[] = {
        std::string("->Found operating system ") + system.sysname + " " + system.release + " " +
            system.version + " " + system.machine,
        "->Found " + std::to_string(get_nprocs_conf()) + " processor(s)",
        "->Memory (bytes)         Total  (Mbytes)          Used  (Mbytes)     Available  (Mbytes) Use%",
        MemoryLead("->Physical       ", "MemTotal:"),
        MemoryLead("->Virtual        ", "SwapTotal:"),
        "->File system (Kbytes)         Type      Total       Used  Available Use% Mounted on"};
    std::istringstream lines(answer.substr(listing.size()));
    std::string line;
    for (const std::string& lead : leads) {
        std::getline(lines, line);
        EXPECT_THAT(line, StartsWith(lead));
    }
    EXPECT_TRUE(std::getline(lines, line)) << "no file system at all";
}

TEST(Report, WhoDoesNotTakeItKeepsItFromNobody)
{
    DaemonUnderTest daemon;
    // The listing is longer than what lies between daemon and client can hold.
    std::vector<Client> shown;
    for (int i = 0; i < 40; ++i) {
        shown.push_back(daemon.Connect());
        shown.back().Send(Launch("SOCKET", "echo up; exec sleep 1000 # " + std::string(130'000, 'x')));
        shown.back().ReadUntil("up\n");
    }
    std::vector<Client> idle;
    for (int i = 0; i < 16; ++i) {
        idle.emplace_back(daemon.Port(), daemon.Conversation(), 4096);
        idle.back().Send(Keyword("ALLINFO"));
    }
    ASSERT_TRUE(WaitUntil([&] { return daemon.Descendants().size() == 40 + 16; }));
    EXPECT_THAT(Ask(daemon, Keyword("ALLINFO")), HasSubstr("->Error unable to start system report\n"));
    EXPECT_TRUE(WaitUntil([&] {
        return Ask(daemon, Keyword("ALLINFO")).find("->Found operating system") != std::string::npos;
    }));
    EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().size() == 40 + 15; }));
}
