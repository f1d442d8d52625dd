#include "bench/Conversation.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
constexpr std::string_view ReturnLine = "->ProcessReturnCode = 0\n";

sockaddr_in LoopbackAddress(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

FileDescriptor MakeSocket()
{
    FileDescriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made.IsOpen())
        ThrowSystemError("socket");
    return made;
}

/** False at the end of the stream. */
bool ReceiveMore(const FileDescriptor& connection, std::string& text)
{
    char buffer[65536];
    const ssize_t count = recv(connection.Number(), buffer, sizeof buffer, 0);
    if (count < 0)
        ThrowSystemError("recv");
    text.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
}
} // namespace

void ThrowSystemError(const std::string& what)
{
    throw std::runtime_error(what + ": " + strerror(errno));
}

FileDescriptor ConnectTo(int port, int receiveBufferBytes)
{
    FileDescriptor connection = MakeSocket();
    if (receiveBufferBytes > 0)
        setsockopt(connection.Number(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes,
                   sizeof receiveBufferBytes);
    const int on = 1;
    setsockopt(connection.Number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const sockaddr_in address = LoopbackAddress(port);
    if (connect(connection.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        ThrowSystemError("connect");
    return connection;
}

bool IsAccepting(int port)
{
    const FileDescriptor connection = MakeSocket();
    const sockaddr_in address = LoopbackAddress(port);
    return connect(connection.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

FileDescriptor ListenOnFreePort(int& port)
{
    FileDescriptor listening = MakeSocket();
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof address;
    if (bind(listening.Number(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        listen(listening.Number(), SOMAXCONN) != 0 ||
        getsockname(listening.Number(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        ThrowSystemError("listen");
    port = ntohs(address.sin_port);
    return listening;
}

void Send(const FileDescriptor& connection, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(connection.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0)
            ThrowSystemError("send");
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string ReadUntil(const FileDescriptor& connection, std::string_view text)
{
    std::string arrived;
    while (arrived.find(text) == std::string::npos)
        if (!ReceiveMore(connection, arrived))
            throw std::runtime_error("the stream ended after: " + arrived);
    return arrived;
}

std::string ReadToEnd(const FileDescriptor& connection)
{
    std::string arrived;
    while (ReceiveMore(connection, arrived))
        ;
    return arrived;
}

std::string OwnUser()
{
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

std::string LaunchRequest(std::string_view mode, std::string_view command)
{
    return "RuvelControl V1.9|" + OwnUser() + "||" + std::string(command) + "|" + std::string(mode) +
           "|NOWINDOW|0";
}

std::string InfoRequest()
{
    return "RuvelControl V1.9|" + OwnUser() + "||INFO";
}

LaunchTimes TimeLaunch(int port, const std::string& request)
{
    const double begin = NowInMicroseconds();
    const FileDescriptor connection = ConnectTo(port);
    const double connected = NowInMicroseconds();
    Send(connection, request);
    ReadUntil(connection, ReturnLine);
    const double end = NowInMicroseconds();
    ReadToEnd(connection);
    return {end - begin, end - connected};
}

double TimeAnswer(int port, const std::string& request)
{
    const double begin = NowInMicroseconds();
    const FileDescriptor connection = ConnectTo(port);
    Send(connection, request);
    ReadToEnd(connection);
    return NowInMicroseconds() - begin;
}

double NowInMicroseconds()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(now).count();
}
