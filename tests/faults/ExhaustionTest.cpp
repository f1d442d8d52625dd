#include <algorithm>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/faults/Scenario.h"
#include "tests/system/SystemFacts.h"
#include "tests/system/TestAccount.h"
#include "tests/system/TransferClient.h"

using testing::HasSubstr;

namespace
{
/** A daemon's limit, lowered for as long as the object stands; then it is as high as it may be. */
class Scarcity
{
public:
    /** `account`: whose daemon it is, if it is not of the tests' own user. */
    Scarcity(pid_t daemon, __rlimit_resource resource, rlim_t limit, const TestAccount* account = nullptr)
        : daemon_(daemon), resource_(resource), account_(account)
    {
        SetSoftLimit(limit);
    }
    Scarcity(const Scarcity&) = delete;
    Scarcity& operator=(const Scarcity&) = delete;
    ~Scarcity() { SetSoftLimit(RLIM_INFINITY); }

private:
    /** In a process that may have the daemon's user. */
    void SetSoftLimit(rlim_t limit) const
    {
        const pid_t setter = fork();
        if (setter == 0) {
            if (account_ != nullptr && (setgid(account_->GroupId()) != 0 || setuid(account_->UserId()) != 0))
                _exit(1);
            rlimit limits{};
            if (prlimit(daemon_, resource_, nullptr, &limits) != 0)
                _exit(2);
            limits.rlim_cur = std::min(limit, limits.rlim_max);
            _exit(prlimit(daemon_, resource_, &limits, nullptr) == 0 ? 0 : 3);
        }
        int status = -1;
        EXPECT_EQ(waitpid(setter, &status, 0), setter);
        EXPECT_EQ(status, 0);
    }

    pid_t daemon_;
    __rlimit_resource resource_;
    const TestAccount* account_;
};

void SetObjectLimit(const char* name, const char* value)
{
    std::ofstream limit(std::string("/proc/sys/kernel/") + name);
    EXPECT_TRUE(limit << value << std::flush) << name;
}

void ExpectService(DaemonUnderTest& daemon)
{
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo on; exit 3")), Finished("on\n", 3));
    EXPECT_EQ(Ask(daemon, Launch("NOSOCKET", "echo on; exit 4")), Finished("on\n", 4));
}

[[maybe_unused]] std::size_t AddressSpaceOf(pid_t process)
{
    std::size_t pages = 0;
    std::ifstream("/proc/" + std::to_string(process) + "/statm") >> pages;
    return pages * static_cast<std::size_t>(getpagesize());
}

/** The whole answer, or word of an error, or a closed connection before the answer is whole. */
[[maybe_unused]] void ExpectWholeOrRefused(DaemonUnderTest& daemon, const std::string& request,
                                           const std::string& expected)
{
    Client client = daemon.Connect();
    client.Send(request);
    const std::string answer = client.ReadUntilOrEnd();
    EXPECT_TRUE(expected.starts_with(answer) || answer.find("Error") != std::string::npos) << answer;
}
} // namespace

TEST(Exhaustion, DescriptorsTakenBySilentClients)
{
    DaemonUnderTest daemon;
    const pid_t id = daemon.Process().Id();
    const size_t before = CountDescriptorsOf(id);
    {
        const Scarcity scarcity(id, RLIMIT_NOFILE, before + 20);
        std::vector<Client> silent;
        for (int i = 0; i < 60; ++i)
            silent.push_back(daemon.Connect());
        // Whoever asks is heard, though there is hardly anything left to serve with.
        for (int i = 0; i < 5; ++i)
            EXPECT_THAT(Ask(daemon, Keyword("INFO")), HasSubstr("->Found 0 active command(s)\n"));
        EXPECT_TRUE(daemon.Process().WaitForTrace("Error in accept() : Too many open files\n"));
    }
    ExpectService(daemon);
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptorsOf(id) == before; }));
}

