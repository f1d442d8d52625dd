#include "support/BaseSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
/** A listening socket on a port that the system chose. */
struct Listener {
    explicit Listener(int backlog = 5) { EXPECT_EQ(socket.OpenServerSocket(port, backlog), 0); }
    BaseSocket socket;
    int port = 0;
};

/** Both ends of one connection over loopback. */
struct Pair {
    Pair()
    {
        sockaddr_in from{};
        EXPECT_EQ(client.OpenConnectionToServerNonBlocking("127.0.0.1", listener.port, 5, nullptr), 0);
        EXPECT_EQ(listener.socket.AcceptConnectionFromClientWithTimeOut(server, from, 5, 0),
                  BaseSocket::Accepted);
    }
    Listener listener;
    BaseSocket client;
    BaseSocket server;
};

std::string ErrorOf(const BaseSocket& socket)
{
    return std::string(socket.BaseSocketGetLastError().View());
}

std::string Failure(const char* operation, int error)
{
    return std::string("Error in ") + operation + "() : " + strerror(error);
}

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

/** Interrupts whatever waits, again and again, for as long as it lives. */
class Interruptions
{
public:
    Interruptions()
    {
        struct sigaction action {
        };
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &before_);
        Repeat(20000);
    }
    ~Interruptions()
    {
        Repeat(0);
        sigaction(SIGALRM, &before_, nullptr);
    }

private:
    static void Repeat(int microseconds)
    {
        const itimerval every{{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }
    struct sigaction before_ {
    };
};
} // namespace

TEST(BaseSocketTest, ListensWhereItCanAndStaysUsableAfterRefusal)
{
    Listener first;
    ASSERT_GT(first.port, 0);
    BaseSocket second;
    int taken = first.port;
    EXPECT_NE(second.OpenServerSocket(taken, 5), 0);
    EXPECT_NE(ErrorOf(second).find(strerror(EADDRINUSE)), std::string::npos);
    for (int port : {70000, -1}) {
        EXPECT_NE(second.OpenServerSocket(port, 5), 0);
        EXPECT_EQ(ErrorOf(second), "Error in bind() : Port out of range");
        EXPECT_FALSE(second.GetBaseSocketStatus());
    }
    int chosen = 0;
    EXPECT_EQ(second.OpenServerSocket(chosen, 5), 0);
    sockaddr_in name{};
    EXPECT_EQ(second.GetSocketName(name), 0);
    EXPECT_EQ(ntohs(name.sin_port), chosen);
}

TEST(BaseSocketTest, ExactlyOneObjectClosesASharedDescriptor)
{
    Pair pair;
    Pair other;
    {
        BaseSocket source;
        source = pair.server;
        pair.server.Reset();
        EXPECT_FALSE(pair.server.GetBaseSocketStatus());
        other.server = source;
        source.Reset();
    }
    QORUnicodeString text;
    EXPECT_EQ(other.server.WriteToBaseSocket("still open"), 0);
    EXPECT_EQ(pair.client.ReadFromBaseSocketNonBlocking(text, 5), 0);
    EXPECT_EQ(text, "still open");
    // The descriptor that the assignment replaced is closed.
    EXPECT_NE(other.client.ReadFromBaseSocketNonBlocking(text, 5), 0);
    EXPECT_EQ(ErrorOf(other.client), "Error in recv() : Connection closed by peer");
}

