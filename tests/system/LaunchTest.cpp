#include <algorithm>
#include <csignal>
#include <fstream>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/DaemonUnderTest.h"
#include "tests/system/SystemFacts.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace
{
constexpr const char* LimitMarker = "\n->Error maximum size of log command file reached (10M)\n";

/** `version|user|password|rest` for the tests' own user. */
std::string As(std::string_view version, std::string_view rest)
{
    return std::string(version) + "|" + OwnUser() + "||" + std::string(rest);
}

std::string NumbersUpTo(int last)
{
    std::string lines;
    for (int number = 1; number <= last; ++number)
        lines += std::to_string(number) + "\n";
    return lines;
}
} // namespace

TEST(Launch, EveryFormGivesBannerOutputAndReturnLine)
{
    DaemonUnderTest daemon;
    const std::string command = "echo out; echo err >&2; exit 3";
    for (const std::string& request : {
             As("CODE", command + "|TRUE"),
             As("CODE", command + "|FALSE"),
             As("CODE", command + "|SOCKET|WINDOW"),
             As("CODE", command + "|NOSOCKET|NOWINDOW"),
             As("RuvelControl V1.0", command + "|SOCKET|NOWINDOW"),
             As("RuvelControl V1.6", command + "|NOSOCKET|NOWINDOW"),
             As("RuvelControl V1.7", command + "|SOCKET|NOWINDOW|600"),
             As("RuvelControl V1.7", command + "|NOSOCKET|WINDOW|0"),
             As("RuvelControl V1.8.2", command + "|NOSOCKET|NOWINDOW|+600"),
             As("RuvelControl V1.9.5", command + "|SOCKET|WINDOW|9223372036854775807"),
             As("RuvelControl V1.9", command + "|NOSOCKET|NOWINDOW|9223372036854775807"),
             Join({Newest, "DOMAIN\\" + OwnUser(), "", command, "SOCKET", "NOWINDOW", "0"}),
             Join({Newest, OwnUser(), "", command, "SOCKET", "NOWINDOW", "0\r\n"}),
         }) {
        EXPECT_EQ(Ask(daemon, request), Finished("out\nerr\n", 3)) << request;
    }
    // A command of that name, not a request to kill: the older form is tried first.
    const std::string answer = Ask(daemon, As("CODE", "KILL|TRUE"));
    EXPECT_THAT(answer, HasSubstr(": KILL: ")); // what the shell complains of depends on the folders of PATH
    EXPECT_THAT(answer, EndsWith("\n" + ReturnLine(127)));
}

TEST(Launch, EveryReturnCodeArrives)
{
    DaemonUnderTest daemon;
    struct Expected {
        std::string command;
        int code;
    };
    std::vector<Expected> table;
    for (int code = 0; code <= 255; ++code)
        table.push_back({"exit " + std::to_string(code), code});
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGKILL, SIGSEGV, SIGPIPE, SIGTERM, SIGUSR1})
        table.push_back({"ulimit -c 0; kill -" + std::to_string(number) + " $$", 128 + number});
    table.push_back({"/nowhere/at/all 2>/dev/null", 127});
    table.push_back({"/dev/null 2>/dev/null", 126});
    // Many at once, in both modes, so that a code given to the wrong client shows.
    constexpr size_t AtOnce = 40;
    for (size_t first = 0; first < table.size(); first += AtOnce) {
        std::vector<std::unique_ptr<Client>> clients;
        for (size_t i = first; i < std::min(first + AtOnce, table.size()); ++i) {
            clients.push_back(std::make_unique<Client>(daemon.Port(), daemon.Conversation()));
            clients.back()->Send(Launch(i % 2 ? "SOCKET" : "NOSOCKET", table[i].command));
        }
        for (size_t i = 0; i < clients.size(); ++i) {
            const Expected& expected = table[first + i];
            EXPECT_EQ(clients[i]->ReadToEnd(), Finished("", expected.code)) << expected.command;
        }
    }
}

TEST(Launch, OutputIsLiveAndInputIsTheSocket)
{
    DaemonUnderTest daemon;
    Client client = daemon.Connect();
    client.Send(Launch("SOCKET", "echo ready; cat; exit 4"));
    EXPECT_EQ(client.ReadUntil("ready\n"), BannerLine + std::string("ready\n"));
    EXPECT_TRUE(daemon.LogFiles().empty());
    client.Send("over and ");
    EXPECT_EQ(client.ReadExactly(9), "over and ");
    client.Send("out");
    client.HalfClose();
    EXPECT_EQ(client.ReadToEnd(), "out" + ReturnLine(4));
}

TEST(Launch, InputThatNobodyReadsCostsNoOutput)
{
    DaemonUnderTest daemon;
    Client client = daemon.Connect();
    client.Send(Launch("SOCKET", "read first; echo $first; seq 1 200000"));
    EXPECT_EQ(client.ReadUntil("\n"), BannerLine);
    client.Send("mine\nunread\n");
    EXPECT_EQ(client.ReadToEnd(), "mine\n" + NumbersUpTo(200000) + ReturnLine(0));
}

