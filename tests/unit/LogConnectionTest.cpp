#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>

#include "connections/LogConnection.h"
#include "tests/unit/Loopback.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
const std::string Head = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n";
const std::string Tail = "->ProcessReturnCode = 42\n";
constexpr int OneBufferVersion = 8;
constexpr int StreamingVersion = 9;

std::string MakeContent(size_t size)
{
    std::string content(size, '\0');
    unsigned state = 1;
    for (char& byte : content)
        byte = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
    return content;
}

class LogDelivery : public testing::Test
{
protected:
    LogDelivery()
    {
        char name[] = "/tmp/log-delivery-XXXXXX";
        directory_ = mkdtemp(name);
        path_ = directory_ + "/log";
    }
    ~LogDelivery() override
    {
        for (const char* name : {"/log", "/other"})
            remove((directory_ + name).c_str());
        rmdir(directory_.c_str());
    }

    void WriteLog(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }
    bool LogExists() const { return access(path_.c_str(), F_OK) == 0; }

    /** Makes `command_` the one whose log is at `path_`. */
    void MakeCommand(int version, const sockaddr_in* localAddress = nullptr)
    {
        command_ = std::make_unique<BaseConnection>(localAddress);
        command_->SetAttributes("NOSOCKET", "joe", 1000, "true", 5, version, "127.0.0.1", 5678);
        command_->GetProcess().SetOutputAndErrorFileName(path_);
    }

    /** What the client of a launch that is not passive receives, its log's worker having run. */
    std::string DeliverByWorker(LogConnection& log, int expectedStatus)
    {
        loopback::Pair pair;
        log.GetSocket() = pair.server;
        pair.server.Reset();
        EXPECT_EQ(log.StartThreadOrProcess(noSockets_), 0);
        log.GetSocket().CloseBaseSocket();
        std::string received = loopback::ReadToEnd(pair.client);
        int status = -1;
        EXPECT_EQ(log.WaitThreadOrProcess(status, 20), 1);
        EXPECT_EQ(status, expectedStatus);
        return received;
    }

    std::string Deliver(int version, int expectedStatus = 0)
    {
        MakeCommand(version);
        LogConnection log(*command_, 42);
        return DeliverByWorker(log, expectedStatus);
    }

    std::string directory_;
    std::string path_;
    std::unique_ptr<BaseConnection> command_;
    QORListPtrBaseSocket noSockets_{0};
};

TEST_F(LogDelivery, SendsTheWholeLog)
{
    for (const int version : {OneBufferVersion, StreamingVersion}) {
        for (const size_t size : {0, 1, 16383, 16384, 16385, 10240000}) {
            const std::string content = MakeContent(size);
            WriteLog(content);
            EXPECT_TRUE(Deliver(version) == Head + content + Tail) << version << ' ' << size;
            EXPECT_TRUE(LogExists());
        }
    }
}

TEST_F(LogDelivery, CutsAtTheLimitForOldClientsAndKeepsTheLog)
{
    const std::string content = MakeContent(10240001);
    const struct {
        int version;
        int status;
        std::string received;
        bool isKept;
    } Cases[] = {
        {OneBufferVersion, LogConnection::LogWasCut,
         Head + content.substr(0, 10240000) + "\n->Error maximum size of log command file reached (10M)\n" +
             Tail,
         true},
        {StreamingVersion, 0, Head + content + Tail, false},
    };
    for (const auto& one : Cases) {
        WriteLog(content);
        MakeCommand(one.version);
        LogConnection log(*command_, 42);
        EXPECT_TRUE(DeliverByWorker(log, one.status) == one.received) << one.version;
        EXPECT_EQ(log.DeleteOutputFile(30), 0);
        EXPECT_EQ(LogExists(), one.isKept) << one.version;
    }
}

TEST_F(LogDelivery, DeliversNothingThatIsNotTheUsersLog)
{
    const std::string other = directory_ + "/other";
    std::ofstream(other) << "secret";
    const struct {
        const char* what;
        std::function<void()> make;
    } Cases[] = {
        {"nothing", [] {}},
        {"a link", [&] { ASSERT_EQ(symlink(other.c_str(), path_.c_str()), 0); }},
        {"a second name", [&] { ASSERT_EQ(link(other.c_str(), path_.c_str()), 0); }},
        {"a pipe", [&] { ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0); }},
        {"a directory", [&] { ASSERT_EQ(mkdir(path_.c_str(), 0700), 0); }},
    };
    for (const auto& one : Cases) {
        one.make();
        for (const int version : {OneBufferVersion, StreamingVersion}) {
            const std::string received = Deliver(version);
            const std::string lead = Head + "->Error unable to check log command file : ";
            EXPECT_EQ(received.substr(0, lead.size()), lead) << one.what;
            EXPECT_EQ(received.find('\n', lead.size()), received.size() - Tail.size() - 1) << one.what;
            EXPECT_EQ(received.substr(received.size() - Tail.size()), Tail) << one.what;
        }
        remove(path_.c_str());
    }
}

TEST_F(LogDelivery, DeliversNoOtherUsersFile)
{
    WriteLog("secret");
    MakeCommand(StreamingVersion);
    command_->SetOutputFileOwner(geteuid() + 1);
    LogConnection log(*command_, 42);
    const std::string received = DeliverByWorker(log, 0);
    EXPECT_NE(received.find("->Error unable to check log command file : "), std::string::npos);
    EXPECT_EQ(received.find("secret"), std::string::npos);
}

