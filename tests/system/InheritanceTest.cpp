#include <gtest/gtest.h>

#include "tests/system/Inheritance.h"

TEST(Inheritance, ACommandOfTheOwnUserHasAllOfTheDaemonsThatIsTheUsersAndNothingElse)
{
    TakeOddSurroundings();
    DaemonUnderTest daemon;
    // Others hold connections and a log meanwhile.
    Client silent = daemon.Connect();
    Client attached = daemon.Connect();
    attached.Send(Launch("SOCKET", "echo up; cat"));
    attached.ReadUntil("up\n");
    Client detached = daemon.Connect();
    detached.Send(Launch("NOSOCKET", "sleep 1000"));
    for (const char* mode : {"SOCKET", "NOSOCKET"})
        EXPECT_EQ(Blur(Ask(daemon, Launch(mode, TellInheritance(daemon)))),
                  ExpectInheritance(daemon, ExpectOwnUser(daemon), mode));
}
