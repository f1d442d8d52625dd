#include "support/BaseSocket.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/Clock.h"
#include "support/WaitForDescriptor.h"

namespace
{
constexpr std::size_t TextBlock = 65536;

/** What accept() reports of a connection that was lost while it waited; the next one may be sound. */
bool IsLostBeforeAccepted(int error)
{
    switch (error) {
    case ECONNABORTED:
    case ENETDOWN:
    case EPROTO:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
        return true;
    default:
        return false;
    }
}

bool IsShortOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

ssize_t ReceiveNow(int descriptor, char* buffer, std::size_t length)
{
    ssize_t count;
    do
        count = recv(descriptor, buffer, length, MSG_DONTWAIT);
    while (count < 0 && errno == EINTR);
    return count;
}

ssize_t SendNow(int descriptor, std::string_view bytes)
{
    ssize_t count;
    do
        count = send(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    while (count < 0 && errno == EINTR);
    return count;
}

// The wait comes after a first attempt, so that a bulk transfer costs one call per block.

/** recv() within the time: the count, 0 at the end of the stream, -1 with errno. */
ssize_t ReceiveInTime(int descriptor, char* buffer, std::size_t length, int timeoutSeconds)
{
    const long long deadline = DeadlineIn(timeoutSeconds);
    for (;;) {
        const ssize_t count = ReceiveNow(descriptor, buffer, length);
        if (count >= 0 || errno != EAGAIN)
            return count;
        if (!WaitForDescriptor(descriptor, POLLIN, deadline)) {
            errno = ETIMEDOUT;
            return -1;
        }
    }
}

/** Sends everything: 0, or the error; ETIMEDOUT when nothing could be sent for WriteTimeOut seconds. */
int SendWhole(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = SendNow(descriptor, bytes);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno != EAGAIN)
            return errno;
        if (!WaitForDescriptor(descriptor, POLLOUT, DeadlineIn(BaseSocket::WriteTimeOut)))
            return ETIMEDOUT;
    }
    return 0;
}
} // namespace

BaseSocket::~BaseSocket()
{
    CloseBaseSocket();
}

BaseSocket& BaseSocket::operator=(const BaseSocket& other)
{
    if (descriptor_ != other.descriptor_)
        CloseBaseSocket();
    descriptor_ = other.descriptor_;
    outOfResources_ = other.outOfResources_;
    localAddressUnavailable_ = other.localAddressUnavailable_;
    lastError_ = other.lastError_;
    return *this;
}

void BaseSocket::Reset()
{
    descriptor_ = -1;
}

void BaseSocket::CloseBaseSocket()
{
    // Never repeated after EINTR: the descriptor is free by then and may already be another's.
    if (descriptor_ >= 0)
        close(descriptor_);
    descriptor_ = -1;
}

int BaseSocket::Fail(int error, const char* operation)
{
    return Fail(strerror(error), operation);
}

int BaseSocket::Fail(const char* reason, const char* operation)
{
    lastError_ = std::string("Error in ") + operation + "() : " + reason;
    return 1;
}

int BaseSocket::FailAndClose(int error, const char* operation)
{
    CloseBaseSocket();
    return Fail(error, operation);
}

int BaseSocket::OpenServerSocket(int& port, const int& backlog)
{
    CloseBaseSocket();
    if (port < 0 || port > HighestPort)
        return Fail("Port out of range", "bind");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(port));
    if (Bind(address) != 0)
        return 1;
    // Nobody shares this socket's flags, and a client that gives up between the wait and the accept must
    // not leave the daemon waiting for the next one.
    if (fcntl(descriptor_, F_SETFL, O_NONBLOCK) != 0)
        return FailAndClose(errno, "fcntl");
    if (listen(descriptor_, backlog) != 0)
        return FailAndClose(errno, "listen");
    if (GetSocketName(address) != 0) {
        CloseBaseSocket();
        return 1;
    }
    port = ntohs(address.sin_port);
    return 0;
}

