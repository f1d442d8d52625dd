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

TEST(Supervision, WhatIgnoresItsTerminationIsKilledAfterItsLimitAndDelaysNobody)
{
    DaemonUnderTest daemon({.shortLadders = true});
    Client stubborn = daemon.Connect(), parted = daemon.Connect();
    // One whose shell stays, and one whose shell goes at once and leaves members that do not.
    stubborn.Send(Launch("SOCKET",
                         "trap '' TERM; setsid sh -c 'while :; do sleep 1; done' & "
                         "echo up; while :; do sleep 1; done",
                         "1"));
    parted.Send(Launch(
        "SOCKET", "(trap '' TERM; setsid sh -c 'while :; do sleep 1; done' & ) ; echo up; exec sleep 1000",
        "1"));
    EXPECT_EQ(stubborn.ReadUntil("up\n"), BannerLine + std::string("up\n"));
    EXPECT_EQ(parted.ReadUntil("up\n"), BannerLine + std::string("up\n"));
    EXPECT_EQ(parted.ReadToEnd(), Expired + ReturnLine(143));
    EXPECT_FALSE(daemon.Descendants().empty());
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "exit 3")), Finished("", 3));
    EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty(); }));
    EXPECT_EQ(stubborn.ReadToEnd(), Expired + ReturnLine(137));
    EXPECT_TRUE(WaitUntil([&] { return FindZombiesOf(daemon.Process().Id()).empty(); }));
}
