#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/Inheritance.h"
#include "tests/system/SystemFacts.h"
#include "tests/system/TestAccount.h"
#include "tests/system/TransferClient.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{
const std::string Reason = "->Error bad user or password";
const std::string RefusedLaunch = BannerLine + Reason + "\n->ProcessReturnCode = NoThing\n";
const std::string Closed = BannerLine + std::string("->RuvelServer closed\n");
constexpr std::chrono::seconds Hold{2};

Credentials Right(const TestAccount& account)
{
    return {account.Name(), account.Password()};
}

std::string LaunchAs(const Credentials& who, std::string_view command = "true",
                     std::string_view mode = "SOCKET")
{
    return Launch(mode, command, "0", who);
}

std::string NotOwner(const std::string& owner, const std::string& asking)
{
    return BannerLine + ("->Error not owner : " + owner) + " : " + asking + "\n";
}

struct Exchange {
    std::string request;
    std::string answer;
};

/** Asks everything at once, so that refusals are held back together, and compares every answer. Returns how
 * long it was until the first one came. */
std::chrono::steady_clock::duration ExpectAnswers(DaemonUnderTest& daemon, const std::vector<Exchange>& table)
{
    const auto begin = std::chrono::steady_clock::now();
    std::vector<Client> clients;
    for (const Exchange& exchange : table) {
        clients.push_back(daemon.Connect());
        clients.back().Send(exchange.request);
    }
    WaitUntil([&] { return std::any_of(clients.begin(), clients.end(), std::mem_fn(&Client::HasArrived)); });
    const auto untilFirst = std::chrono::steady_clock::now() - begin;
    for (std::size_t i = 0; i < table.size(); ++i)
        EXPECT_EQ(clients[i].ReadToEnd(), table[i].answer) << table[i].request;
    return untilFirst;
}

/** The most bytes that it has had resident. */
[[maybe_unused]] std::size_t MostMemoryOf(pid_t process)
{
    const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
    return std::stoul(status.substr(status.find("VmHWM:") + 6)) * 1024;
}

/** A daemon that this account runs. */
DaemonOptions RunBy(const TestAccount& account, const std::vector<std::string>& mode)
{
    return {.mode = mode, .user = account.Name()};
}
} // namespace

TEST(Users, ACommandHasAllThatALoginHasAndNothingOfTheDaemons)
{
    TakeOddSurroundings();
    const TestAccount account({"users", "games"});
    const TestAccount other;
    DaemonUnderTest daemon({.mode = {}});
    // Others hold connections and a log meanwhile.
    Client silent = daemon.Connect();
    Client attached = daemon.Connect();
    attached.Send(LaunchAs(Right(other), "echo up; cat"));
    attached.ReadUntil("up\n");
    Client detached = daemon.Connect();
    detached.Send(LaunchAs(Right(other), "sleep 1000", "NOSOCKET"));
    for (const std::string& name : {account.Name(), "DOMAIN\\" + account.Name()})
        for (const char* mode : {"SOCKET", "NOSOCKET"})
            EXPECT_EQ(Blur(Ask(daemon, LaunchAs({name, account.Password()}, TellInheritance(daemon), mode))),
                      ExpectInheritance(daemon, ExpectLogin(account.Name()), mode));
}

TEST(Users, EveryRefusalHasTheSameWordsAndIsHeldBack)
{
    const TestAccount account;
    TestAccount locked;
    TestAccount expired;
    DaemonUnderTest daemon({.mode = {}});
    for (const TestAccount* valid : std::initializer_list<const TestAccount*>{&account, &locked, &expired})
        EXPECT_EQ(Ask(daemon, LaunchAs(Right(*valid), "id -un")), Finished(valid->Name() + "\n", 0));
    locked.Lock();
    expired.Expire();

    const std::string& name = account.Name();
    const std::string& password = account.Password();
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
    const Credentials wrong{name, "wrong"};
    std::vector<Exchange> table;
    for (const Credentials& refused : std::vector<Credentials>{
             wrong,
             {name, ""},
             {name, password + " "},
             {name, password.substr(0, password.size() - 1)},
             {name, password + std::string(1, '\0') + "x"},
             {name + " ", password},
             {name + "\n", password},
             {upper, password},
             {name + "\\root", password},
             {"", ""},
             {"", password},
             {"nosuchuser", password},
             {"nosuchuser", ""},
             {"root", ""},
             Right(locked),
             Right(expired),
         }) {
        table.push_back({LaunchAs(refused), RefusedLaunch});
        table.push_back({LaunchAs(refused, "true", "NOSOCKET"), RefusedLaunch});
        table.push_back({Keyword("INFO", refused), Reason});
    }
    table.push_back({Keyword("ALLINFO", wrong), Reason});
    // Of a long request only this much is kept: its end is none of the request.
    const std::string many = " #" + std::string(5000, 'x');
    table.push_back({LaunchAs({name, password + "\n"}, "true" + many), RefusedLaunch});
    for (const char* kill : {"KILL", "KILLTREE", "FORCEKILL", "FORCEKILLTREE"})
        table.push_back({Keyword(kill, wrong) + "|0", Reason + "\n"});

    for (const auto& [keyword, refusal] :
         {std::pair("TRANSFERGET", "WRITEERROR|"), {"TRANSFERPUT", "READERROR|"}})
        table.push_back(
            {Join({Newest, name, "wrong", keyword, "BINARY", account.Home() + "/" + keyword, "0"}),
             refusal + std::string(BannerLine) + "->Error unable to impersonate : " + Reason.substr(2) +
                 "\n" + ReturnLine(1)});

    EXPECT_GE(ExpectAnswers(daemon, table), Hold);
    EXPECT_EQ(Ask(daemon, LaunchAs(Right(account), "echo still here" + many)), Finished("still here\n", 0));
}

