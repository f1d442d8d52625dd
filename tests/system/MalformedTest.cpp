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
    std::string request;
    std::string answer;
};

std::string AtIndex(std::string_view version, std::string_view rest)
{
    return std::string(version) + "|u|p|" + std::string(rest);
}

void ExpectAnswers(const std::vector<Refused>& wall)
{
    DaemonUnderTest daemon;
    for (const Refused& refused : wall)
        EXPECT_EQ(Ask(daemon, refused.request), refused.answer) << refused.request.substr(0, 200);
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo well")), Finished("well\n", 0));
    EXPECT_TRUE(daemon.LogFiles().empty());
}
} // namespace

TEST(Malformed, WhatIsNoRequest)
{
    using namespace std::string_literals;
    ExpectAnswers({
        {"\n", Empty},
        {"\r\n", Empty},
        {"\0"s, Empty},
        {"\r", NotRecognized},
        {"\n\n", NotRecognized},
        {"hello\n", NotRecognized},
        {"|", NotRecognized},
        {std::string(400, '|'), NotRecognized},
        {"|u|p|INFO", NotRecognized},
        {" RuvelControl V1.9|u|p|INFO", NotRecognized},
        {"ruvelcontrol V1.9|u|p|INFO", NotRecognized},
        {"RuvelControl 1.9|u|p|INFO", NotRecognized},
        {"Code|u|p|INFO", NotRecognized},
        {"CODE|u|p|ALLINFO", NotRecognized},
        {"CODE|ID|x", NotRecognized},
        {"CODE|u|p|true|YES", NotRecognized},
        {"CODE|u|p|true|TRUE|WINDOW", NotRecognized},
        {"CODE|u|p|true|SOCKET|WINDOW|INTERACTIVE", NotRecognized},
        {"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", NotRecognized},
        {"\xff\xfe\x01\x02\x7f", NotRecognized},
        {"hel\0lo"s, NotRecognized},
        {"%s%n%s%n|%d", NotRecognized},
    });
}

TEST(Malformed, WhatOnlyAnotherVersionKnows)
{
    ExpectAnswers({
        {"RuvelControl V", BadServer},
        {"RuvelControl V1.9", BadServer},
        {"RuvelControl V" + std::string(400, '|'), BadServer},
        {AtIndex("RuvelControl V2.0", "INFO"), BadServer},
        {AtIndex(Newest, "info"), BadServer},
        {AtIndex(Newest, "INFO "), BadServer},
        {AtIndex(Newest, "INFO|"), BadServer},
        {AtIndex(Newest, "INFO\n\n"), BadServer},
        {AtIndex(Newest, "CLOSE"), BadServer},
        {AtIndex(Newest, ""), BadServer},
        {AtIndex("RuvelControl V1.8.0", "ALLINFO"), BadServer},
        {"RuvelControl V1.8.0|ID|x", BadServer},
        {"RuvelControl V1.9|id|x", BadServer},
        {AtIndex("RuvelControl V1.0", "true|TRUE"), BadServer},
        {AtIndex(Newest, "true|TRUE"), BadServer},
        {AtIndex(Newest, "true|Socket|NOWINDOW"), BadServer},
        {AtIndex(Newest, "true|SOCKET|window"), BadServer},
        {AtIndex(Newest, "true|SOCKET|"), BadServer},
        {AtIndex("RuvelControl V1.6", "true|SOCKET|NOWINDOW|600"), BadServer},
        {AtIndex(Newest, "true|SOCKET|NOWINDOW|host|4000"), BadServer},
        {AtIndex("RuvelControl V1.8.0", "true|NOSOCKET|NOWINDOW|127.0.0.1|4000"), BadServer},
        {AtIndex(Newest, "true|NOSOCKET|NOWINDOW|INTERACTIVE|600"), BadServer},
        {AtIndex(Newest, "true|NOSOCKET|NOWINDOW|INTERACTIVE"), BadServer},
        {AtIndex("RuvelControl V1.6", "ksh|SOCKET|NOWINDOW|INTERACTIVE|600"), BadServer},
        {AtIndex("RuvelControl V1.5", "cmd|NOSOCKET|WINDOW|INTERACTIVE"), BadServer},
        {AtIndex("RuvelControl V1.5", "cmd|SOCKET|WINDOW|INTERACTIVE"), BadControl},
        {AtIndex("RuvelControl V1.0", "cmd|SOCKET|NOWINDOW|INTERACTIVE"), BadControl},
        {AtIndex("RuvelControl V1.6", "TRANSFERGET|BINARY|f|0"), BadServer},
        {AtIndex("RuvelControl V1.7", "TRANSFERUPDATEPUT|BINARY|f|0"), BadServer},
        {AtIndex("RuvelControl V1.8.0", "TRANSFERUPDATEGET|ASCII|f|0|1|2|3"), BadServer},
    });
}

