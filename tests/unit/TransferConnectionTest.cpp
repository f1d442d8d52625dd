#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "connections/TransferConnection.h"
#include "support/Account.h"
#include "support/BaseString.h"
#include "support/CheckSum.h"
#include "support/Clock.h"
#include "tests/unit/Loopback.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
const std::string BannerLine = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n";
constexpr int Binary = 0;
constexpr int Ascii = 1;

std::string MakeContent(size_t size)
{
    std::string content(size, '\0');
    unsigned state = 7;
    for (char& byte : content)
        byte = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
    return content;
}

unsigned Sum(const std::string& bytes)
{
    CheckSum sum;
    sum.Update(bytes.data(), static_cast<unsigned>(bytes.size()));
    return sum.GetValue();
}

/** The client of one transfer after the other, each with a new control connection and worker. */
class Transfers : public testing::Test
{
protected:
    Transfers()
    {
        umask(022);
        char name[] = "/tmp/transfers-XXXXXX";
        directory_ = mkdtemp(name);
        chmod(name, 0777);
        path_ = directory_ + "/file";
    }
    ~Transfers() override
    {
        EndWorker();
        remove(path_.c_str());
        rmdir(directory_.c_str());
    }

    void WriteFile(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }
    std::string ReadFile() const
    {
        std::ostringstream content;
        content << std::ifstream(path_, std::ios::binary).rdbuf();
        return content.str();
    }
    bool FileExists() const { return access(path_.c_str(), F_OK) == 0; }

    /** A transfer that keeps this process' identity; to be started when it has been told the rest. */
    TransferConnection& Make(int type, int mode, const std::string& user = "joe", int noImpersonation = 1,
                             const sockaddr_in* localAddress = nullptr)
    {
        EndWorker();
        control_ = std::make_unique<loopback::Pair>();
        transfer_ = std::make_unique<TransferConnection>("", localAddress);
        transfer_->SetAttributes(QORUnicodeString(user), "", 1000, type, mode, path_, 4, 13, noImpersonation,
                                 1);
        transfer_->GetSocket() = control_->server;
        control_->server.Reset();
        return *transfer_;
    }
    void Start()
    {
        EXPECT_EQ(transfer_->StartThreadOrProcess(noSockets_), 0);
        transfer_->GetSocket().CloseBaseSocket();
    }
    std::string ReadAnswer()
    {
        QORUnicodeString text;
        EXPECT_EQ(control_->client.ReadFromBaseSocketNonBlocking(text, loopback::DeadlineSeconds), 0);
        return std::string(text.View());
    }
    /** Connects to the port in the answer to a transfer that has just begun; that answer's rest. */
    std::string Connect(const std::string& keyword, BaseSocket& data)
    {
        const std::string answer = ReadAnswer();
        EXPECT_EQ(answer.substr(0, keyword.size() + 1), keyword + "|");
        const int port = atoi(answer.c_str() + keyword.size() + 1);
        EXPECT_EQ(
            data.OpenConnectionToServerNonBlocking("127.0.0.1", port, loopback::DeadlineSeconds, nullptr), 0)
            << answer;
        return answer.substr(std::min(answer.size(), answer.find('|', keyword.size() + 1) + 1));
    }
    void ExpectEnd(int expectedStatus)
    {
        int status = -1;
        EXPECT_EQ(transfer_->WaitThreadOrProcess(status, loopback::DeadlineSeconds), 1);
        EXPECT_EQ(status, expectedStatus);
    }
    /** A failed test leaves no worker behind. */
    void EndWorker()
    {
        int status;
        if (transfer_ == nullptr)
            return;
        transfer_->TerminateThreadOrProcess(1);
        transfer_->WaitThreadOrProcess(status, loopback::DeadlineSeconds);
    }
    std::string Line() const
    {
        QORUnicodeString line;
        transfer_->GetAttributes("->", line);
        return std::string(line.View());
    }

    std::string directory_;
    std::string path_;
    std::unique_ptr<loopback::Pair> control_;
    std::unique_ptr<TransferConnection> transfer_;
    QORListPtrBaseSocket noSockets_{0};
};