TEST(Users, WrongPasswordsInFlightHoldUpNobody)
{
    constexpr int Crowd = 300; // checking all of them takes longer than they are held back
    const TestAccount account({}, TestAccount::Check::Usual);
    DaemonUnderTest daemon({.mode = {}});
    std::vector<Client> wrong;
    for (int i = 0; i < Crowd; ++i)
        wrong.push_back(daemon.Connect());
    for (Client& client : wrong)
        client.Send(LaunchAs({account.Name(), "wrong"}));
    EXPECT_EQ(Ask(daemon, LaunchAs(Right(account), "echo in")), Finished("in\n", 0));
    // On a machine that is busy with other tests many of them may have their answers: had it waited for its
    // turn behind them, all would.
    EXPECT_LT(std::count_if(wrong.begin(), wrong.end(), std::mem_fn(&Client::HasArrived)), Crowd);
    for (Client& client : wrong)
        EXPECT_EQ(client.ReadToEnd(), RefusedLaunch);
}

TEST(Users, ACrowdOfLongRequestsTakesNoMemoryAndNobodyElsesPlace)
{
    constexpr int Crowd = 300; // of a mebibyte each
    const TestAccount account;
    DaemonUnderTest daemon({.mode = {}});
    const auto connectFromElsewhere = [&] { return Client(daemon.Port(), daemon.Conversation(), 0, 2); };
    const std::size_t before = CountDescriptorsOf(daemon.Process().Id());
    {
        Client silent = connectFromElsewhere();
        Client wrong = connectFromElsewhere();
        wrong.Send(LaunchAs({account.Name(), "wrong"}));
        Client gone = connectFromElsewhere();
        gone.Send(LaunchAs({account.Name(), "wrong"}));
        for (int i = 0; i < Crowd; ++i)
            daemon.Connect().Send(LaunchAs({account.Name(), "wrong"}, std::string(1'000'000, 'x')) + "\n");
        gone.Reset();
        EXPECT_EQ(wrong.ReadToEnd(), RefusedLaunch);
        silent.Send(LaunchAs(Right(account), "echo in"));
        EXPECT_EQ(silent.ReadToEnd(), Finished("in\n", 0));
    }
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptorsOf(daemon.Process().Id()) == before; }));
#ifndef __SANITIZE_ADDRESS__ // which keeps what has been given back
    EXPECT_LT(MostMemoryOf(daemon.Process().Id()), 150'000'000U);
#endif
}

TEST(Users, AnAttachedCommandCannotHoldUpTheDaemon)
{
    const TestAccount account;
    DaemonUnderTest daemon({.mode = {}});
    // The command asks for its socket's close to wait (SO_LINGER) until a client has taken everything that
    // takes nothing.
    Client hostile = daemon.Connect(4096);
    hostile.Send(LaunchAs(Right(account),
                          "exec perl -e 'setsockopt(STDIN, 1, 13, pack(q(ii), 1, 1000)) or die; "
                          "syswrite(STDOUT, q(x) x 60000); exit 3'"));
    EXPECT_EQ(hostile.ReadExactly(std::string(BannerLine).size()), BannerLine);
    hostile.HalfClose();
    EXPECT_EQ(hostile.ReadExactly(1), "x");
    EXPECT_TRUE(WaitUntil([&] { return FindProcessesWith("HOME=" + account.Home()).empty(); }));
    for (int turn = 0; turn < 10; ++turn)
        EXPECT_THAT(Ask(daemon, "hello"), HasSubstr("not recognized"));
    EXPECT_EQ(hostile.ReadToEnd(), std::string(59999, 'x') + ReturnLine(3));
}

