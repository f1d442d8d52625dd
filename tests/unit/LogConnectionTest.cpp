#include <cstdlib>
#include <fstream>
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
        remove((directory_ + "/log").c_str());
        rmdir(directory_.c_str());
    }

    void WriteLog(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }

    /** Makes `command_` the one whose log is at `path_`. */
    void MakeCommand(const sockaddr_in* localAddress = nullptr)
    {
        command_ = std::make_unique<BaseConnection>(localAddress);
        command_->SetAttributes("NOSOCKET", "joe", 1000, "true", 5, StreamingVersion, "127.0.0.1", 5678);
        command_->GetProcess().SetOutputAndErrorFileName(path_);
    }

    /** What the client of a launch that is not passive receives, its log's worker having run. */
    std::string Deliver(LogConnection& log)
    {
        loopback::Pair pair;
        log.GetSocket() = pair.server;
        pair.server.Reset();
        EXPECT_EQ(log.StartThreadOrProcess(noSockets_), 0);
        log.GetSocket().CloseBaseSocket();
        std::string received = loopback::ReadToEnd(pair.client);
        int status = -1;
        EXPECT_EQ(log.WaitThreadOrProcess(status, 20), 1);
        EXPECT_EQ(status, 0);
        return received;
    }

    std::string directory_;
    std::string path_;
    std::unique_ptr<BaseConnection> command_;
    QORListPtrBaseSocket noSockets_{0};
};

TEST_F(LogDelivery, TellsThatTheSizeCannotBeHad)
{
    path_ = "/proc/self/mem"; // a regular file of ours that has no end
    MakeCommand();
    LogConnection log(*command_, 42);
    EXPECT_EQ(Deliver(log), Head + "->Error unable to get log command file stat\n" + Tail);
}

TEST_F(LogDelivery, IsListedWithCodeAndStatus)
{
    WriteLog("12345");
    MakeCommand();
    LogConnection log(*command_, 42);
    QORUnicodeString attributes;
    QORUnicodeString line;
    command_->GetAttributes("->", attributes);
    log.GetAttributes("->", line);
    EXPECT_EQ(line.View(), std::string(attributes.View()) + ", RC(42)");
    Deliver(log);
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
    LogWithWorker Start(const sockaddr_in* localAddress)
    {
        MakeCommand(localAddress);
        command_->SetPassiveHostAddressAndPortNumber("127.0.0.1", collector_.port);
        LogWithWorker log(new LogConnection(*command_, 42));
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
        logs[i] = Start(Cases[i].local);
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
    auto log = Start(nullptr);
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
    auto log = Start(nullptr);
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

} // namespace
