// The half of BaseSocket that deals with addresses: binding, connecting and looking names up.
#include "support/BaseSocket.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/WaitForDescriptor.h"

namespace
{

const char* DescribeLookUp(int result)
{
    return result == EAI_SYSTEM ? strerror(errno) : gai_strerror(result);
}

/** The IPv4 addresses of a name or dotted address, in the resolver's order: 0 or getaddrinfo's result. */
int LookUp(const QORUnicodeString& host, std::vector<in_addr>& addresses)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.ConvertToChar(), nullptr, &wanted, &found);
    if (result != 0)
        return result;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next)
        addresses.push_back(reinterpret_cast<const sockaddr_in*>(one->ai_addr)->sin_addr);
    freeaddrinfo(found);
    return 0;
}

/** The first address of an interface that is up, a loopback one only when there is no other. */
bool FindInterfaceAddress(in_addr& address)
{
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0)
        return false;
    bool found = false;
    bool isLoopback = true;
    for (const ifaddrs* one = interfaces; one != nullptr && isLoopback; one = one->ifa_next) {
        if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET || !(one->ifa_flags & IFF_UP))
            continue;
        isLoopback = one->ifa_flags & IFF_LOOPBACK;
        if (found && isLoopback)
            continue;
        address = reinterpret_cast<const sockaddr_in*>(one->ifa_addr)->sin_addr;
        found = true;
    }
    freeifaddrs(interfaces);
    return found;
}

QORUnicodeString ConvertToDotted(const in_addr& address)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

bool IsThisMachine(const QORUnicodeString& hostName)
{
    char own[256] = "";
    return gethostname(own, sizeof(own) - 1) == 0 && strcasecmp(own, hostName.ConvertToChar()) == 0;
}

/** Starts the connection and waits for its outcome: 0 or the error; ETIMEDOUT past the deadline. */
int ConnectInTime(int descriptor, const sockaddr_in& server, long long deadline)
{
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) == 0)
        return 0;
    if (errno != EINPROGRESS && errno != EINTR)
        return errno;
    if (!WaitForDescriptor(descriptor, POLLOUT, deadline))
        return ETIMEDOUT;
    // Should it not be told: a connection that does not stand fails at its first use.
    int outcome = 0;
    socklen_t length = sizeof(outcome);
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &outcome, &length);
    // Only a connection that stood can be reset: one that is not accepted is refused.
    return outcome == ECONNRESET || outcome == EPIPE ? 0 : outcome;
}

bool IsConnectedToItself(int descriptor)
{
    sockaddr_in own{};
    sockaddr_in peer{};
    socklen_t ownLength = sizeof(own);
    socklen_t peerLength = sizeof(peer);
    return getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
           getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
           own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

bool IsLocalAddressError(int error)
{
    return error == EADDRINUSE || error == EADDRNOTAVAIL;
}
} // namespace

int BaseSocket::MakeSocket()
{
    CloseBaseSocket();
    descriptor_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return descriptor_ >= 0 ? 0 : Fail(errno, "socket");
}

int BaseSocket::Bind(const sockaddr_in& localAddress)
{
    localAddressUnavailable_ = false;
    if (descriptor_ < 0 && MakeSocket() != 0)
        return 1;
    const int on = 1;
    if (setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0)
        return FailAndClose(errno, "setsockopt");
    if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&localAddress), sizeof(localAddress)) != 0) {
        localAddressUnavailable_ = IsLocalAddressError(errno);
        return FailAndClose(errno, "bind");
    }
    return 0;
}

