#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"

using testing::MatchesRegex;

namespace
{
/** The listing with these lines under its three headings, as a pattern. */
std::string Listing(int launched, const std::vector<std::string>& logs,
                    const std::vector<std::string>& commands)
{
    std::ostringstream text;
    text << "->RuvelServer V1\\.8\\.3 January 27, 2005 \\(Unix\\)\n->" << launched
         << " launched command\\(s\\) and file transfer\\(s\\) since beginning\n->Found " << logs.size()
         << " active log transfer\\(s\\)\n";
    for (const std::string& line : logs)
        text << "->" << line << "\n";
    text << "->Found " << commands.size() << " active command\\(s\\)\n";
    for (const std::string& line : commands)
        text << "->" << line << "\n";
    text << "->Found 0 active file transfer\\(s\\)\n";
    return text.str();
}

std::string Line(int number, const std::string& process, const std::string& user, const std::string& command)
{
    return "N\\(" + std::to_string(number) + "\\), PID\\(" + process + "\\), UID\\(" + user +
           "\\), BDATE\\([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\), CMD\\(" + command + "\\)";
}
} // namespace

TEST(Listing, CommandsAreListedAsTheyWereSentUntilTheyEnd)
{
    DaemonUnderTest daemon;
    Client first = daemon.Connect(), second = daemon.Connect();
    const std::string domainUser = "Domain\\" + OwnUser();
    first.Send(Join({Newest, domainUser, "secret", "echo $$; read line", "SOCKET", "NOWINDOW", "0"}));
    first.ReadUntil(BannerLine);
    std::string firstProcess = first.ReadUntil("\n");
    firstProcess.pop_back();
    const std::string longTail(6000, 'y');
    second.Send(Launch("SOCKET", "echo $$; read line; : " + longTail) + "\n");
    second.ReadUntil(BannerLine);
    std::string secondProcess = second.ReadUntil("\n");
    secondProcess.pop_back();

    const std::string firstLine = Line(0, firstProcess, "Domain\\\\" + OwnUser(), "echo \\$\\$; read line");
    const std::string secondLine = Line(1, secondProcess, OwnUser(), "echo \\$\\$; read line; : ");
    std::string listing = Ask(daemon, Keyword("INFO"));
    // The long tail is taken out before the pattern is tried: matching it takes the library ages.
    const size_t tail = listing.find(longTail);
    ASSERT_NE(tail, std::string::npos) << listing;
    listing.erase(tail, longTail.size());
    EXPECT_THAT(listing, MatchesRegex(Listing(2, {}, {firstLine, secondLine})));

    first.Send("\n");
    EXPECT_EQ(first.ReadToEnd(), ReturnLine(0));
    second.Send("\n");
    EXPECT_EQ(second.ReadToEnd(), ReturnLine(0));
    EXPECT_THAT(Ask(daemon, Keyword("INFO")), MatchesRegex(Listing(2, {}, {})));
}

TEST(Listing, ALogOnItsWayIsListedWithItsReturnCodeAndStatus)
{
    DaemonUnderTest daemon;
    Client slow = daemon.Connect();
    slow.Send(Launch("NOSOCKET", "seq 1 3000000; exit 7"));
    slow.ReadUntil(BannerLine);
    const std::string line =
        Line(0, "[0-9]+", OwnUser(), "seq 1 3000000; exit 7") +
        ", RC\\(7\\), STATUS\\(sent [0-9]+ byte\\(s\\) in [0-9]+\\.[0-9]{3} s \\(.+\\)\\)";
    // The status comes with the first block that the worker has sent.
    EXPECT_TRUE(
        WaitUntil([&] { return Ask(daemon, Keyword("INFO")).find("STATUS(sent ") != std::string::npos; }));
    EXPECT_THAT(Ask(daemon, Keyword("INFO")), MatchesRegex(Listing(1, {line}, {})));
    std::string expected;
    for (int number = 1; number <= 3000000; ++number)
        expected += std::to_string(number) + "\n";
    EXPECT_TRUE(slow.ReadToEnd() == expected + ReturnLine(7));
    EXPECT_TRUE(WaitUntil([&] {
        return Ask(daemon, Keyword("INFO")).find("->Found 0 active log transfer(s)") != std::string::npos;
    }));
}

TEST(Listing, AnswersThatNobodyTakesAreNotKeptWithoutEnd)
{
    constexpr int Commands = 60, Askers = 20; // of 156 MB, 50 of which the system keeps
    DaemonUnderTest daemon;
    std::vector<Client> commands, askers;
    for (int i = 0; i < Commands; ++i) {
        commands.push_back(daemon.Connect());
        commands.back().Send(Launch("SOCKET", "echo; read line; : " + std::string(130'000, 'x')));
        commands.back().ReadUntil("\n\n");
    }
    for (int i = 0; i < Askers; ++i) {
        askers.push_back(daemon.Connect(4096));
        askers.back().Send(Keyword("INFO"));
        askers.back().ReadExactly(1);
    }
    EXPECT_NE(daemon.Process().Trace().find("Error too many answers are not taken : dropped"),
              std::string::npos);
    const std::string listing = Ask(daemon, Keyword("INFO"));
    EXPECT_GT(listing.size(), Commands * 130'000U);
    EXPECT_EQ(askers.back().ReadToEnd(), listing.substr(1)) << "the newest is kept";
    for (Client& command : commands) {
        command.Send("\n");
        EXPECT_EQ(command.ReadToEnd(), ReturnLine(0));
    }
}
