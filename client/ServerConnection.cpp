#include "client/ServerConnection.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "support/BaseSocket.h"
#include "support/Clock.h"

namespace
{
constexpr std::size_t BlockSize = 65536;
// A silent peer is asked from this many seconds on, this often: the last answer is missed at PeerTimeOut.
constexpr int ProbeAfter = 20;
constexpr int ProbeInterval = 5;
constexpr int ProbeCount = (ServerConnection::PeerTimeOut - ProbeAfter) / ProbeInterval;
/** A closed window is probed by the system; so many lost probes are no accident. */
constexpr int LostWindowProbes = 2;

void SetOption(int socket, int level, int option, int value)
{
    setsockopt(socket, level, option, &value, sizeof value);
}

void NoticeVanishedPeer(int socket)
{
    SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, ProbeAfter);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, ProbeInterval);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPCNT, ProbeCount);
    // So that Send() and Receive() come round to WatchPeer().
    const timeval longest = {ServerConnection::WatchInterval / 1000, 0};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
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
        else if (errno != EINTR && errno != EAGAIN)
            return Broken(errno);
        WatchPeer();
    }
    return {};
}

void ServerConnection::EndSending()
{
    shutdown(Descriptor(), SHUT_WR);
}

Failure ServerConnection::Receive(std::string& bytes, bool& isEnd, std::size_t limit)
{
    std::array<char, BlockSize> block;
    ssize_t count;
    while ((count = recv(Descriptor(), block.data(), block.size(), 0)) < 0) {
        if (errno != EINTR && errno != EAGAIN)
            return Broken(errno);
        WatchPeer();
    }
    isEnd = count == 0;
    bytes.append(block.data(), static_cast<std::size_t>(count));
    if (bytes.size() > limit)
        return {"the answer of " + name_ + " is longer than the " + std::to_string(limit) +
                " bytes that are taken; something else may listen there"};
    return {};
}

void ServerConnection::WatchPeer() const
{
    const long long now = Clock::SteadyMilliseconds();
    if (now < watchesAt_)
        return;
    watchesAt_ = now + WatchInterval;
    tcp_info info = {};
    socklen_t length = sizeof info;
    if (getsockopt(Descriptor(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
        return; // a proxy's
    // The time-out cannot stay set: it also cuts off who answers every probe of a closed window.
    const bool owesAnswer = info.tcpi_unacked > 0 && info.tcpi_snd_wnd > 0;
    const bool isLimited = owesAnswer || info.tcpi_probes >= LostWindowProbes;
    SetOption(Descriptor(), IPPROTO_TCP, TCP_USER_TIMEOUT, isLimited ? PeerTimeOut * 1000 : 0);
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
