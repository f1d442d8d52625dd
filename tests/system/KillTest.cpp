#include <algorithm>
#include <csignal>
#include <list>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/system/SystemFacts.h"
#include "tests/system/TransferClient.h"

using testing::HasSubstr;

namespace
{
std::string Kill(const std::string& word, const std::string& number, const std::string& user = OwnUser())
{
    return Join({Newest, user, "secret", word, number});
}

/** What killed work's own client is told, and its killer below the banner line. */
std::string Killed(int number, const std::string& words, const std::string& code)
{
    return "->Command N(" + std::to_string(number) + "), " + words + "\n->ProcessReturnCode = " + code + "\n";
}

std::string ToKiller(const std::string& text)
{
    return BannerLine + text + "\n";
}

Client Begin(DaemonUnderTest& daemon, const std::string& request)
{
    Client client = daemon.Connect();
    client.Send(request);
    return client;
}

/** Begins a command in SOCKET mode that says when it is up. */
Client BeginAttached(DaemonUnderTest& daemon, const std::string& command)
{
    Client client = Begin(daemon, Launch("SOCKET", command));
    client.ReadUntil("up\n");
    return client;
}

const std::string Stubborn = "trap '' TERM; echo up; while :; do sleep 0.1; done";
} // namespace

TEST(Kill, WhatIsNobodysOrNotTheUsersIsRefused)
{
    DaemonUnderTest daemon;
    const std::string badNumber = "->Error unable to kill command or terminate file transfer N(";
    Client attached = BeginAttached(daemon, "echo up; read line");
    // Its log is on the way and fills all buffers: it is no longer a command.
    Client slow = Begin(daemon, Launch("NOSOCKET", "head -c 30000000 /dev/zero"));
    ASSERT_TRUE(WaitUntil([&] {
        return Ask(daemon, Keyword("INFO")).find("->Found 1 active log transfer(s)") != std::string::npos;
    }));
    for (const std::string word : {"KILL", "KILLTREE", "FORCEKILL", "FORCEKILLTREE"}) {
        for (const std::string number :
             {"abc", "", "0x0", " 0", "0 ", "1", "2", "-1", "99999999999999999999"})
            EXPECT_EQ(Ask(daemon, Kill(word, number)), BannerLine + badNumber + number + ") : bad number\n");
        for (const std::string& user : {std::string("somebody"), OwnUser() + "2", OwnUser() + "\\",
                                        "X\\Y\\" + OwnUser(), std::string()})
            EXPECT_EQ(Ask(daemon, Kill(word, "+0", user)),
                      BannerLine + std::string("->Error unable to kill command N(+0) : not owner\n"))
                << user;
    }
    EXPECT_THAT(Ask(daemon, Keyword("INFO")), HasSubstr("->Found 1 active command(s)\n"));
    std::string user = "DOM\\" + OwnUser();
    std::transform(user.begin(), user.end(), user.begin(), toupper);
    EXPECT_EQ(Ask(daemon, Kill("KILL", "0", user)), ToKiller(Killed(0, "killed", "143")));
    EXPECT_EQ(attached.ReadToEnd(), Killed(0, "killed", "143"));
    EXPECT_TRUE(slow.ReadToEnd().ends_with(ReturnLine(0)));
}

TEST(Kill, EveryWordTellsTheClientOfEveryMode)
{
    DaemonUnderTest daemon;
    const struct {
        std::string word, told, code;
        bool wholeTree;
    } Words[] = {{"KILL", "killed", "6", false},
                 {"KILLTREE", "tree killed", "6", true},
                 {"FORCEKILL", "force killed", "137", false},
                 {"FORCEKILLTREE", "tree force killed", "137", true}};
    const std::string command = "trap 'exit 6' TERM; sh -c 'echo up; exec sleep 1000' & wait";
    int number = 0;
    for (const auto& one : Words) {
        for (const std::string mode : {"SOCKET", "NOSOCKET", "passive"}) {
            Collector collector(daemon.Conversation());
            Client client = Begin(daemon, mode == "passive" ? PassiveLaunch(command, collector.Port())
                                                            : Launch(mode, command));
            const auto isUp = [&] {
                const std::vector<std::string> logs = daemon.LogFiles();
                return logs.size() == 1 && ReadFile(daemon.LogDirectory() + "/" + logs[0]) == "up\n";
            };
            if (mode == "SOCKET")
                EXPECT_EQ(client.ReadUntil("up\n"), BannerLine + std::string("up\n"));
            else
                ASSERT_TRUE(WaitUntil(isUp));
            ASSERT_TRUE(WaitUntil([&] { return daemon.Descendants().size() == 2; }));
            // Who is stopped has to go on before it can heed a request.
            for (const pid_t member : daemon.Descendants())
                kill(member, SIGSTOP);

            const std::string text = Killed(number, one.told, one.code);
            EXPECT_EQ(Ask(daemon, Kill(one.word, std::to_string(number))), ToKiller(text));
            if (mode == "passive")
                EXPECT_EQ("ID|" + collector.Accept().ReadToEnd(), client.ReadToEnd() + text);
            else
                EXPECT_EQ(client.ReadToEnd(), text);
            EXPECT_TRUE(WaitUntil([&] { return daemon.LogFiles().empty(); }));
            // The shell's child lives on unless the whole tree was meant; it is ended here.
            EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().size() == (one.wholeTree ? 0 : 1); }));
            for (const pid_t left : daemon.Descendants())
                kill(left, SIGKILL);
            EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty(); }));
            ++number;
        }
    }
}