TEST_F(Transfers, BringFilesBackAsTheyWent)
{
    for (const bool isPassive : {false, true}) {
        for (const size_t size : {0, 1, 16383, 16384, 16385, 3000000}) {
            const std::string content = MakeContent(size);
            for (const int type : {TransferConnection::Put, TransferConnection::Get}) {
                loopback::Listener collector;
                BaseSocket data;
                Make(type, Binary);
                if (isPassive)
                    transfer_->SetPassiveHostAddressAndPortNumber("127.0.0.1", collector.port);
                Start();
                const std::string keyword = type == TransferConnection::Put ? "READ" : "WRITE";
                if (isPassive) {
                    EXPECT_EQ(ReadAnswer(), keyword + "|0|" + BannerLine);
                    collector.Accept(data);
                } else {
                    EXPECT_EQ(Connect(keyword, data), BannerLine);
                }
                if (type == TransferConnection::Put)
                    EXPECT_EQ(data.WriteToBaseSocket(content), 0);
                else
                    EXPECT_TRUE(loopback::ReadToEnd(data) == content) << size;
                data.CloseBaseSocket();
                ExpectEnd(0);
            }
            EXPECT_TRUE(ReadFile() == content) << size;
        }
    }
}

TEST_F(Transfers, ConvertLineEnds)
{
    BaseSocket data;
    Make(TransferConnection::Put, Ascii);
    transfer_->SetUpdateSizeAndCheckSum(1, 0, 0); // means nothing in this mode
    Start();
    Connect("READ", data);
    std::string sent;
    for (int i = 0; i < 20000; ++i)
        sent += std::string(static_cast<size_t>(i % 7), 'x') + (i % 5 == 0 ? "\r" : "\r\n");
    EXPECT_EQ(data.WriteToBaseSocket(sent), 0);
    data.CloseBaseSocket();
    ExpectEnd(0);
    std::string expected = sent;
    for (size_t at = 0; (at = expected.find("\r\n", at)) != std::string::npos;)
        expected.erase(at, 1);
    EXPECT_TRUE(ReadFile() == expected);

    WriteFile("a\nb\n");
    Make(TransferConnection::Get, Ascii).SetUpdateSizeAndCheckSum(1, 0, 0);
    Start();
    EXPECT_EQ(Connect("WRITE", data), BannerLine);
    EXPECT_EQ(loopback::ReadToEnd(data), "a\r\nb\r\n");
    ExpectEnd(0);
}

TEST_F(Transfers, SendOnlyWhatTheClientLacks)
{
    const std::string content = MakeContent(50000);
    WriteFile(content);
    const std::string part = content.substr(0, 20000);
    const unsigned head = Sum(part.substr(0, 16384));
    const std::string off = "->Warning update mode desactivated\n";
    const struct {
        const char* what;
        long long size;
        unsigned head, body;
        std::string keyword, message;
        size_t skipped;
    } Cases[] = {
        {"matching", 20000, head, Sum(part), "UPDATEWRITE",
         "->Update mode activated, skipping first 20000/50000 byte(s)\n", 20000},
        {"nothing yet", 0, 0, 0, "UPDATEWRITE", "->Update mode activated, skipping first 0/50000 byte(s)\n",
         0},
        {"one block", 16384, head, head, "UPDATEWRITE",
         "->Update mode activated, skipping first 16384/50000 byte(s)\n", 16384},
        {"all", 50000, head, Sum(content), "UPDATEWRITE",
         "->Update mode activated, skipping first 50000/50000 byte(s)\n", 50000},
        {"head changed", 20000, head + 1, Sum(part), "WRITE",
         "->Warning bad head integrity (CRC) of remote file...(" + path_ + ")\n" + off, 0},
        {"body changed", 20000, head, Sum(part) + 1, "WRITE",
         "->Warning bad body integrity (CRC) of remote file..." + path_ + ")\n" + off, 0},
        {"too long", 50001, head, Sum(part), "WRITE",
         "->Warning inconsistant size of remote file...(" + path_ + ") : smaller than expected\n" + off, 0},
    };
    for (const auto& one : Cases) {
        BaseSocket data;
        Make(TransferConnection::Get, Binary).SetUpdateSizeAndCheckSum(one.size, one.head, one.body);
        Start();
        EXPECT_EQ(Connect(one.keyword, data), BannerLine + one.message) << one.what;
        EXPECT_TRUE(loopback::ReadToEnd(data) == content.substr(one.skipped)) << one.what;
        ExpectEnd(0);
    }
}