// The sanitizers need more address space than is there.
#ifndef __SANITIZE_ADDRESS__
TEST(Exhaustion, AddressSpaceTakenByLongRequests)
{
    DaemonUnderTest daemon;
    const pid_t id = daemon.Process().Id();
    const size_t before = CountDescriptorsOf(id);
    const std::string endless(600'000, 'x');
    for (const size_t margin : {0U, 150'000U, 1'000'000U}) {
        const Scarcity scarcity(id, RLIMIT_AS, AddressSpaceOf(id) + margin);
        for (int round = 0; round < 5; ++round) {
            std::vector<Client> hungry;
            for (int i = 0; i < 8; ++i) {
                hungry.push_back(daemon.Connect());
                hungry.back().Send(endless);
            }
            ExpectWholeOrRefused(daemon, Launch("SOCKET", "echo on; exit 3"), Finished("on\n", 3));
            ExpectWholeOrRefused(daemon, Launch("NOSOCKET", "echo on; exit 4"), Finished("on\n", 4));
        }
        EXPECT_TRUE(daemon.Process().WaitForTrace("out of memory"));
    }
    ExpectService(daemon);
    ExpectRest(daemon, {}, before);
}
#endif

/** Neither those who wait for their check nor those who wait for their refusal keep what others need. */
TEST(ExhaustionAsRoot, DescriptorsTakenByWrongPasswords)
{
    DaemonUnderTest daemon({.mode = {"-noinstall"}});
    const pid_t id = daemon.Process().Id();
    const size_t before = CountDescriptorsOf(id);
    {
        const Scarcity scarcity(id, RLIMIT_NOFILE, before + 20);
        const auto sendFromElsewhere = [&](const std::string& text) {
            Client client(daemon.Port(), daemon.Conversation(), 0, 2);
            client.Send(text);
            return client;
        };
        Client elsewhere = sendFromElsewhere(Launch("SOCKET", "true"));
        std::vector<Client> wrong;
        for (int i = 0; i < 60; ++i) {
            wrong.push_back(daemon.Connect());
            wrong.back().Send(Launch("SOCKET", "true"));
        }
        for (int i = 0; i < 5; ++i)
            EXPECT_THAT(sendFromElsewhere("hello").ReadToEnd(), HasSubstr("not recognized"));
        EXPECT_TRUE(daemon.Process().WaitForTrace("too many clients wait"));
        EXPECT_THAT(elsewhere.ReadToEnd(), HasSubstr("->Error bad user or password"));
    }
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptorsOf(id) == before; }));
}

TEST(ExhaustionAsRoot, Processes)
{
    const TestAccount account;
    DaemonUnderTest daemon({.user = account.Name(), .toleratedErrors = {"Error in _InitThreadOrProcess()"}});
    const auto launch = [&](const char* mode) {
        return Ask(daemon, Join({Newest, account.Name(), "", "echo on; exit 3", mode, "NOWINDOW", "0"}));
    };
    {
        const Scarcity scarcity(daemon.Process().Id(), RLIMIT_NPROC, 1, &account);
        for (const char* mode : {"SOCKET", "NOSOCKET"})
            EXPECT_EQ(launch(mode), BannerLine + std::string("->Error unable to start command : Resource "
                                                             "temporarily unavailable\n"
                                                             "->ProcessReturnCode = NoThing\n"));
        TransferClient put(daemon, {.keyword = "TRANSFERPUT", .file = "/tmp/none", .user = account.Name()});
        EXPECT_EQ(put.Finish(),
                  "ERROR|" + std::string(BannerLine) + "->Error unable to start file transfer\n");
    }
    EXPECT_EQ(launch("SOCKET"), Finished("on\n", 3));
    EXPECT_EQ(launch("NOSOCKET"), Finished("on\n", 3));
}

/** Whoever waits for a check is told, and the system is not asked for a process on behalf of each. */
TEST(ExhaustionAsRoot, ProcessesForChecks)
{
    constexpr int Crowd = 60;
    const std::string failure = "Error in _InitThreadOrProcess()";
    const TestAccount account;
    DaemonUnderTest daemon({.mode = {"-noinstall"}, .user = account.Name(), .toleratedErrors = {failure}});
    const std::string request =
        Join({Newest, account.Name(), account.Password(), "echo on; exit 3", "SOCKET", "NOWINDOW", "0"});
    {
        const Scarcity scarcity(daemon.Process().Id(), RLIMIT_NPROC, 1, &account);
        std::vector<Client> clients;
        for (int i = 0; i < Crowd; ++i)
            clients.push_back(daemon.Connect());
        for (Client& client : clients)
            client.Send(request);
        for (Client& client : clients)
            EXPECT_EQ(client.ReadToEnd(), BannerLine + std::string("->Error unable to check the password\n"
                                                                   "->ProcessReturnCode = NoThing\n"));
        const std::string errors = daemon.Process().Errors();
        int attempts = 0;
        for (size_t at = errors.find(failure); at != std::string::npos; at = errors.find(failure, at + 1))
            ++attempts;
        EXPECT_LT(attempts, Crowd);
    }
    EXPECT_EQ(Ask(daemon, request), Finished("on\n", 3));
}

/** Boards only show how far a worker has come: without them everything else is as ever. */
TEST(ExhaustionAsRoot, SegmentsAndSemaphores)
{
    const TestDirectory directory;
    // System V objects and limits of its own, for this process and the daemons that it starts.
    ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
    DaemonUnderTest daemon;
    const std::string file = directory.Path() + "/file", content = MakeContent(1'000'000);
    for (const char* limits : {"32000 1024000000 500 0", "32000 1024000000 500 32000"}) {
        SetObjectLimit("sem", limits);
        SetObjectLimit("shmmni", "0");
        ExpectService(daemon);
        TransferClient put(daemon, {.keyword = "TRANSFERPUT", .file = file});
        EXPECT_EQ(put.Put(content), Transferred(0));
        EXPECT_TRUE(ReadFile(file) == content);
    }
    SetObjectLimit("shmmni", "4096");
    TransferClient get(daemon, {.keyword = "TRANSFERGET", .file = file});
    std::string bytes;
    EXPECT_EQ(get.Get(bytes), Transferred(0));
    EXPECT_TRUE(bytes == content);
}
