#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"

// The wall: every line is a request that is not served, and the whole answer that it gets. All of them go to
// one daemon, which at the end serves a sound request as if nothing had been.

namespace
{
const std::string NotRecognized = BannerLine + std::string("->Error message not recognized\n");
const std::string BadServer =
    BannerLine + std::string("->Bad version of RuvelServer, please install a newer version\n");
const std::string BadControl =
    BannerLine + std::string("->Bad version of RuvelControl, please install a newer version\n");
const std::string Empty = BannerLine + std::string("->Error message is empty\n");

struct Refused {
    std::string answer;
    std::vector<std::string> requests;
};

std::string AtIndex(std::string_view version, std::string_view rest)
{
    return std::string(version) + "|u|p|" + std::string(rest);
}

void ExpectAnswers(const std::vector<Refused>& wall)
{
    DaemonUnderTest daemon;
    for (const Refused& refused : wall)
        for (const std::string& request : refused.requests)
            EXPECT_EQ(Ask(daemon, request), refused.answer) << request.substr(0, 200);
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo well")), Finished("well\n", 0));
    EXPECT_TRUE(daemon.LogFiles().empty());
}
} // namespace

TEST(Malformed, WhatIsNoRequest)
{
    using namespace std::string_literals;
    ExpectAnswers(
        {{Empty, {"\n", "\r\n", "\0"s}},
         {NotRecognized,
          {"\r", "\n\n", "hello\n", "|", std::string(400, '|'), "|u|p|INFO", " RuvelControl V1.9|u|p|INFO",
           "ruvelcontrol V1.9|u|p|INFO", "RuvelControl 1.9|u|p|INFO", "Code|u|p|INFO", "CODE|u|p|ALLINFO",
           "CODE|ID|x", "CODE|u|p|true|YES", "CODE|u|p|true|TRUE|WINDOW",
           "CODE|u|p|true|SOCKET|WINDOW|INTERACTIVE", "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
           "\xff\xfe\x01\x02\x7f", "hel\0lo"s, "%s%n%s%n|%d"}}});
}

TEST(Malformed, WhatOnlyAnotherVersionKnows)
{
    ExpectAnswers({{BadServer,
                    {"RuvelControl V",
                     "RuvelControl V1.9",
                     "RuvelControl V" + std::string(400, '|'),
                     AtIndex("RuvelControl V2.0", "INFO"),
                     AtIndex(Newest, "info"),
                     AtIndex(Newest, "INFO "),
                     AtIndex(Newest, "INFO|"),
                     AtIndex(Newest, "INFO\n\n"),
                     AtIndex(Newest, "CLOSE"),
                     AtIndex(Newest, ""),
                     AtIndex("RuvelControl V1.8.0", "ALLINFO"),
                     "RuvelControl V1.8.0|ID|x",
                     "RuvelControl V1.9|id|x",
                     AtIndex("RuvelControl V1.0", "true|TRUE"),
                     AtIndex(Newest, "true|TRUE"),
                     AtIndex(Newest, "true|Socket|NOWINDOW"),
                     AtIndex(Newest, "true|SOCKET|window"),
                     AtIndex(Newest, "true|SOCKET|"),
                     AtIndex("RuvelControl V1.6", "true|SOCKET|NOWINDOW|600"),
                     AtIndex(Newest, "true|SOCKET|NOWINDOW|host|4000"),
                     AtIndex("RuvelControl V1.8.0", "true|NOSOCKET|NOWINDOW|127.0.0.1|4000"),
                     AtIndex(Newest, "true|NOSOCKET|NOWINDOW|INTERACTIVE|600"),
                     AtIndex(Newest, "true|NOSOCKET|NOWINDOW|INTERACTIVE"),
                     AtIndex("RuvelControl V1.6", "ksh|SOCKET|NOWINDOW|INTERACTIVE|600"),
                     AtIndex("RuvelControl V1.5", "cmd|NOSOCKET|WINDOW|INTERACTIVE"),
                     AtIndex("RuvelControl V1.6", "TRANSFERGET|BINARY|f|0"),
                     AtIndex("RuvelControl V1.7", "TRANSFERUPDATEPUT|BINARY|f|0"),
                     AtIndex("RuvelControl V1.8.0", "TRANSFERUPDATEGET|ASCII|f|0|1|2|3")}},
                   {BadControl,
                    {AtIndex("RuvelControl V1.5", "cmd|SOCKET|WINDOW|INTERACTIVE"),
                     AtIndex("RuvelControl V1.0", "cmd|SOCKET|NOWINDOW|INTERACTIVE")}}});
}

TEST(Malformed, ArgumentsThatCannotBe)
{
    Refused wall{BadParameters, {}};
    const std::string passive = AtIndex(Newest, "true|NOSOCKET|NOWINDOW|");
    for (const std::string time : {"", "abc", "-1", "-5", " 5", "5 ", "5s", "1.5", "0x10", "--1", "+",
                                   "9223372036854775808", "99999999999999999999"})
        for (const std::string& head :
             {AtIndex("RuvelControl V1.7", "true|SOCKET|NOWINDOW|"), AtIndex(Newest, "true|NOSOCKET|WINDOW|"),
              AtIndex(Newest, "ksh|SOCKET|NOWINDOW|INTERACTIVE|"), passive + "127.0.0.1|4000|"})
            wall.requests.push_back(head + time);
    for (const std::string to : {"127.0.0.1|abc", "127.0.0.1|4000x", "127.0.0.1| 4000",
                                 "127.0.0.1|99999999999", "|4000", "|4000|600"})
        wall.requests.push_back(passive + to);
    ExpectAnswers({wall});
}

TEST(Malformed, SomebodyElseIsNotTheOwner)
{
    std::vector<Refused> wall;
    for (const std::string user : {"somebody", "", "root2", "X\\Y\\root"}) {
        const std::string refusal = BannerLine + ("->Error not owner : " + OwnUser()) + " : " + user + "\n";
        const std::string head = Newest + ("|" + user) + "|p|";
        wall.push_back({refusal + "->ProcessReturnCode = NoThing\n",
                        {head + "true|SOCKET|NOWINDOW|0", head + "true|NOSOCKET|NOWINDOW|0",
                         head + "true|SOCKET|NOWINDOW", head + "true|SOCKET|NOWINDOW|INTERACTIVE",
                         head + "true|NOSOCKET|NOWINDOW|127.0.0.1|4000", "CODE|" + user + "|p|true|TRUE"}});
        wall.push_back({refusal, {head + "Close"}});
    }
    ExpectAnswers(wall);
}

TEST(Malformed, ACommandThatNoShellCanGetIsRefusedWithAReason)
{
    const std::string refusal = BannerLine + std::string("->Error command line ");
    const std::string tail = "\n->ProcessReturnCode = NoThing\n";
    for (const char* mode : {"SOCKET", "NOSOCKET"})
        ExpectAnswers({{refusal + "too long : 131074 bytes, at most 131071" + tail,
                        {Launch(mode, ": " + std::string(131072, 'x')) + "\n"}},
                       {refusal + "holds a NUL" + tail, {Launch(mode, std::string("echo a\0rm b", 11))}}});
}
