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

/** A daemon that has nothing to end, and one that has. */
void ExpectEveryClientToldBy(By how)
{
    {
        DaemonUnderTest idle;
        Client asking = idle.Connect();
        Stop(idle, asking, how);
        asking.ExpectDropped();
        EXPECT_EQ(idle.Process().WaitForEnd(), 0);
    }
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
    Stop(daemon, asking, how);
    EXPECT_EQ(attached.ReadToEnd(), Shutdown + "143\n");
    EXPECT_EQ(detached.ReadToEnd(), BannerLine + Shutdown + "6\n");
    EXPECT_EQ("ID|" + collector.Accept().ReadToEnd(), answer + BannerLine + Shutdown + "143\n");
    asking.ExpectDropped();
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
}
} // namespace

TEST(Shutdown, EveryClientIsToldAndEveryCommandEndsInEveryWay)
{
    for (const By how : {By::Close, By::Terminate, By::Interrupt})
        ExpectEveryClientToldBy(how);
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
