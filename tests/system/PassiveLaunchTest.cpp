#include <map>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"

using testing::MatchesRegex;

namespace
{
/** Sends a passive launch and returns the identifier from its answer. */
std::string LaunchToCollector(DaemonUnderTest& daemon, const std::string& request)
{
    const std::string answer = Ask(daemon, request);
    EXPECT_TRUE(answer.starts_with("ID|")) << answer;
    return answer.substr(std::min<size_t>(3, answer.size()));
}

std::string AskForState(DaemonUnderTest& daemon, const std::string& identifier)
{
    return Ask(daemon, Join({Newest, "ID", identifier}));
}
} // namespace

TEST(PassiveLaunch, TheLogGoesToTheCollectorBehindTheIdentifier)
{
    DaemonUnderTest daemon;
    const std::string command = "echo out; echo err >&2; exit 3";
    const std::string head = Join({"RuvelControl V1.8.1", OwnUser(), "", command, "NOSOCKET", "WINDOW"});
    int number = 0;
    for (const std::string lifeTimeOut : {"", "|600"}) {
        Collector collector(daemon.Conversation());
        const std::string to = "|127.0.0.1|" + std::to_string(collector.Port());
        const std::string identifier = LaunchToCollector(daemon, head + to + lifeTimeOut);
        EXPECT_THAT(identifier,
                    MatchesRegex("HOST\\(" + daemon.Address() + "\\), PORT\\(" +
                                 std::to_string(daemon.Port()) + "\\), N\\(" + std::to_string(number++) +
                                 "\\), UID\\(" + OwnUser() + "\\), BDATE\\(....-..-.. ..:..:..\\)"));
        Client log = collector.Accept();
        EXPECT_EQ(log.PeerPort(), daemon.Port() - 1);
        EXPECT_EQ(log.ReadToEnd(), identifier + Finished("out\nerr\n", 3));
        EXPECT_TRUE(WaitUntil([&] { return AskForState(daemon, identifier) == "NOTFOUND"; }));
        EXPECT_TRUE(daemon.LogFiles().empty());
    }
}

TEST(PassiveLaunch, TheStateIsTheBareWord)
{
    DaemonUnderTest daemon;
    Collector collector(daemon.Conversation());
    const std::string gate = daemon.LogDirectory() + "/../gate";
    const std::string identifier = LaunchToCollector(
        daemon,
        PassiveLaunch("until [ -e " + gate + " ]; do sleep 0.01; done; seq 1 2000000", collector.Port()));
    EXPECT_EQ(AskForState(daemon, identifier), "RUNNING");
    for (const std::string& unknown :
         {std::string(), identifier + " ", identifier.substr(1), std::string("x")})
        EXPECT_EQ(AskForState(daemon, unknown), "NOTFOUND");
    Ask(daemon, Launch("SOCKET", "touch " + gate));
    Client log = collector.Accept();
    // The command has ended; its log is on the way and fills the collector's buffers.
    EXPECT_EQ(log.ReadExactly(identifier.size()), identifier);
    EXPECT_EQ(AskForState(daemon, identifier), "RUNNING");
    EXPECT_TRUE(log.ReadToEnd().ends_with("\n2000000\n" + ReturnLine(0)));
    EXPECT_TRUE(WaitUntil([&] { return AskForState(daemon, identifier) == "NOTFOUND"; }));
}

TEST(PassiveLaunch, FiftyLogsReachOneCollectorAtOnce)
{
    DaemonUnderTest daemon;
    Collector collector(daemon.Conversation());
    std::map<std::string, std::string> expected;
    for (int number = 0; number < 50; ++number) {
        const std::string text = "log " + std::to_string(number);
        const std::string identifier = LaunchToCollector(
            daemon, PassiveLaunch("echo " + text + "; exit " + std::to_string(number), collector.Port()));
        expected[identifier] = identifier + Finished(text + "\n", number);
    }
    ASSERT_EQ(expected.size(), 50u);
    // None is read before all are open.
    std::vector<Client> logs;
    for (size_t i = 0; i < expected.size(); ++i)
        logs.push_back(collector.Accept());
    for (Client& log : logs) {
        const std::string text = log.ReadToEnd();
        const std::string identifier = text.substr(0, text.find("->"));
        EXPECT_EQ(text, expected[identifier]);
        expected.erase(identifier);
    }
    EXPECT_TRUE(expected.empty());
}

/** The data port is not to be had: another one does. */
TEST(PassiveLaunch, ATakenDataPortKeepsNoLogBack)
{
    DaemonUnderTest daemon;
    const BusyPort busy(daemon.Port() - 1);
    ASSERT_TRUE(busy.IsHeld());
    Collector collector(daemon.Conversation());
    const std::string identifier = LaunchToCollector(daemon, PassiveLaunch("echo out", collector.Port()));
    Client log = collector.Accept();
    EXPECT_NE(log.PeerPort(), daemon.Port() - 1);
    EXPECT_EQ(log.ReadToEnd(), identifier + Finished("out\n", 0));
}

TEST(PassiveLaunch, ACollectorThatSendsLosesNothingAndOneThatResetsIsNotTriedAgain)
{
    DaemonUnderTest daemon;
    Collector collector(daemon.Conversation());
    const std::string request = PassiveLaunch("seq 1 500000", collector.Port());
    std::string identifier = LaunchToCollector(daemon, request);
    Client sending = collector.Accept();
    sending.Send(std::string(5000, 'x'));
    EXPECT_TRUE(sending.ReadToEnd().ends_with("\n500000\n" + ReturnLine(0)));
    identifier = LaunchToCollector(daemon, request);
    collector.Accept().Reset();
    EXPECT_TRUE(WaitUntil([&] { return AskForState(daemon, identifier) == "NOTFOUND"; }));
    EXPECT_FALSE(collector.HasArrived());
}
