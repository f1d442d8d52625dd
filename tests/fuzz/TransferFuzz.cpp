// The two sides of a transfer's handshake, each against a peer that says what the input has it say. The first
// byte chooses; what follows is what the peer says on the control connection and, behind a '~', the data.

#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/ServerConnection.h"
#include "client/TransferExchange.h"
#include "connections/TransferConnection.h"
#include "support/CheckSum.h"
#include "support/FileDescriptor.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
const std::string Content = "What the daemon has\nof the file already\r\n";

/**
 * A peer on a port of this machine: it takes one connection, sends its words, says that this was all, and
 * keeps what it is sent. Its end is waited for by Finish(), also when nobody has come.
 */
class Peer
{
public:
    explicit Peer(std::string_view words)
    {
        int ends[2];
        Require(pipe2(ends, O_CLOEXEC) == 0, "a pipe can be had");
        stop_ = FileDescriptor(ends[1]);
        thread_ = std::thread([this, words, stopped = ends[0]] {
            Talk(words, stopped);
            close(stopped);
        });
    }
    ~Peer() { Finish(); }

    static BaseSocket& Listening()
    {
        static BaseSocket socket;
        return socket;
    }
    static int Port()
    {
        static const int number = [] {
            int port = 0;
            Require(Listening().OpenServerSocket(port, 8) == 0, "a port can be had");
            return port;
        }();
        return number;
    }

    const std::string& Finish()
    {
        stop_ = FileDescriptor();
        if (thread_.joinable())
            thread_.join();
        return received_;
    }

private:
    void Talk(std::string_view words, int stopped)
    {
        pollfd ready[] = {{Listening().GetBaseSocketNumber(), POLLIN, 0}, {stopped, POLLIN, 0}};
        poll(ready, 2, -1);
        if (ready[0].revents == 0)
            return;
        const FileDescriptor peer(accept4(Listening().GetBaseSocketNumber(), nullptr, nullptr, SOCK_CLOEXEC));
        [[maybe_unused]] const ssize_t sent = send(peer.Number(), words.data(), words.size(), MSG_NOSIGNAL);
        shutdown(peer.Number(), SHUT_WR);
        char buffer[65536];
        ssize_t count = 0;
        while ((count = recv(peer.Number(), buffer, sizeof buffer, 0)) > 0)
            received_.append(buffer, static_cast<std::size_t>(count));
    }

    FileDescriptor stop_;
    std::string received_;
    std::thread thread_;
};

void TalkToClient(unsigned choice, std::string_view words)
{
    const Server server{.host = "127.0.0.1", .port = Peer::Port(), .user = "user"};
    Peer peer(words);
    TransferRequest request;
    request.isGet = choice % 2 == 0;
    request.isUpdate = choice % 4 < 2;
    request.file = "file";
    TransferExchange exchange(server);
    TransferAnswer answer;
    Failure failure = exchange.Begin(request, answer);
    if (!failure && answer.kind == TransferAnswer::Offer)
        failure = choice % 8 < 4 ? exchange.Reply(true, answer) : exchange.Decline();
    if (!failure)
        failure = exchange.Conclude(ServerConnection());
    Require(failure.sentence.find('\n') == std::string::npos, "a failure is told in one line");
}

std::string ReadFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/** As the daemon must: what the client wrote less one terminator. */
std::string_view ChoiceOf(std::string_view reply)
{
    if (reply.ends_with("\r\n"))
        return reply.substr(0, reply.size() - 2);
    return reply.ends_with('\n') || reply.ends_with('\0') ? reply.substr(0, reply.size() - 1) : reply;
}

struct Turn {
    bool isGet, isUpdate, isAscii;
    std::string_view reply, data;
};

/** What the file holds after a put. */
std::string ExpectedOf(const Turn& turn)
{
    if (turn.isUpdate && ChoiceOf(turn.reply) == "UPDATEWRITE")
        return Content + std::string(turn.data);
    if (turn.isUpdate && ChoiceOf(turn.reply) != "WRITE")
        return Content;
    std::string file(turn.data);
    if (turn.isAscii)
        for (std::size_t at = 0; (at = file.find("\r\n", at)) != std::string::npos; ++at)
            file.erase(at, 1);
    return file;
}

void CheckGet(const Turn& turn, std::string_view clientsPart, const std::string& received)
{
    if (turn.isUpdate)
        return Require(std::string(clientsPart) + received == Content || received == Content,
                       "a get sends all, or the rest of what its client has");
    std::string expected = Content;
    if (turn.isAscii)
        for (std::size_t at = 0; (at = expected.find('\n', at)) != std::string::npos; at += 2)
            expected.insert(at, "\r");
    Require(received == expected, "a get sends the file");
}

/** What the daemon's worker does for the turn, with a client that says its part. */
int RunWorker(const Turn& turn, const std::string& file, std::string_view clientsPart, std::string& received)
{
    BaseSocket client;
    sockaddr_in from{};
    CheckSum sum;
    sum.Update(clientsPart.data(), static_cast<unsigned>(clientsPart.size()));
    TransferConnection transfer("127.0.0.1", nullptr);
    transfer.SetAttributes("user", "", 0, turn.isGet ? TransferConnection::Get : TransferConnection::Put,
                           turn.isAscii, file.c_str(), 1, 13, 1, 0);
    transfer.SetPassiveHostAddressAndPortNumber("127.0.0.1", Peer::Port());
    if (turn.isUpdate)
        transfer.SetUpdateSizeAndCheckSum(static_cast<long long>(clientsPart.size()), sum.GetValue(),
                                          sum.GetValue());
    Require(client.OpenConnectionToServerNonBlocking("127.0.0.1", Peer::Port(), 5, nullptr) == 0 &&
                Peer::Listening().AcceptConnectionFromClientWithTimeOut(transfer.GetSocket(), from, 5, 0) ==
                    BaseSocket::Accepted,
            "a control connection can be made");
    client.WriteToBaseSocket(QORUnicodeString(turn.reply));
    client.ShutdownSending();
    Peer peer(turn.isGet ? std::string_view() : turn.data);
    const int result = transfer.ThreadOrProcessRoutine();
    received = peer.Finish();
    return result;
}

void TalkToDaemon(const Turn& turn)
{
    const std::string file = OwnDirectory() + "/file";
    std::ofstream(file, std::ios::binary) << Content;
    // Of an update get: what its client has, which may be anything. It is of one block.
    const std::string_view clientsPart = turn.data.substr(0, turn.isGet ? Content.size() : 0);
    std::string received;
    const int result = RunWorker(turn, file, clientsPart, received);
    if (turn.isGet) {
        Require(result == 0, "a get succeeds");
        CheckGet(turn, clientsPart, received);
    } else {
        Require(ReadFile(file) == ExpectedOf(turn), "a put writes what was sent");
    }
}
} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    SilenceStandardOutput();
    GoOnAfterAlarms();
    const auto [choice, text] = TakeChoice(data, size);
    const std::vector<std::string_view> said = Split(text, '~');
    if (choice % 2 == 0)
        TalkToClient(choice / 2, text);
    else
        TalkToDaemon({.isGet = (choice & 2) != 0,
                      .isUpdate = (choice & 12) == 4,
                      .isAscii = (choice & 12) == 8,
                      .reply = said.front(),
                      .data = said.size() > 1 ? text.substr(said.front().size() + 1) : std::string_view()});
    return 0;
}