TEST(Launch, TheStreamEndsWithTheCommandThoughItsBackgroundLives)
{
    DaemonUnderTest daemon;
    Client client = daemon.Connect();
    client.Send(Launch("SOCKET", "sleep 1000 & echo $!; exit 5"));
    EXPECT_EQ(client.ReadUntil("\n"), BannerLine);
    const pid_t sleeper = std::stoi(client.ReadUntil("\n"));
    EXPECT_EQ(client.ReadToEnd(), ReturnLine(5));
    EXPECT_TRUE(IsAlive(sleeper));
    kill(sleeper, SIGKILL);
    // The daemon has become its parent and must not keep it as a zombie.
    EXPECT_TRUE(WaitUntil([&] { return access(("/proc/" + std::to_string(sleeper)).c_str(), F_OK) != 0; }));
}

TEST(Launch, ALogGoesToAPrivateFileThatIsGoneAfterwards)
{
    DaemonUnderTest daemon;
    const std::string pattern = daemon.LogDirectory() + "/[0-9]+-[0-9]+-0-RuvelServer\\.log";
    Client client = daemon.Connect();
    const std::string gate = daemon.LogDirectory() + "/../gate";
    client.Send(Launch("NOSOCKET", "readlink /proc/self/fd/1; cat; until [ -e " + gate +
                                       " ]; do sleep 0.01; done; seq 1 100000; exit 9"));
    ASSERT_TRUE(WaitUntil([&] { return daemon.LogFiles().size() == 1; }));
    struct stat facts {
    };
    ASSERT_EQ(stat((daemon.LogDirectory() + "/" + daemon.LogFiles()[0]).c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode, S_IFREG | 0600u);
    EXPECT_EQ(facts.st_uid, geteuid());
    // Nothing is sent before the end, the banner included.
    std::ofstream{gate}.put('x');
    EXPECT_EQ(client.ReadUntil("\n"), BannerLine);
    std::string name = client.ReadUntil("\n");
    name.pop_back();
    EXPECT_THAT(name, MatchesRegex(pattern));
    EXPECT_EQ(client.ReadToEnd(), NumbersUpTo(100000) + ReturnLine(9));
    EXPECT_TRUE(WaitUntil([&] { return daemon.LogFiles().empty(); }));
}

TEST(Launch, OldClientsGetTheirLogInOneBufferUpToItsLimit)
{
    DaemonUnderTest daemon;
    const std::string whole(10240000, '\0');
    const std::vector<std::string> old = {
        As("CODE", "head -c LENGTH /dev/zero; exit 2|FALSE"),
        As("RuvelControl V1.6", "head -c LENGTH /dev/zero; exit 2|NOSOCKET|NOWINDOW")};
    const auto ask = [&](std::string request, const std::string& length) {
        return Ask(daemon, request.replace(request.find("LENGTH"), 6, length));
    };
    for (const std::string& request : old) {
        EXPECT_TRUE(ask(request, "10240000") == Finished(whole, 2));
        EXPECT_TRUE(ask(request, "10240001") == Finished(whole + LimitMarker, 2));
    }
    // The two that were cut are kept for their user, whole.
    EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty(); }));
    EXPECT_EQ(daemon.LogFiles().size(), 2u);
    for (const std::string& name : daemon.LogFiles()) {
        EXPECT_EQ(ReadFile(daemon.LogDirectory() + "/" + name).size(), 10240001u);
        unlink((daemon.LogDirectory() + "/" + name).c_str());
    }
    EXPECT_TRUE(ask(As("RuvelControl V1.7", "head -c LENGTH /dev/zero; exit 2|NOSOCKET|NOWINDOW"),
                    "10240001") == Finished(whole + '\0', 2));
}

TEST(Launch, TheLongestCommandThatAShellCanGetRuns)
{
    DaemonUnderTest daemon;
    const std::string start = "echo long; : ";
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", start + std::string(131071 - start.size(), 'x')) + "\n"),
              Finished("long\n", 0));
}

TEST(Launch, ACrowdOfClientsMakesNoDifference)
{
    DaemonUnderTest daemon;
    // From some hundreds on children get their descriptors in another way.
    std::vector<Client> silent;
    while (silent.size() < 600) {
        silent.push_back(daemon.Connect());
        if (silent.size() % 32 == 0) // no more at once than may wait to be accepted
            Ask(daemon, Keyword("INFO"));
    }
    for (const char* mode : {"SOCKET", "NOSOCKET"})
        EXPECT_EQ(Ask(daemon, Launch(mode, "ls /proc/self/fd; exit 3")), Finished("0\n1\n2\n3\n", 3)) << mode;
    // The worker of a listing has its client's socket and no other: it ends with the others still there.
    EXPECT_NE(Ask(daemon, Keyword("ALLINFO")).find("active file transfer(s)"), std::string::npos);
    // Those who were silent are heard all the same.
    silent.front().Send(Launch("SOCKET", "echo first"));
    EXPECT_EQ(silent.front().ReadToEnd(), Finished("first\n", 0));
}