TEST(Kill, WhoeverIgnoresItHoldsUpNobodyAndCanBeForced)
{
    DaemonUnderTest daemon;
    Client stubborn = BeginAttached(daemon, Stubborn);
    Client asker = Begin(daemon, Kill("KILL", "0")), again = Begin(daemon, Kill("KILLTREE", "0"));
    // Served while both wait, the same work is still listed, and a command starts and ends as ever.
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "exit 3")), Finished("", 3));
    EXPECT_THAT(Ask(daemon, Keyword("INFO")), HasSubstr("->Found 1 active command(s)\n->N(0), "));
    EXPECT_EQ(Ask(daemon, Kill("FORCEKILL", "0")), ToKiller(Killed(0, "force killed", "137")));
    EXPECT_EQ(asker.ReadToEnd(), ToKiller(Killed(0, "killed", "137")));
    EXPECT_EQ(again.ReadToEnd(), ToKiller(Killed(0, "tree killed", "137")));
    EXPECT_EQ(stubborn.ReadToEnd(), Killed(0, "killed", "137"));
    EXPECT_THAT(Ask(daemon, Keyword("INFO")), HasSubstr("->Found 0 active command(s)\n"));
}

TEST(Kill, ATransferThatAnotherSignalEndsIsToldAsWhatIsWaitedFor)
{
    if (ReadFile("/proc/sys/kernel/core_pattern").starts_with("|"))
        GTEST_SKIP() << "a core is dumped whatever the limit";
    rlimit before{};
    getrlimit(RLIMIT_CORE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_CORE, &none);
    DaemonUnderTest daemon;
    setrlimit(RLIMIT_CORE, &before);
    const TestDirectory directory;
    TransferClient transfer(daemon,
                            TransferOrder{.keyword = "TRANSFERPUT", .file = directory.Path() + "/put"});
    const Client data = transfer.OpenData("READ");
    transfer.Control().ReadUntil(BannerLine);
    ASSERT_EQ(daemon.Descendants().size(), 1u);
    const pid_t worker = daemon.Descendants().front();
    StopProcess(worker);
    Client asker = Begin(daemon, Kill("KILL", "0"));
    ASSERT_TRUE(WaitUntil([&] {
        return ReadFile("/proc/" + std::to_string(worker) + "/status").find("ShdPnd:\t0000000000004000\n") !=
               std::string::npos;
    }));
    // The lowest that is pending comes first.
    kill(worker, SIGQUIT);
    kill(worker, SIGCONT);
    EXPECT_THAT(asker.ReadToEnd(), HasSubstr("\n" + ReturnLine(333)));
}

TEST(Kill, WhoeverIgnoresItToTheEndIsLetGo)
{
    DaemonUnderTest daemon({.shortLadders = true});
    Client stubborn = BeginAttached(daemon, Stubborn);
    Collector collector(daemon.Conversation());
    Client passive = Begin(daemon, PassiveLaunch(Stubborn, collector.Port()));
    const std::string identifier = passive.ReadToEnd().substr(3);
    for (const int number : {0, 1}) {
        const std::string told = Killed(number, "killed", "NoThing");
        EXPECT_EQ(Ask(daemon, Kill("KILL", std::to_string(number))), ToKiller(told));
        EXPECT_EQ(number == 0 ? stubborn.ReadToEnd() : collector.Accept().ReadToEnd(),
                  (number == 0 ? "" : identifier) + told);
    }
    EXPECT_THAT(Ask(daemon, Keyword("INFO")), HasSubstr("->Found 0 active command(s)\n"));
    EXPECT_GE(daemon.Descendants().size(), 2u);
    // Nobody else would ever end them.
    EXPECT_TRUE(WaitUntil([&] {
        for (const pid_t left : daemon.Descendants())
            kill(left, SIGKILL);
        return daemon.Descendants().empty();
    }));
}

