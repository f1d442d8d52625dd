#include <csignal>
#include <memory>

#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"
#include "tests/system/SystemFacts.h"

namespace
{
constexpr const char* Expired = "->Command killed due to expired life timeout\n";
} // namespace

TEST(Supervision, AnExpiredCommandIsReportedInEveryMode)
{
    DaemonUnderTest daemon;
    const std::string ended = Expired + ReturnLine(143);
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo begun; exec sleep 1000", "1")),
              BannerLine + ("begun\n" + ended));
    // The log is not delivered in this case, and goes.
    EXPECT_EQ(Ask(daemon, Launch("NOSOCKET", "echo begun; exec sleep 1000", "1")), BannerLine + ended);
    EXPECT_EQ(
        Ask(daemon, Join({"RuvelControl V1.7", OwnUser(), "", "", "SOCKET", "WINDOW", "INTERACTIVE", "1"})),
        BannerLine + ended);
    Collector collector(daemon.Conversation());
    const std::string answer =
        Ask(daemon, PassiveLaunch("echo begun; exec sleep 1000", collector.Port(), "1"));
    EXPECT_EQ("ID|" + collector.Accept().ReadToEnd(), answer + BannerLine + ended);
}

TEST(Supervision, OnlyTheExpiredOneEnds)
{
    DaemonUnderTest daemon;
    Client unlimited = daemon.Connect(), longer = daemon.Connect();
    unlimited.Send(Launch("SOCKET", "read line; echo $line; exit 1", "0"));
    longer.Send(Launch("SOCKET", "read line; echo $line; exit 2", "1000"));
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "exit 3", "1")), Finished("", 3));
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "trap 'exit 9' TERM; sleep 1000 & wait", "1")),
              BannerLine + (Expired + ReturnLine(9)));
    unlimited.Send("still\n");
    longer.Send("here\n");
    EXPECT_EQ(unlimited.ReadToEnd(), Finished("still\n", 1));
    EXPECT_EQ(longer.ReadToEnd(), Finished("here\n", 2));
}

TEST(Supervision, AClientThatVanishesDoesNotStopSupervision)
{
    DaemonUnderTest daemon;
    Client writing = daemon.Connect(), waiting = daemon.Connect(), logging = daemon.Connect();
    writing.Send(Launch("SOCKET", "exec yes"));
    waiting.Send(Launch("SOCKET", "exec sleep 1000", "2"));
    logging.Send(Launch("NOSOCKET", "sleep 0.2; seq 1 100000"));
    writing.ReadExactly(1000000);
    EXPECT_EQ(waiting.ReadUntil("\n"), BannerLine);
    writing.Reset();
    waiting.Reset();
    logging.Reset();
    EXPECT_TRUE(WaitUntil([&] {
        return Ask(daemon, Keyword("INFO"))
            .ends_with("->Found 0 active log transfer(s)\n"
                       "->Found 0 active command(s)\n->Found 0 active file transfer(s)\n");
    }));
    EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty() && daemon.LogFiles().empty(); }));
}

TEST(Supervision, CommandsWhoseClientsDoNotReadDelayNobody)
{
    DaemonUnderTest daemon;
    std::vector<std::unique_ptr<Client>> idle;
    for (int i = 0; i < 5; ++i) {
        idle.push_back(std::make_unique<Client>(daemon.Port(), daemon.Conversation(), 4096));
        idle.back()->Send(Launch("SOCKET", "exec yes"));
        idle.push_back(std::make_unique<Client>(daemon.Port(), daemon.Conversation(), 4096));
        idle.back()->Send(Launch("NOSOCKET", "seq 1 2000000"));
    }
    for (const std::unique_ptr<Client>& client : idle)
        client->ReadUntil(BannerLine);
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "exit 3")), Finished("", 3));
    EXPECT_EQ(Ask(daemon, Launch("NOSOCKET", "exit 4")), Finished("", 4));
    for (const std::unique_ptr<Client>& client : idle)
        client->Reset();
}