TEST(BaseSocketTest, EveryDescriptorIsPrivateAndClientsStayBlocking)
{
    Pair pair;
    BaseSocket bound;
    ASSERT_EQ(bound.Bind(Loopback(0)), 0);
    for (const BaseSocket* socket : {&pair.listener.socket, &pair.client, &pair.server, &bound})
        EXPECT_EQ(fcntl(socket->GetBaseSocketNumber(), F_GETFD), FD_CLOEXEC);
    for (const BaseSocket* socket : {&pair.client, &pair.server}) {
        int noDelay = 0;
        socklen_t length = sizeof(noDelay);
        getsockopt(socket->GetBaseSocketNumber(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
        EXPECT_NE(noDelay, 0);
        EXPECT_EQ(fcntl(socket->GetBaseSocketNumber(), F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST(BaseSocketTest, WritingToAPeerThatHasGoneFailsWithoutASignal)
{
    Pair pair;
    ASSERT_EQ(pair.server.WriteToBaseSocket("unread, so that closing resets the connection"), 0);
    pair.client.CloseBaseSocket();
    int writes = 0;
    while (pair.server.WriteToBaseSocket("more") == 0 && writes < 100000)
        ++writes;
    EXPECT_LT(writes, 100000);
    EXPECT_EQ(pair.server.WriteBinaryFileToBaseSocket("more", 4), -1);
    EXPECT_EQ(ErrorOf(pair.server), Failure("send", EPIPE));
    EXPECT_EQ(pair.server.SendAvailable("more"), BaseSocket::Broken);
    EXPECT_EQ(pair.server.WriteToBaseSocket(""), 0);
}

// An interruption must neither end a wait nor start it anew: the latter would never end here.
TEST(BaseSocketTest, EveryWaitEndsInTimeThroughInterruptions)
{
    Pair pair;
    Interruptions interruptions;
    QORUnicodeString text("old");
    EXPECT_NE(pair.client.ReadFromBaseSocketNonBlocking(text, 1), 0);
    EXPECT_EQ(ErrorOf(pair.client), Failure("recv", ETIMEDOUT));
    EXPECT_EQ(text, "");

    std::array<char, 8> block{};
    char* buffer = block.data();
    EXPECT_EQ(pair.client.ReadBinaryFileFromBaseSocketNonBlocking(&buffer, 8, 1), -1);

    BaseSocket client;
    sockaddr_in from{};
    for (int seconds : {0, 1})
        EXPECT_EQ(pair.listener.socket.AcceptConnectionFromClientWithTimeOut(client, from, seconds, 0),
                  BaseSocket::AcceptTimeOut);

    // Nobody accepts here, so once the queue is full the next connection is left hanging.
    Listener full(0);
    std::array<BaseSocket, 8> clients;
    const auto refused = std::find_if(clients.begin(), clients.end(), [&](BaseSocket& one) {
        return one.OpenConnectionToServerNonBlocking("127.0.0.1", full.port, 1, nullptr) != 0;
    });
    ASSERT_NE(refused, clients.end());
    EXPECT_EQ(ErrorOf(*refused), Failure("connect", ETIMEDOUT));
    EXPECT_FALSE(refused->GetBaseSocketStatus());
}

TEST(BaseSocketTest, TellsALocalAddressThatCannotBeHadFromOtherFailures)
{
    Pair pair;
    // Bound with address reuse itself, so that only the second connection, not its binding, is refused.
    const sockaddr_in anyPort = Loopback(0);
    BaseSocket first;
    sockaddr_in taken{};
    ASSERT_EQ(first.OpenConnectionToServerNonBlocking("127.0.0.1", pair.listener.port, 5, &anyPort), 0);
    ASSERT_EQ(first.GetSocketName(taken), 0);
    BaseSocket unused;
    ASSERT_EQ(unused.Bind(anyPort), 0);
    sockaddr_in free{};
    ASSERT_EQ(unused.GetSocketName(free), 0);
    unused.CloseBaseSocket();
    const int freePort = ntohs(free.sin_port);

    const struct {
        const char* what;
        sockaddr_in local;
        int port;
        bool unavailable;
    } cases[] = {
        {"a port that is listened on", Loopback(pair.listener.port), pair.listener.port, true},
        {"a second connection from one port to another", taken, pair.listener.port, true},
        {"nobody listens", anyPort, freePort, false},
        {"its own port, which would answer itself", free, freePort, false},
    };
    for (const auto& one : cases) {
        BaseSocket socket;
        EXPECT_NE(socket.OpenConnectionToServerNonBlocking("127.0.0.1", one.port, 5, &one.local), 0)
            << one.what;
        EXPECT_EQ(socket.IsLocalAddressUnavailable(), one.unavailable) << one.what << ErrorOf(socket);
        EXPECT_EQ(socket.OpenConnectionToServerNonBlocking("127.0.0.1", pair.listener.port, 5, nullptr), 0)
            << one.what;
        EXPECT_FALSE(socket.IsLocalAddressUnavailable());
    }

    BaseSocket socket;
    sockaddr_in peer{};
    ASSERT_EQ(socket.Bind(free), 0);
    ASSERT_EQ(socket.OpenConnectionToServerNonBlockingAfterBind("127.0.0.1", pair.listener.port, 5), 0);
    // The clients of the cases above wait in front of it.
    BaseSocket accepted;
    while (peer.sin_port != free.sin_port)
        ASSERT_EQ(pair.listener.socket.AcceptConnectionFromClientWithTimeOut(accepted, peer, 5, 0),
                  BaseSocket::Accepted);
    QORUnicodeString address;
    EXPECT_EQ(accepted.GetHostAddress(address, &peer), 0);
    EXPECT_EQ(address, "127.0.0.1");
}

TEST(BaseSocketTest, RunningOutOfDescriptorsIsToldAndPasses)
{
    Listener listener;
    BaseSocket client;
    BaseSocket accepted;
    sockaddr_in from{};
    ASSERT_EQ(client.OpenConnectionToServerNonBlocking("127.0.0.1", listener.port, 5, nullptr), 0);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(listener.socket.AcceptConnectionFromClientWithTimeOut(accepted, from, 5, 0),
              BaseSocket::AcceptFailed);
    EXPECT_TRUE(listener.socket.IsOutOfResources());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(listener.socket.AcceptConnectionFromClientWithTimeOut(accepted, from, 5, 0),
              BaseSocket::Accepted);
    EXPECT_FALSE(listener.socket.IsOutOfResources());
}

TEST(BaseSocketTest, OwnNameHasAnAddressEvenWithoutNameService)
{
    BaseSocket socket;
    QORUnicodeString address;
    // Longer than a label may be, so no name service is asked.
    const std::string unknown(64, 'n');
    EXPECT_NE(socket.GetHostAddress(address, unknown), 0);
    EXPECT_EQ(ErrorOf(socket).rfind("Error in getaddrinfo() : ", 0), 0U);

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Where a name of its own cannot be had, the machine's real one must do.
        if (unshare(CLONE_NEWUTS) == 0 && sethostname(unknown.c_str(), unknown.size()) != 0)
            _exit(2);
        QORUnicodeString name;
        in_addr parsed{};
        const bool found =
            socket.GetHostName(name, nullptr) == 0 && socket.GetHostAddress(address, name) == 0;
        _exit(found && inet_pton(AF_INET, address.ConvertToChar(), &parsed) == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