TEST(Malformed, ArgumentsThatCannotBe)
{
    std::vector<Refused> wall;
    for (const std::string time : {"", "abc", "-1", "-5", " 5", "5 ", "5s", "1.5", "0x10", "--1", "+",
                                   "9223372036854775808", "99999999999999999999"}) {
        wall.push_back({AtIndex("RuvelControl V1.7", "true|SOCKET|NOWINDOW|" + time), BadParameters});
        wall.push_back({AtIndex(Newest, "true|NOSOCKET|WINDOW|" + time), BadParameters});
        wall.push_back({AtIndex(Newest, "ksh|SOCKET|NOWINDOW|INTERACTIVE|" + time), BadParameters});
        wall.push_back({AtIndex(Newest, "true|NOSOCKET|NOWINDOW|127.0.0.1|4000|" + time), BadParameters});
    }
    for (const std::string port : {"abc", "4000x", " 4000", "99999999999"})
        wall.push_back({AtIndex(Newest, "true|NOSOCKET|NOWINDOW|127.0.0.1|" + port), BadParameters});
    wall.push_back({AtIndex(Newest, "true|NOSOCKET|NOWINDOW||4000"), BadParameters});
    wall.push_back({AtIndex(Newest, "true|NOSOCKET|NOWINDOW||4000|600"), BadParameters});
    ExpectAnswers(wall);
}

TEST(Malformed, SomebodyElseIsNotTheOwner)
{
    const std::string refusal = "->Error not owner : " + OwnUser() + " : ";
    std::vector<Refused> wall;
    for (const std::string user : {"somebody", "", "root2", "X\\Y\\root"}) {
        const std::string launchRefused = BannerLine + refusal + user + "\n->ProcessReturnCode = NoThing\n";
        for (const std::string rest : {"SOCKET|NOWINDOW|0", "NOSOCKET|NOWINDOW|0", "SOCKET|NOWINDOW",
                                       "SOCKET|NOWINDOW|INTERACTIVE", "NOSOCKET|NOWINDOW|127.0.0.1|4000"}) {
            wall.push_back({Newest + ("|" + user) + "|p|true|" + rest, launchRefused});
        }
        wall.push_back({"CODE|" + user + "|p|true|TRUE", launchRefused});
        wall.push_back({Newest + ("|" + user) + "|p|Close", BannerLine + refusal + user + "\n"});
    }
    ExpectAnswers(wall);
}

TEST(Malformed, ACommandThatNoShellCanGetIsRefusedWithAReason)
{
    const std::string refusal = BannerLine + std::string("->Error command line ");
    const std::string tail = "\n->ProcessReturnCode = NoThing\n";
    std::vector<Refused> wall;
    for (const char* mode : {"SOCKET", "NOSOCKET"}) {
        wall.push_back({Launch(mode, ": " + std::string(131072, 'x')) + "\n",
                        refusal + "too long : 131074 bytes, at most 131071" + tail});
        wall.push_back({Launch(mode, std::string("echo a\0rm b", 11)), refusal + "holds a NUL" + tail});
    }
    ExpectAnswers(wall);
}