int BaseSocket::AcceptConnectionFromClientWithTimeOut(BaseSocket& client, sockaddr_in& clientAddress,
                                                      const int& timeoutSeconds,
                                                      const int& timeoutMicroseconds)
{
    // Rounded up, so that a wait shorter than a millisecond is still a wait.
    const long long deadline = DeadlineIn(timeoutSeconds) + (timeoutMicroseconds + 999) / 1000;
    outOfResources_ = false;
    for (;;) {
        socklen_t length = sizeof(clientAddress);
        const int accepted =
            accept4(descriptor_, reinterpret_cast<sockaddr*>(&clientAddress), &length, SOCK_CLOEXEC);
        if (accepted >= 0) {
            const int on = 1;
            setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            client.CloseBaseSocket();
            client.descriptor_ = accepted;
            return Accepted;
        }
        if (errno != EAGAIN && errno != EINTR && !IsLostBeforeAccepted(errno)) {
            outOfResources_ = IsShortOfResources(errno);
            Fail(errno, "accept");
            return AcceptFailed;
        }
        if (!WaitForDescriptor(descriptor_, POLLIN, deadline)) {
            Fail(ETIMEDOUT, "accept");
            return AcceptTimeOut;
        }
    }
}

int BaseSocket::WriteToBaseSocket(const QORUnicodeString& text)
{
    const int error = SendWhole(descriptor_, text.View());
    return error == 0 ? 0 : Fail(error, "send");
}

int BaseSocket::OnlineWriteToBaseSocket(const QORUnicodeString& text)
{
    // Nothing is held back on any socket of ours, so an online client needs no other treatment.
    return WriteToBaseSocket(text);
}

int BaseSocket::ReadFromBaseSocketNonBlocking(QORUnicodeString& text, const int& timeoutSeconds)
{
    char block[TextBlock];
    text.Reset();
    const ssize_t count = ReceiveInTime(descriptor_, block, sizeof(block), timeoutSeconds);
    if (count < 0)
        return Fail(errno, "recv");
    if (count == 0)
        return Fail("Connection closed by peer", "recv");
    text = QORUnicodeString(std::string_view(block, static_cast<std::size_t>(count)));
    return 0;
}

int BaseSocket::WriteBinaryFileToBaseSocket(const char* buffer, const int& length)
{
    const int error =
        length < 0 ? EINVAL
                   : SendWhole(descriptor_, std::string_view(buffer, static_cast<std::size_t>(length)));
    return error == 0 ? 0 : -Fail(error, "send");
}

int BaseSocket::ReadBinaryFileFromBaseSocketNonBlocking(char** buffer, const int& length,
                                                        const int& timeoutSeconds)
{
    // A length of zero would make nothing received look like the end of the stream.
    if (length <= 0)
        return -Fail(EINVAL, "recv");
    if (*buffer == nullptr)
        *buffer = new (std::nothrow) char[static_cast<std::size_t>(length)];
    if (*buffer == nullptr)
        return -Fail(ENOMEM, "recv");
    const ssize_t count =
        ReceiveInTime(descriptor_, *buffer, static_cast<std::size_t>(length), timeoutSeconds);
    return count >= 0 ? static_cast<int>(count) : -Fail(errno, "recv");
}

long BaseSocket::ReceiveAvailable(char* buffer, std::size_t length)
{
    const ssize_t count = ReceiveNow(descriptor_, buffer, length);
    if (count >= 0)
        return count;
    if (errno == EAGAIN)
        return NothingYet;
    Fail(errno, "recv");
    return Broken;
}

long BaseSocket::SendAvailable(std::string_view bytes)
{
    const ssize_t count = SendNow(descriptor_, bytes);
    if (count >= 0)
        return count;
    if (errno == EAGAIN)
        return NothingYet;
    Fail(errno, "send");
    return Broken;
}

bool BaseSocket::CanReceiveWithin(const int& milliseconds) const
{
    return WaitForDescriptor(descriptor_, POLLIN, Clock::SteadyMilliseconds() + milliseconds);
}

bool BaseSocket::CanSendWithin(const int& milliseconds) const
{
    return WaitForDescriptor(descriptor_, POLLOUT, Clock::SteadyMilliseconds() + milliseconds);
}

void BaseSocket::ShutdownSending()
{
    // A peer that has already gone has seen its end of the stream; there is nothing to report.
    if (descriptor_ >= 0)
        shutdown(descriptor_, SHUT_WR);
}

void BaseSocket::ShutdownBoth()
{
    if (descriptor_ >= 0)
        shutdown(descriptor_, SHUT_RDWR);
}