/** Two hundred processes that hide and resist: the whole tree is gone once the ladder has ended. */
TEST(Kill, NoneOfATreeIsLeft)
{
    const std::string tree =
        "i=0; while [ $i -lt 50 ]; do i=$((i+1));"
        "(trap '' TERM; exec sleep 1000) &"                    // ignores its termination
        "setsid sleep 1000 &"                                  // in a session of its own
        "(setsid sh -c \"trap '' TERM; exec sleep 1000\" &) &" // an orphan in another one
        "sh -c 'kill -STOP $$; exec sleep 1000' &"             // stopped
        "done; ";
    const struct {
        const char* word;
        std::string last, told, code;
        bool shortLadders; // or the kill could as well have come with the ladder's end
    } Cases[] = {
        {"KILLTREE", "echo up; exec sleep 1000", "tree killed", "143", true},
        {"KILLTREE", Stubborn, "tree killed", "NoThing", true},
        {"FORCEKILLTREE", Stubborn, "tree force killed", "137", false},
    };
    for (const auto& one : Cases) {
        DaemonUnderTest daemon({.shortLadders = one.shortLadders});
        Client client = BeginAttached(daemon, tree + one.last);
        ASSERT_TRUE(WaitUntil([&] { return daemon.Descendants().size() >= 200; }));
        EXPECT_EQ(Ask(daemon, Kill(one.word, "0")), ToKiller(Killed(0, one.told, one.code)));
        EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty(); }, Patience / 2)) << one.word;
        EXPECT_EQ(client.ReadToEnd(), Killed(0, one.told, one.code));
        EXPECT_TRUE(WaitUntil([&] { return FindZombiesOf(daemon.Process().Id()).empty(); }));
    }
}

/** One ladder after the other would take several times as long as the daemon has here to end. */
TEST(Shutdown, EveryLadderIsTakenOnceAndEveryClientIsTold)
{
    const std::string shutdown =
        "->RuvelServer shutdown, all log transfer(s) terminated, command(s) killed and ";
    DaemonUnderTest daemon({.shortLadders = true});
    const TestDirectory directory;
    std::list<Client> commands, logs, datas;
    std::list<TransferClient> transfers;
    for (int i = 0; i < 50; ++i)
        commands.push_back(BeginAttached(daemon, Stubborn));
    for (int i = 0; i < 10; ++i) {
        transfers.emplace_back(daemon, TransferOrder{.keyword = "TRANSFERPUT",
                                                     .file = directory.Path() + "/" + std::to_string(i)});
        datas.push_back(transfers.back().OpenData("READ"));
        transfers.back().Control().ReadUntil(BannerLine);
        logs.push_back(daemon.Connect(4096));
        logs.back().Send(Launch("NOSOCKET", "head -c 20000000 /dev/zero"));
    }
    const auto stands = [&](const char* text) {
        return Ask(daemon, Keyword("INFO")).find(text) != std::string::npos;
    };
    ASSERT_TRUE(WaitUntil([&] { return stands("->Found 10 active log transfer(s)"); }));
    ASSERT_TRUE(stands("->Found 10 active file transfer(s)"));
    for (Client& log : logs)
        EXPECT_EQ(log.ReadUntil("\n"), BannerLine);
    // The workers are stopped, so that only force ends them.
    for (const pid_t process : daemon.Descendants())
        if (ReadFile("/proc/" + std::to_string(process) + "/cmdline").starts_with("RuvelServer"))
            StopProcess(process);

    EXPECT_EQ(Ask(daemon, Keyword("Close")), BannerLine + std::string("->RuvelServer closed\n"));
    for (Client& command : commands)
        EXPECT_EQ(command.ReadToEnd(), shutdown + "file transfer(s) terminated\n" + ReturnLine(137));
    for (TransferClient& transfer : transfers)
        EXPECT_EQ(transfer.Finish(), shutdown + "transfer(s) terminated\n" + ReturnLine(999));
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
    for (Client& log : logs)
        EXPECT_FALSE(log.ReadToEnd().ends_with(ReturnLine(0)));
}