TEST_F(Transfers, OfferWhatTheDaemonHas)
{
    const std::string content = MakeContent(50000);
    const std::string offer = "READINFO|50000|" + std::to_string(Sum(content.substr(0, 16384))) + "|" +
                              std::to_string(Sum(content));
    const struct {
        const char* reply;
        bool isServed;
        std::string kept;
    } Cases[] = {{"UPDATEWRITE", true, content},
                 {"WRITE", true, ""},
                 {"WRITE\r\n", true, ""},
                 {"WRITE|", false, content},
                 {"OTHERWISE", false, content}};
    for (const auto& one : Cases) {
        WriteFile(content);
        Make(TransferConnection::Put, Binary).SetUpdateSizeAndCheckSum(0, 0, 0);
        Start();
        EXPECT_EQ(ReadAnswer(), offer);
        EXPECT_EQ(control_->client.WriteToBaseSocket(one.reply), 0);
        if (one.isServed) {
            BaseSocket data;
            EXPECT_EQ(Connect("READ", data), BannerLine) << one.reply;
            EXPECT_EQ(data.WriteToBaseSocket("the rest"), 0);
        } else {
            EXPECT_EQ(loopback::ReadToEnd(control_->client), "") << one.reply;
        }
        ExpectEnd(one.isServed ? 0 : 1);
        EXPECT_TRUE(ReadFile() == one.kept + (one.isServed ? "the rest" : "")) << one.reply;
    }
}

TEST_F(Transfers, WriteTheWholeWhenThereIsNothingToUpdate)
{
    BaseSocket data;
    Make(TransferConnection::Put, Binary).SetUpdateSizeAndCheckSum(0, 0, 0);
    Start();
    EXPECT_EQ(Connect("READ", data), BannerLine + "->Warning unable to open remote file...(" + path_ +
                                         ") : " + strerror(ENOENT) +
                                         "\n->Warning update mode desactivated\n");
    EXPECT_EQ(data.WriteToBaseSocket("new"), 0);
    data.CloseBaseSocket();
    ExpectEnd(0);
    EXPECT_EQ(ReadFile(), "new");
}

TEST_F(Transfers, RefuseFilesWithTheSystemsReason)
{
    const std::string put = "READERROR|" + BannerLine + "->Error unable to create remote file...( ";
    const std::string get = "WRITEERROR|" + BannerLine + "->Error unable to open remote file...( ";
    const struct {
        int type;
        std::string path, answerLead;
        int error;
    } Cases[] = {
        {TransferConnection::Get, path_, get, ENOENT},
        {TransferConnection::Get, path_ + "/below", get, ENOENT},
        {TransferConnection::Put, directory_, put, EISDIR},
        {TransferConnection::Put, directory_ + "/missing/file", put, ENOENT},
        {TransferConnection::Get, path_ + std::string("\0hidden", 7), get, EINVAL},
    };
    for (auto& one : Cases) {
        const std::string path = std::exchange(path_, one.path);
        Make(one.type, Binary);
        path_ = path;
        Start();
        EXPECT_EQ(loopback::ReadToEnd(control_->client),
                  one.answerLead + one.path + ") : " + strerror(one.error) + "\n");
        ExpectEnd(1);
    }
}

