#include "client/ServerConnection.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "support/BaseSocket.h"

namespace
{
constexpr std::size_t BlockSize = 65536;
// A silent peer is asked from this many seconds on, this often: the last answer is missed at PeerTimeOut.
constexpr int ProbeAfter = 20;
constexpr int ProbeInterval = 5;
constexpr int ProbeCount = (ServerConnection::PeerTimeOut - ProbeAfter) / ProbeInterval;

void NoticeVanishedPeer(int socket)
{
    const auto set = [socket](int level, int option, int value) {
        setsockopt(socket, level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, ProbeAfter);
    set(IPPROTO_TCP, TCP_KEEPINTVL, ProbeInterval);
    set(IPPROTO_TCP, TCP_KEEPCNT, ProbeCount);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, ServerConnection::PeerTimeOut * 1000);
}
} // namespace

Failure ServerConnection::Connect(const Server& server, const std::string& host, int port)
{
    Close();
    name_ = host + ":" + std::to_string(port);
    if (!server.proxy.empty())
        return proxy_.Start(server.proxy, host, port, socket_);
    BaseSocket socket;
    if (socket.OpenConnectionToServerNonBlocking(host, port, server.connectTimeOut, nullptr) != 0)
        return {"no server at " + name_ + ": " + std::string(socket.BaseSocketGetLastError().View()) +
                "; check host and port (-H HOST:PORT), and that RuvelServer runs there"};
    NoticeVanishedPeer(socket.GetBaseSocketNumber());
    socket_ = FileDescriptor(socket.GetBaseSocketNumber());
    socket.Reset();
    return {};
}

void ServerConnection::TakeOver(FileDescriptor socket, const std::string& name)
{
    Close();
    name_ = name;
    NoticeVanishedPeer(socket.Number());
    socket_ = std::move(socket);
}

void ServerConnection::Close()
{
    socket_ = FileDescriptor();
    proxy_.End();
}

Failure ServerConnection::Send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = send(Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (errno != EINTR)
            return Broken(errno);
    }
    return {};
}

void ServerConnection::EndSending()
{
    shutdown(Descriptor(), SHUT_WR);
}

Failure ServerConnection::Receive(std::string& bytes, bool& isEnd)
{
    std::array<char, BlockSize> block;
    ssize_t count;
    while ((count = recv(Descriptor(), block.data(), block.size(), 0)) < 0)
        if (errno != EINTR)
            return Broken(errno);
    isEnd = count == 0;
    bytes.append(block.data(), static_cast<std::size_t>(count));
    return {};
}

Failure ServerConnection::FindOwnAddress(std::string& address) const
{
    sockaddr_in own = {};
    socklen_t length = sizeof own;
    std::array<char, INET_ADDRSTRLEN> text;
    if (getsockname(Descriptor(), reinterpret_cast<sockaddr*>(&own), &length) != 0 ||
        own.sin_family != AF_INET || inet_ntop(AF_INET, &own.sin_addr, text.data(), text.size()) == nullptr)
        return {"the server cannot be told the address of this machine: a proxy hides it"};
    address = text.data();
    return {};
}

Failure ServerConnection::Broken(int error) const
{
    const char* hint = "; the server may have been ended, try again";
    if (proxy_.IsRunning())
        hint = "; check the proxy command";
    else if (error == ETIMEDOUT)
        hint = "; the server or the network has vanished, try again later";
    return {"the connection to " + name_ + " broke: " + strerror(error) + hint};
}