int BaseSocket::ConnectToAddress(const sockaddr_in& server, long long deadline)
{
    // Non-blocking only until the connection stands, while nobody else can hold this socket.
    if (fcntl(descriptor_, F_SETFL, O_NONBLOCK) != 0)
        return FailAndClose(errno, "fcntl");
    if (const int error = ConnectInTime(descriptor_, server, deadline)) {
        localAddressUnavailable_ = IsLocalAddressError(error);
        return FailAndClose(error, "connect");
    }
    // A free local port that is asked to call itself does connect, and would wait for its own answer.
    if (IsConnectedToItself(descriptor_))
        return FailAndClose(ECONNREFUSED, "connect");
    // The peer has its connection, and would take the end of this one for an empty file: what still fails
    // costs speed at most, as every call here waits by itself.
    const int on = 1;
    fcntl(descriptor_, F_SETFL, 0);
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return 0;
}

int BaseSocket::LookUpServer(const QORUnicodeString& host, int port, std::vector<sockaddr_in>& servers)
{
    if (port <= 0 || port > HighestPort)
        return Fail("Port out of range", "connect");
    std::vector<in_addr> addresses;
    if (const int result = LookUp(host, addresses))
        return Fail(DescribeLookUp(result), "getaddrinfo");
    for (const in_addr& address : addresses) {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_addr = address;
        server.sin_port = htons(static_cast<in_port_t>(port));
        servers.push_back(server);
    }
    return 0;
}

int BaseSocket::OpenConnectionToServerNonBlocking(const QORUnicodeString& host, const int& port,
                                                  const int& timeoutSeconds, const sockaddr_in* localAddress)
{
    const long long deadline = DeadlineIn(timeoutSeconds);
    localAddressUnavailable_ = false;
    CloseBaseSocket();
    std::vector<sockaddr_in> servers;
    if (LookUpServer(host, port, servers) != 0)
        return 1;
    for (const sockaddr_in& server : servers) {
        if ((localAddress != nullptr ? Bind(*localAddress) : MakeSocket()) != 0)
            return 1;
        if (ConnectToAddress(server, deadline) == 0)
            return 0;
    }
    return 1;
}

int BaseSocket::OpenConnectionToServerNonBlockingAfterBind(const QORUnicodeString& host, const int& port,
                                                           const int& timeoutSeconds)
{
    const long long deadline = DeadlineIn(timeoutSeconds);
    localAddressUnavailable_ = false;
    std::vector<sockaddr_in> servers;
    if (LookUpServer(host, port, servers) != 0) {
        CloseBaseSocket();
        return 1;
    }
    // A bound socket is good for one attempt, so a name with several addresses is tried at its first.
    return ConnectToAddress(servers.front(), deadline);
}

int BaseSocket::GetHostName(QORUnicodeString& name, const sockaddr_in* address)
{
    char text[NI_MAXHOST] = "";
    if (address == nullptr) {
        if (gethostname(text, sizeof(text) - 1) != 0)
            return Fail(errno, "gethostname");
    } else if (const int result = getnameinfo(reinterpret_cast<const sockaddr*>(address), sizeof(*address),
                                              text, sizeof(text), nullptr, 0, NI_NAMEREQD)) {
        return Fail(DescribeLookUp(result), "getnameinfo");
    }
    name = text;
    return 0;
}

int BaseSocket::GetHostAddress(QORUnicodeString& address, const QORUnicodeString& hostName)
{
    std::vector<in_addr> addresses;
    const int result = LookUp(hostName, addresses);
    if (result != 0) {
        const int failed = Fail(DescribeLookUp(result), "getaddrinfo");
        in_addr own{};
        if (!IsThisMachine(hostName) || !FindInterfaceAddress(own))
            return failed;
        addresses.push_back(own);
    }
    address = ConvertToDotted(addresses.front());
    return 0;
}

int BaseSocket::GetHostAddress(QORUnicodeString& address, const sockaddr_in* peer)
{
    if (peer == nullptr || peer->sin_family != AF_INET)
        return Fail(EAFNOSUPPORT, "inet_ntop");
    address = ConvertToDotted(peer->sin_addr);
    return 0;
}

int BaseSocket::GetSocketName(sockaddr_in& address)
{
    socklen_t length = sizeof(address);
    if (getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return Fail(errno, "getsockname");
    return 0;
}
