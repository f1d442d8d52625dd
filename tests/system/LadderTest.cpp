#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"
#include "tests/system/SystemFacts.h"

TEST(Ladder, WhatIgnoresItsTerminationIsKilledAfterItsLimitAndDelaysNobody)
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
    const std::string expired = "->Command killed due to expired life timeout\n";
    EXPECT_EQ(parted.ReadToEnd(), expired + ReturnLine(143));
    EXPECT_FALSE(daemon.Descendants().empty());
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "exit 3")), Finished("", 3));
    EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty(); }));
    EXPECT_EQ(stubborn.ReadToEnd(), expired + ReturnLine(137));
    EXPECT_TRUE(FindZombiesOf(daemon.Process().Id()).empty());
}