TEST_F(LogDelivery, TellsThatTheSizeCannotBeHad)
{
    path_ = "/proc/self/mem"; // a regular file of ours that has no end
    EXPECT_EQ(Deliver(StreamingVersion), Head + "->Error unable to get log command file stat\n" + Tail);
}

TEST_F(LogDelivery, IsListedWithCodeAndStatus)
{
    WriteLog("12345");
    MakeCommand(StreamingVersion);
    LogConnection log(*command_, 42);
    QORUnicodeString attributes;
    QORUnicodeString line;
    command_->GetAttributes("->", attributes);
    log.GetAttributes("->", line);
    EXPECT_EQ(line.View(), std::string(attributes.View()) + ", RC(42)");
    DeliverByWorker(log, 0);
    log.GetAttributes("->", line);
    const std::string lead = std::string(attributes.View()) + ", RC(42), STATUS(sent 5 byte(s) in ";
    EXPECT_EQ(line.View().substr(0, lead.size()), lead);
    EXPECT_EQ(line.View().back(), ')');
}

/** A failed test leaves no worker behind. */
struct EndAndDelete {
    void operator()(LogConnection* log) const
    {
        int status;
        log->TerminateThreadOrProcess(1);
        log->WaitThreadOrProcess(status, 20);
        delete log;
    }
};
using LogWithWorker = std::unique_ptr<LogConnection, EndAndDelete>;

/** A passive client's end of the delivery. */
class PassiveDelivery : public LogDelivery
{
protected:
    LogWithWorker Start(const char* message, const sockaddr_in* localAddress)
    {
        MakeCommand(StreamingVersion, localAddress);
        command_->SetPassiveHostAddressAndPortNumber("127.0.0.1", collector_.port);
        LogWithWorker log(new LogConnection(*command_, 42));
        log->SetMessage(message);
        EXPECT_EQ(log->StartThreadOrProcess(noSockets_), 0);
        return log;
    }
    static void ExpectEnd(LogConnection& log, int expectedStatus)
    {
        int status = -1;
        EXPECT_EQ(log.WaitThreadOrProcess(status, 20), 1);
        EXPECT_EQ(status, expectedStatus);
    }
    std::string Identifier() const { return std::string(command_->GetIdentifier().View()); }

    loopback::Listener collector_;
};

TEST_F(PassiveDelivery, SendsIdentifierThenLogOrMessage)
{
    const std::string content = MakeContent(100000);
    WriteLog(content);
    for (const char* message : {"", "->Command killed\n"}) {
        auto log = Start(message, nullptr);
        BaseSocket client;
        collector_.Accept(client);
        EXPECT_TRUE(loopback::ReadToEnd(client) ==
                    Identifier() + (*message != '\0' ? message : Head + content + Tail));
        client.CloseBaseSocket();
        ExpectEnd(*log, 0);
    }
}

TEST_F(PassiveDelivery, ComesFromTheGivenPortWhereThatIsFree)
{
    WriteLog("12345");
    BaseSocket reservation; // bound but not listening: shared with whoever allows it too
    ASSERT_EQ(reservation.Bind(loopback::Address(0)), 0);
    sockaddr_in local{};
    ASSERT_EQ(reservation.GetSocketName(local), 0);
    loopback::Listener other;
    const sockaddr_in taken = loopback::Address(other.port);
    const struct {
        const char* what;
        const sockaddr_in* local;
        bool isUsed;
    } Cases[] = {
        {"free", &local, true}, {"connected already", &local, false}, {"listened on", &taken, false}};
    BaseSocket clients[3];
    LogWithWorker logs[3];
    for (int i = 0; i < 3; ++i) {
        logs[i] = Start("", Cases[i].local);
        const int port = collector_.Accept(clients[i]);
        EXPECT_EQ(port == ntohs(Cases[i].local->sin_port), Cases[i].isUsed) << Cases[i].what;
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(loopback::ReadToEnd(clients[i]), Identifier() + Head + "12345" + Tail) << Cases[i].what;
        clients[i].ShutdownSending();
        ExpectEnd(*logs[i], 0);
    }
}

TEST_F(PassiveDelivery, LosesNothingToAClientThatSends)
{
    const std::string content = MakeContent(3000000);
    WriteLog(content);
    auto log = Start("", nullptr);
    BaseSocket client;
    collector_.Accept(client);
    EXPECT_EQ(client.WriteToBaseSocket(std::string(5000, 'x')), 0);
    EXPECT_TRUE(loopback::ReadToEnd(client) == Identifier() + Head + content + Tail);
    client.CloseBaseSocket();
    ExpectEnd(*log, 0);
}

TEST_F(PassiveDelivery, IsNotTriedAgainAfterAReset)
{
    WriteLog(MakeContent(10000000));
    auto log = Start("", nullptr);
    BaseSocket client;
    collector_.Accept(client);
    const linger atOnce = {1, 0};
    setsockopt(client.GetBaseSocketNumber(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    client.CloseBaseSocket();
    int status = -1;
    EXPECT_EQ(log->WaitThreadOrProcess(status, 20), 1);
    sockaddr_in from{};
    EXPECT_EQ(collector_.socket.AcceptConnectionFromClientWithTimeOut(client, from, 0, 0),
              BaseSocket::AcceptTimeOut);
}

TEST_F(PassiveDelivery, WaitsForItsClientUntilItIsEnded)
{
    WriteLog("12345");
    collector_.socket.CloseBaseSocket();
    auto log = Start("", nullptr);
    int status = -1;
    EXPECT_EQ(log->WaitThreadOrProcess(status, 0), 0);
    EXPECT_EQ(log->TerminateThreadOrProcess(0), 0);
    ExpectEnd(*log, 999);
}
} // namespace
