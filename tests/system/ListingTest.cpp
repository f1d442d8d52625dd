#include <regex>

#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"

namespace
{
/** The listing, with a fixed word for well-formed dates and for the figures of a well-formed status. */
std::string AskForListing(DaemonUnderTest& daemon)
{
    static const std::regex date("BDATE\\([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\)");
    static const std::regex status("sent [0-9]+ byte\\(s\\) in [0-9]+\\.[0-9]{3} s \\([^\n)]+\\)");
    return std::regex_replace(std::regex_replace(Ask(daemon, Keyword("INFO")), date, "BDATE(#)"), status,
                              "#");
}

/** The listing with these lines under its headings. */
std::string Listing(int launched, int logs, const std::string& log, int commands, const std::string& command)
{
    return BannerLine + ("->" + std::to_string(launched)) +
           " launched command(s) and file transfer(s) since beginning\n->Found " + std::to_string(logs) +
           " active log transfer(s)\n" + log + "->Found " + std::to_string(commands) +
           " active command(s)\n" + command + "->Found 0 active file transfer(s)\n";
}
} // namespace

TEST(Listing, CommandsAreListedAsTheyWereSentUntilTheyEnd)
{
    DaemonUnderTest daemon;
    Client first = daemon.Connect(), second = daemon.Connect();
    const std::string longTail = "; : " + std::string(6000, 'y');
    std::string lines;
    for (Client* const client : {&first, &second}) {
        const bool isFirst = client == &first;
        const std::string user = (isFirst ? "Domain\\" : "") + OwnUser();
        const std::string command = "echo $$; read line" + (isFirst ? "" : longTail);
        client->Send(Join({Newest, user, "secret", command, "SOCKET", "NOWINDOW", "0\n"}));
        client->ReadUntil(BannerLine);
        std::string process = client->ReadUntil("\n");
        process.pop_back();
        lines += (isFirst ? "->N(0), PID(" : "->N(1), PID(") + process + "), UID(" + user +
                 "), BDATE(#), CMD(" + command + ")\n";
    }
    EXPECT_EQ(AskForListing(daemon), Listing(2, 0, "", 2, lines));
    for (Client* const client : {&first, &second}) {
        client->Send("\n");
        EXPECT_EQ(client->ReadToEnd(), ReturnLine(0));
    }
    EXPECT_EQ(AskForListing(daemon), Listing(2, 0, "", 0, ""));
}

TEST(Listing, ALogOnItsWayIsListedWithItsReturnCodeAndStatus)
{
    DaemonUnderTest daemon;
    Client slow = daemon.Connect();
    const std::string command = "echo $$; seq 1 3000000; exit 7";
    slow.Send(Launch("NOSOCKET", command));
    slow.ReadUntil(BannerLine);
    std::string process = slow.ReadUntil("\n");
    process.pop_back();
    // The status comes with the first block that the worker has sent.
    EXPECT_TRUE(
        WaitUntil([&] { return Ask(daemon, Keyword("INFO")).find("STATUS(sent ") != std::string::npos; }));
    EXPECT_EQ(AskForListing(daemon), Listing(1, 1,
                                             "->N(0), PID(" + process + "), UID(" + OwnUser() +
                                                 "), BDATE(#), CMD(" + command + "), RC(7), STATUS(#)\n",
                                             0, ""));
    std::string expected;
    for (int number = 1; number <= 3000000; ++number)
        expected += std::to_string(number) + "\n";
    EXPECT_TRUE(slow.ReadToEnd() == expected + ReturnLine(7));
    EXPECT_TRUE(WaitUntil([&] { return AskForListing(daemon) == Listing(1, 0, "", 0, ""); }));
}
