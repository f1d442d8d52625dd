#include "tests/system/Client.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
constexpr size_t LongestQuote = 160;
constexpr size_t LongestDialogue = 40000;

[[noreturn]] void Fail(const char* what)
{
    throw std::runtime_error(what + std::string(strerror(errno)));
}

sockaddr_in LoopbackAddress(int port, unsigned host = 1)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl((IN_LOOPBACKNET << 24) + host);
    return address;
}

FileDescriptor MakeSocket()
{
    FileDescriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made.IsOpen())
        Fail("socket: ");
    return made;
}

bool HasInput(const FileDescriptor& descriptor, const Deadline& deadline)
{
    pollfd waiting{descriptor.Number(), POLLIN, 0};
    return poll(&waiting, 1, deadline.MillisecondsLeft()) != 0;
}

std::string Quote(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes.substr(0, LongestQuote)) {
        if (c == '\n')
            text += "\\n";
        else
            text += c >= ' ' && c <= '~' ? c : '?';
    }
    return bytes.size() > LongestQuote ? text + "... (" + std::to_string(bytes.size()) + " bytes)" : text;
}
} // namespace

void Dialogue::Record(int connection, std::string_view what, std::string_view bytes)
{
    if (text_.size() > LongestDialogue)
        return;
    text_ += "connection " + std::to_string(connection) + " " + std::string(what) + Quote(bytes) + "\n";
}

Client::Client(int port, Dialogue& dialogue, int receiveBufferBytes, unsigned host)
    : connection_(MakeSocket()), dialogue_(dialogue)
{
    if (receiveBufferBytes > 0)
        setsockopt(connection_.Number(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes,
                   sizeof receiveBufferBytes);
    const int on = 1;
    setsockopt(connection_.Number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const sockaddr_in own = LoopbackAddress(0, host);
    const sockaddr_in address = LoopbackAddress(port);
    if (bind(connection_.Number(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        connect(connection_.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        Fail("connect: ");
}

Client::Client(Dialogue& dialogue, FileDescriptor connection)
    : connection_(std::move(connection)), dialogue_(dialogue)
{
}

void Client::Send(std::string_view bytes)
{
    dialogue_.Record(connection_.Number(), "-> ", bytes);
    while (!bytes.empty()) {
        const ssize_t sent = send(connection_.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            dialogue_.Record(connection_.Number(), "could not send: ", strerror(errno));
            return;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

void Client::HalfClose()
{
    dialogue_.Record(connection_.Number(), "-> (end)");
    shutdown(connection_.Number(), SHUT_WR);
}

void Client::Reset()
{
    dialogue_.Record(connection_.Number(), "-> (reset)");
    const linger atOnce{1, 0};
    setsockopt(connection_.Number(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    connection_ = FileDescriptor();
}

Client::Arrival Client::ReceiveMore(const Deadline& deadline)
{
    if (!HasInput(connection_, deadline))
        return Arrival::Late;
    char buffer[65536];
    const ssize_t count = recv(connection_.Number(), buffer, sizeof buffer, 0);
    if (count < 0) {
        dialogue_.Record(connection_.Number(), "<- (", strerror(errno));
        return Arrival::Reset;
    }
    if (count == 0) {
        dialogue_.Record(connection_.Number(), "<- (end)");
        return Arrival::End;
    }
    arrived_.append(buffer, static_cast<size_t>(count));
    dialogue_.Record(connection_.Number(), "<- ", {buffer, static_cast<size_t>(count)});
    return Arrival::Bytes;
}

std::string Client::Take(size_t bytes)
{
    std::string taken = arrived_.substr(0, bytes);
    arrived_.erase(0, bytes);
    return taken;
}

template <class Condition>
Client::Arrival Client::Receive(Condition isEnough)
{
    const Deadline deadline;
    Arrival arrival = Arrival::Bytes;
    while (arrival == Arrival::Bytes && !isEnough())
        arrival = ReceiveMore(deadline);
    return arrival;
}

size_t Client::Receive(std::string_view text, Arrival& arrival)
{
    size_t from = 0, found = std::string::npos;
    arrival = Receive([&] {
        found = text.empty() ? std::string::npos : arrived_.find(text, from);
        from = arrived_.size() > text.size() ? arrived_.size() - text.size() : 0;
        return found != std::string::npos;
    });
    return found == std::string::npos ? arrived_.size() : found + text.size();
}

std::string Client::ReadUntil(std::string_view text)
{
    Arrival arrival;
    const size_t end = Receive(text, arrival);
    EXPECT_TRUE(arrival == Arrival::Bytes) << "no \"" << text << "\" came";
    return Take(end);
}

std::string Client::ReadUntilOrEnd(std::string_view text)
{
    Arrival arrival;
    const size_t end = Receive(text, arrival);
    EXPECT_TRUE(arrival != Arrival::Late) << "neither \"" << text << "\" nor the end came";
    return Take(end);
}

std::string Client::ReadExactly(size_t bytes)
{
    EXPECT_TRUE(Receive([&] { return arrived_.size() >= bytes; }) == Arrival::Bytes)
        << "only " << arrived_.size() << " of " << bytes << " bytes came";
    return Take(bytes);
}

std::string Client::ReadToEnd()
{
    const Arrival arrival = Receive([] { return false; });
    EXPECT_TRUE(arrival == Arrival::End)
        << (arrival == Arrival::Reset ? "the stream was reset" : "the stream did not end");
    connection_ = FileDescriptor();
    return Take(arrived_.size());
}

void Client::ExpectDropped()
{
    const Arrival arrival = ReceiveMore(Deadline());
    EXPECT_TRUE(arrival == Arrival::End || arrival == Arrival::Reset) << "the connection was not dropped";
    connection_ = FileDescriptor();
}

bool Client::HasArrived() const
{
    return !arrived_.empty() || HasInput(connection_, Deadline(std::chrono::milliseconds(0)));
}

int Client::PeerPort() const
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getpeername(connection_.Number(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

Collector::Collector(Dialogue& dialogue) : listener_(MakeSocket()), port_(0), dialogue_(dialogue)
{
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof address;
    if (bind(listener_.Number(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        listen(listener_.Number(), SOMAXCONN) != 0 ||
        getsockname(listener_.Number(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        Fail("collector: ");
    }
    port_ = ntohs(address.sin_port);
}

bool Collector::HasArrived() const
{
    return HasInput(listener_, Deadline(std::chrono::milliseconds(0)));
}

Client Collector::Accept()
{
    if (!HasInput(listener_, Deadline()))
        throw std::runtime_error("nobody connected to the collector");
    FileDescriptor connection(accept4(listener_.Number(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.IsOpen())
        Fail("accept: ");
    dialogue_.Record(connection.Number(), "<- (connected)");
    return Client(dialogue_, std::move(connection));
}