TEST(Users, AnOrdinaryUsersDaemonKnowsItsOwnUsersPasswordOnly)
{
    const TestAccount owner;
    const TestAccount other;
    // Without -noinstall, -nocheck changes nothing, and neither mode is a way to be somebody else.
    for (const std::string mode : {"-noinstall", "-nocheck"}) {
        DaemonUnderTest daemon(RunBy(owner, {mode}));
        const std::string& name = owner.Name();
        const std::string refused = mode == "-nocheck"
                                        ? RefusedLaunch
                                        : NotOwner(name, other.Name()) + "->ProcessReturnCode = NoThing\n";
        ExpectAnswers(daemon, {
                                  {LaunchAs(Right(owner), "id -un; pwd"),
                                   Finished(name + "\n" + owner.Home() + "\n", 0)},
                                  {LaunchAs(Right(owner), "id -un", "NOSOCKET"), Finished(name + "\n", 0)},
                                  {LaunchAs({name, ""}), RefusedLaunch},
                                  {LaunchAs({name, "wrong"}), RefusedLaunch},
                                  {Keyword("INFO", {name, ""}), Reason},
                                  {Keyword("INFO", {name, "wrong"}), Reason},
                                  {LaunchAs(Right(other)), refused},
                                  {Keyword("INFO", Right(other)), Reason},
                                  {Keyword("INFO", {"root", ""}), Reason},
                              });
        EXPECT_THAT(Ask(daemon, Keyword("INFO", Right(owner))), HasSubstr("launched command(s)"));
    }
}

TEST(Users, AnInstalledDaemonChecksThoughItIsToldNotTo)
{
    const TestAccount account;
    DaemonUnderTest daemon({.mode = {"-nocheck"}});
    ExpectAnswers(daemon, {{LaunchAs({account.Name(), "wrong"}), RefusedLaunch},
                           {LaunchAs({"root", "wrong"}), RefusedLaunch},
                           {LaunchAs(Right(account), "id -un"), Finished(account.Name() + "\n", 0)}});
}

TEST(Users, OnlyItsOwnerClosesADaemonWithThePassword)
{
    const TestAccount account;
    const TestAccount other;
    DaemonUnderTest installed({.mode = {}});
    ExpectAnswers(installed, {{Keyword("Close", Right(account)), NotOwner("root", account.Name())},
                              {Keyword("Close", {"root", "wrong"}), Reason},
                              {Keyword("Close", {"root", ""}), Reason}});
    EXPECT_EQ(Ask(installed, LaunchAs(Right(account), "id -un")), Finished(account.Name() + "\n", 0));

    DaemonUnderTest daemon(RunBy(account, {"-noinstall"}));
    ExpectAnswers(daemon, {{Keyword("Close", Right(other)), NotOwner(account.Name(), other.Name())},
                           {Keyword("Close", {account.Name(), ""}), Reason},
                           {Keyword("Close", {account.Name(), "wrong"}), Reason}});
    EXPECT_EQ(Ask(daemon, Keyword("Close", Right(account))), Closed);
    EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
}

TEST(Users, ATransferReachesWhatItsUserReaches)
{
    const TestAccount account;
    const TestAccount other;
    DaemonUnderTest daemon({.mode = {}});
    const std::string secret = other.Home() + "/secret";
    std::ofstream(secret) << "secret";
    chmod(secret.c_str(), 0600);
    const auto order = [&](const std::string& keyword, const std::string& file) {
        return TransferOrder{
            .keyword = keyword, .file = file, .user = account.Name(), .password = account.Password()};
    };
    const std::string mine = account.Home() + "/mine";
    // The daemon's own port, from which a passive one comes, is not the user's to take.
    for (const bool passive : {false, true}) {
        TransferOrder put = order("TRANSFERPUT", mine);
        put.passive = passive;
        EXPECT_EQ(TransferClient(daemon, put).Put("content"), Transferred(0));
        struct stat facts {
        };
        ASSERT_EQ(stat(mine.c_str(), &facts), 0);
        EXPECT_EQ(facts.st_uid, account.UserId());
        EXPECT_EQ(facts.st_gid, account.GroupId());
        EXPECT_EQ(facts.st_mode, S_IFREG | 0644U);
        unlink(mine.c_str());
    }

    for (const auto& [keyword, refusal] :
         {std::pair("TRANSFERGET", "WRITEERROR"), {"TRANSFERPUT", "READERROR"}})
        for (const std::string& file :
             {secret, std::string("/etc/shadow"), "/root/" + account.Name(), std::string("/proc/self/maps")})
            EXPECT_THAT(TransferClient(daemon, order(keyword, file)).Finish(),
                        AllOf(StartsWith(refusal), HasSubstr("Permission denied")))
                << file;
    // The daemon's trace, and what tells of no process.
    for (const std::string stream : {"/proc/self/fd/1", "/dev/stdout", "/proc/thread-self/fd/2"})
        EXPECT_THAT(TransferClient(daemon, order("TRANSFERGET", stream)).Finish(), StartsWith("WRITEERROR"));
    std::string mounts;
    EXPECT_EQ(TransferClient(daemon, order("TRANSFERGET", "/proc/mounts")).Get(mounts), Transferred(0));
    EXPECT_THAT(mounts, HasSubstr(" proc "));
    EXPECT_EQ(ReadFile(secret), "secret");
}
