#include <csignal>

#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"

namespace
{
const std::string Shutdown = "->RuvelServer shutdown, all log transfer(s) terminated, command(s) killed and "
                             "file transfer(s) terminated\n->ProcessReturnCode = ";
const std::string Closed = BannerLine + std::string("->RuvelServer closed\n");

/** How a daemon is asked to stop. */
enum class By { Close, Terminate, Interrupt };

/** `asking` is a client that has said nothing yet; its stream ends when the daemon does. */
void Stop(DaemonUnderTest& daemon, Client& asking, By how)
{
    if (how == By::Close) {
        asking.Send(Keyword("Close"));
        EXPECT_EQ(asking.ReadExactly(Closed.size()), Closed);
    } else {
        daemon.Process().Signal(how == By::Terminate ? SIGTERM : SIGINT);
    }
}
} // namespace

class ShutdownBy : public testing::TestWithParam<By>
{
};

std::string NameOf(const testing::TestParamInfo<By>& way)
{
    switch (way.param) {
    case By::Close:
        return "Close";
    case By::Terminate:
        return "Terminate";
    default:
        return "Interrupt";
    }
}

INSTANTIATE_TEST_SUITE_P(Shutdown, ShutdownBy, testing::Values(By::Close, By::Terminate, By::Interrupt),
                         NameOf);

TEST_P(ShutdownBy, AnIdleDaemonEndsWithSuccess)
{
    DaemonUnderTest daemon;
    Client asking = daemon.Connect();
    Stop(daemon, asking, GetParam());
    asking.ExpectDropped();
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
}

TEST_P(ShutdownBy, EveryClientIsToldAndEveryCommandEnds)
{
    DaemonUnderTest daemon;
    Collector collector(daemon.Conversation());
    Client attached = daemon.Connect(), detached = daemon.Connect(), asking = daemon.Connect();
    const std::string command = "echo begun; exec sleep 1000";
    attached.Send(Launch("SOCKET", command));
    EXPECT_EQ(attached.ReadUntil("begun\n"), BannerLine + std::string("begun\n"));
    detached.Send(Launch("NOSOCKET", "trap 'exit 6' TERM; sh -c 'echo begun; exec sleep 1000' & wait"));
    const std::string answer = Ask(daemon, PassiveLaunch(command, collector.Port()));
    // All have begun before the end is asked for.
    ASSERT_TRUE(WaitUntil([&] {
        size_t begun = 0;
        for (const std::string& name : daemon.LogFiles())
            begun += ReadFile(daemon.LogDirectory() + "/" + name) == "begun\n";
        return begun == 2;
    }));
    Stop(daemon, asking, GetParam());
    EXPECT_EQ(attached.ReadToEnd(), Shutdown + "143\n");
    EXPECT_EQ(detached.ReadToEnd(), BannerLine + Shutdown + "6\n");
    EXPECT_EQ("ID|" + collector.Accept().ReadToEnd(), answer + BannerLine + Shutdown + "143\n");
    asking.ExpectDropped();
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
}

TEST(Shutdown, ALogOnItsWayIsDeliveredToItsEnd)
{
    DaemonUnderTest daemon;
    Client reading = daemon.Connect();
    reading.Send(Launch("NOSOCKET", "seq 1 2000000; exit 8"));
    reading.ReadUntil(BannerLine);
    // The answer comes at once, its end only when all is delivered.
    Client closing = daemon.Connect();
    Stop(daemon, closing, By::Close);
    EXPECT_TRUE(reading.ReadToEnd().ends_with("\n2000000\n" + ReturnLine(8)));
    EXPECT_EQ(closing.ReadToEnd(), "");
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
}

TEST(Shutdown, NobodyIsServedAfterIt)
{
    DaemonUnderTest daemon;
    // A shell of its own tells: a child that has not yet left its parent's traps would swallow the signal.
    Client stubborn = daemon.Connect();
    stubborn.Send(Launch(
        "SOCKET", "trap 'echo asked; read line; exit 2' TERM; sh -c 'echo up; exec sleep 1000' & wait"));
    stubborn.ReadUntil("up\n");
    EXPECT_EQ(daemon.LogFiles().size(), 0u);
    daemon.Process().Signal(SIGTERM);
    stubborn.ReadUntil("asked\n");
    EXPECT_THROW(daemon.Connect(), std::runtime_error);
    stubborn.Send("\n");
    EXPECT_EQ(stubborn.ReadToEnd(), Shutdown + "2\n");
}

TEST(Shutdown, ADaemonCanStartWhereOneHasJustEnded)
{
    DaemonUnderTest daemon;
    Client client = daemon.Connect();
    client.Send(Launch("SOCKET", "sleep 1000"));
    client.ReadUntil(BannerLine);
    daemon.Process().Signal(SIGTERM);
    EXPECT_EQ(client.ReadToEnd(), Shutdown + "143\n");
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
    const TestDirectory directory;
    ServerProcess next(directory.Path(), {"-noinstall", "-nocheck", "-port", std::to_string(daemon.Port()),
                                          "-logdirectory", directory.Path()});
    EXPECT_TRUE(next.WaitForTrace("(successfull)\n")) << next.Trace();
    next.Signal(SIGTERM);
    EXPECT_EQ(next.WaitForEnd(), 0);
}