TEST_F(Transfers, LeaveNoHalfFileButWhatAnUpdateMayGoOnFrom)
{
    const struct {
        const char* what;
        bool isUpdate;
        int signal; // 0: the client resets the data connection
        int status;
        bool isKept;
    } Cases[] = {{"reset", false, 0, 1, false},
                 {"reset update", true, 0, 1, true},
                 {"terminated", false, SIGTERM, 999, false},
                 {"terminated update", true, SIGTERM, 999, true},
                 {"killed", false, SIGKILL, 999, true}};
    for (const auto& one : Cases) {
        remove(path_.c_str());
        BaseSocket data;
        Make(TransferConnection::Put, Binary);
        if (one.isUpdate)
            transfer_->SetUpdateSizeAndCheckSum(0, 0, 0);
        Start();
        Connect("READ", data);
        EXPECT_EQ(data.WriteToBaseSocket("half"), 0);
        const long long deadline = Clock::SteadyMilliseconds() + 20000;
        while (ReadFile() != "half" && Clock::SteadyMilliseconds() < deadline)
            usleep(1000);
        if (one.signal == 0) {
            const linger atOnce = {1, 0};
            setsockopt(data.GetBaseSocketNumber(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            data.CloseBaseSocket();
        } else {
            EXPECT_EQ(transfer_->TerminateThreadOrProcess(one.signal == SIGKILL), 0);
        }
        ExpectEnd(one.status);
        EXPECT_EQ(FileExists(), one.isKept) << one.what;
    }
}

TEST_F(Transfers, TellAFullDeviceAndDoNotRemoveIt)
{
    ASSERT_EQ(symlink("/dev/full", path_.c_str()), 0);
    BaseSocket data;
    Make(TransferConnection::Put, Binary);
    Start();
    Connect("READ", data);
    data.WriteToBaseSocket("does not fit");
    ExpectEnd(1);
    EXPECT_TRUE(FileExists());
}

TEST_F(Transfers, RunUnderTheUsersIdentityButBindTheDaemonsAddress)
{
    // Root can become anybody, everybody else only who he is.
    const std::string name = geteuid() == 0 ? "nobody" : Accounts::Own().name;
    Account user;
    ASSERT_EQ(Accounts::Find(QORUnicodeString(name), user), 0);
    BaseSocket reservation; // bound but not listening: shared with whoever allows it too
    ASSERT_EQ(reservation.Bind(loopback::Address(0)), 0);
    sockaddr_in local{};
    ASSERT_EQ(reservation.GetSocketName(local), 0);
    loopback::Listener collector;
    Make(TransferConnection::Put, Binary, "DOM\\" + name, 0, &local).SetUserVerdict(true, "");
    transfer_->SetPassiveHostAddressAndPortNumber("127.0.0.1", collector.port);
    Start();
    EXPECT_EQ(ReadAnswer(), "READ|0|" + BannerLine);
    BaseSocket data;
    EXPECT_EQ(collector.Accept(data), ntohs(local.sin_port));
    EXPECT_EQ(data.WriteToBaseSocket("mine"), 0);
    data.CloseBaseSocket();
    ExpectEnd(0);
    EXPECT_EQ(ReadFile(), "mine");
    struct stat status;
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, user.userId);
    EXPECT_EQ(status.st_gid, user.groupId);
    EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST_F(Transfers, TellNothingOfTheWorkersOwnMemory)
{
    const std::string path = std::exchange(path_, "/proc/self/maps");
    Make(TransferConnection::Get, Binary, Accounts::Own().name, 0).SetUserVerdict(true, "");
    path_ = path;
    Start();
    EXPECT_EQ(ReadAnswer(),
              "WRITEERROR|" + BannerLine +
                  "->Error unable to open remote file...( /proc/self/maps) : " + strerror(EACCES) + "\n");
    ExpectEnd(1);
}

TEST_F(Transfers, AnswerARefusedUser)
{
    for (const auto& [type, keyword] : {std::pair(TransferConnection::Get, "WRITEERROR"),
                                        std::pair(TransferConnection::Put, "READERROR")}) {
        Make(type, Binary, "joe", 0).SetUserVerdict(false, "the reason");
        Start();
        EXPECT_EQ(loopback::ReadToEnd(control_->client),
                  keyword + ("|" + BannerLine) + "->Error unable to impersonate : the reason\n");
        ExpectEnd(1);
        EXPECT_FALSE(FileExists());
    }
}

TEST_F(Transfers, AreListed)
{
    QORUnicodeString date;
    BaseString::CreateFormatedDate(date, 1000);
    Make(TransferConnection::Put, Ascii, "DOM\\Joe").SetLifeTimeOut(600);
    EXPECT_EQ(Line(), "->N(4), UID(DOM\\Joe), BDATE(" + std::string(date.View()) +
                          "), LTO(600), CMD(TRANSFER PUT), MODE(ASCII), TYPE(ACTIVE), REMOTE FILE(" + path_ +
                          ")");
    EXPECT_EQ(transfer_->IsSameUser("other\\joe"), 1);
    EXPECT_EQ(transfer_->IsSameUser("joe2"), 0);

    WriteFile("12345");
    Make(TransferConnection::Get, Binary).SetPassiveHostAddressAndPortNumber("127.0.0.1", 1);
    EXPECT_EQ(Line(), "->N(4), UID(joe), BDATE(" + std::string(date.View()) +
                          "), LTO(0), CMD(TRANSFER GET), MODE(BINARY), TYPE(PASSIVE), REMOTE FILE(" + path_ +
                          ")");
    loopback::Listener collector;
    transfer_->SetPassiveHostAddressAndPortNumber("127.0.0.1", collector.port);
    Start();
    BaseSocket data;
    collector.Accept(data);
    loopback::ReadToEnd(data);
    ExpectEnd(0);
    const std::string status = ", REMOTE FILE(" + path_ + "), STATUS(sent 5 byte(s) in ";
    EXPECT_NE(Line().find(status), std::string::npos) << Line();
}
} // namespace
