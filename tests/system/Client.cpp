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

sockaddr_in LoopbackAddress(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int MakeSocket()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        Fail("socket: ");
    return descriptor;
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

Client::Client(int port, Dialogue& dialogue, int receiveBufferBytes)
    : descriptor_(MakeSocket()), dialogue_(dialogue)
{
    if (receiveBufferBytes > 0)
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes);
    const int on = 1;
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const sockaddr_in address = LoopbackAddress(port);
    if (connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int reason = errno;
        close(descriptor_);
        errno = reason;
        Fail("connect: ");
    }
}

Client::Client(Dialogue& dialogue, int descriptor) : descriptor_(descriptor), dialogue_(dialogue) {}

Client::Client(Client&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      dialogue_(other.dialogue_),
      arrived_(std::move(other.arrived_))
{
}

Client::~Client()
{
    if (descriptor_ >= 0)
        close(descriptor_);
}

void Client::Send(std::string_view bytes)
{
    dialogue_.Record(descriptor_, "-> ", bytes);
    while (!bytes.empty()) {
        const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            dialogue_.Record(descriptor_, "could not send: ", strerror(errno));
            return;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

void Client::HalfClose()
{
    dialogue_.Record(descriptor_, "-> (end)");
    shutdown(descriptor_, SHUT_WR);
}

void Client::Reset()
{
    dialogue_.Record(descriptor_, "-> (reset)");
    const linger atOnce{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(std::exchange(descriptor_, -1));
}

Client::Arrival Client::ReceiveMore(const Deadline& deadline)
{
    pollfd waiting{descriptor_, POLLIN, 0};
    if (poll(&waiting, 1, deadline.MillisecondsLeft()) == 0)
        return Arrival::Late;
    char buffer[65536];
    const ssize_t count = recv(descriptor_, buffer, sizeof buffer, 0);
    if (count < 0) {
        dialogue_.Record(descriptor_, "<- (", strerror(errno));
        return Arrival::Reset;
    }
    if (count == 0) {
        dialogue_.Record(descriptor_, "<- (end)");
        return Arrival::End;
    }
    arrived_.append(buffer, static_cast<size_t>(count));
    dialogue_.Record(descriptor_, "<- ", {buffer, static_cast<size_t>(count)});
    return Arrival::Bytes;
}

std::string Client::Take(size_t bytes)
{
    std::string taken = arrived_.substr(0, bytes);
    arrived_.erase(0, bytes);
    return taken;
}

std::string Client::ReadUntil(std::string_view text)
{
    const Deadline deadline;
    size_t from = 0, found = 0;
    while ((found = arrived_.find(text, from)) == std::string::npos) {
        from = arrived_.size() > text.size() ? arrived_.size() - text.size() : 0;
        if (ReceiveMore(deadline) != Arrival::Bytes) {
            ADD_FAILURE() << "no \"" << text << "\" came";
            return Take(arrived_.size());
        }
    }
    return Take(found + text.size());
}

std::string Client::ReadExactly(size_t bytes)
{
    const Deadline deadline;
    while (arrived_.size() < bytes) {
        if (ReceiveMore(deadline) != Arrival::Bytes) {
            ADD_FAILURE() << "only " << arrived_.size() << " of " << bytes << " bytes came";
            break;
        }
    }
    return Take(bytes);
}

std::string Client::ReadToEnd()
{
    const Deadline deadline;
    Arrival arrival = Arrival::Bytes;
    while (arrival == Arrival::Bytes)
        arrival = ReceiveMore(deadline);
    EXPECT_TRUE(arrival == Arrival::End)
        << (arrival == Arrival::Reset ? "the stream was reset" : "the stream did not end");
    close(std::exchange(descriptor_, -1));
    return Take(arrived_.size());
}

std::string Client::ReadUntilOrEnd(std::string_view text)
{
    const Deadline deadline;
    Arrival arrival = Arrival::Bytes;
    size_t found = std::string::npos;
    const auto search = [&] { return text.empty() ? std::string::npos : arrived_.find(text); };
    while (arrival == Arrival::Bytes && (found = search()) == std::string::npos)
        arrival = ReceiveMore(deadline);
    EXPECT_TRUE(arrival != Arrival::Late) << "neither \"" << text << "\" nor the end came";
    return Take(found == std::string::npos ? arrived_.size() : found + text.size());
}

void Client::ExpectDropped()
{
    const Arrival arrival = ReceiveMore(Deadline());
    EXPECT_TRUE(arrival == Arrival::End || arrival == Arrival::Reset) << "the connection was not dropped";
    close(std::exchange(descriptor_, -1));
}

bool Client::HasArrived() const
{
    pollfd waiting{descriptor_, POLLIN, 0};
    return !arrived_.empty() || poll(&waiting, 1, 0) > 0;
}

int Client::PeerPort() const
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getpeername(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

Collector::Collector(Dialogue& dialogue) : descriptor_(MakeSocket()), port_(0), dialogue_(dialogue)
{
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof address;
    if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        listen(descriptor_, SOMAXCONN) != 0 ||
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        Fail("collector: ");
    }
    port_ = ntohs(address.sin_port);
}

Collector::~Collector()
{
    close(descriptor_);
}

bool Collector::HasArrived() const
{
    pollfd waiting{descriptor_, POLLIN, 0};
    return poll(&waiting, 1, 0) > 0;
}

Client Collector::Accept()
{
    pollfd waiting{descriptor_, POLLIN, 0};
    if (poll(&waiting, 1, Deadline().MillisecondsLeft()) == 0)
        throw std::runtime_error("nobody connected to the collector");
    const int descriptor = accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0)
        Fail("accept: ");
    dialogue_.Record(descriptor, "<- (connected)");
    return Client(dialogue_, descriptor);
}
