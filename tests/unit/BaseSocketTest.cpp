#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/unit/Loopback.h"

#include <sched.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
std::string ErrorOf(const BaseSocket& socket)
{
    return std::string(socket.BaseSocketGetLastError().View());
}

std::string Failure(const char* operation, int error)
{
    return std::string("Error in ") + operation + "() : " + strerror(error);
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

TEST(BaseSocketTest, ExactlyOneObjectClosesASharedDescriptor)
{
    loopback::Pair pair;
    loopback::Pair other;
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

// An interruption must neither end a wait nor start it anew: the latter would never end here.
TEST(BaseSocketTest, EveryWaitEndsInTimeThroughInterruptions)
{
    loopback::Listener listener;
    loopback::Pair pair;
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
        EXPECT_EQ(listener.socket.AcceptConnectionFromClientWithTimeOut(client, from, seconds, 0),
                  BaseSocket::AcceptTimeOut);

    // Nobody accepts here, so once the queue is full the next connection is left hanging.
    int port = 0;
    BaseSocket full;
    ASSERT_EQ(full.OpenServerSocket(port, 0), 0);
    std::array<BaseSocket, 8> clients;
    const auto refused = std::find_if(clients.begin(), clients.end(), [&](BaseSocket& one) {
        return one.OpenConnectionToServerNonBlocking("127.0.0.1", port, 1, nullptr) != 0;
    });
    ASSERT_NE(refused, clients.end());
    EXPECT_EQ(ErrorOf(*refused), Failure("connect", ETIMEDOUT));
    EXPECT_FALSE(refused->GetBaseSocketStatus());
}

TEST(BaseSocketTest, TellsALocalAddressThatCannotBeHadFromOtherFailures)
{
    loopback::Listener listener;
    // Bound with address reuse itself, so that only the second connection, not its binding, is refused.
    const sockaddr_in anyPort = loopback::Address(0);
    BaseSocket first;
    sockaddr_in taken{};
    ASSERT_EQ(first.OpenConnectionToServerNonBlocking("127.0.0.1", listener.port, 5, &anyPort), 0);
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
        {"a port that is listened on", loopback::Address(listener.port), listener.port, true},
        {"a second connection from one port to another", taken, listener.port, true},
        {"nobody listens", anyPort, freePort, false},
        {"its own port, which would answer itself", free, freePort, false},
    };
    for (const auto& one : cases) {
        BaseSocket socket;
        EXPECT_NE(socket.OpenConnectionToServerNonBlocking("127.0.0.1", one.port, 5, &one.local), 0)
            << one.what;
        EXPECT_EQ(socket.IsLocalAddressUnavailable(), one.unavailable) << one.what << ErrorOf(socket);
        EXPECT_EQ(socket.OpenConnectionToServerNonBlocking("127.0.0.1", listener.port, 5, nullptr), 0)
            << one.what;
        EXPECT_FALSE(socket.IsLocalAddressUnavailable());
    }

    BaseSocket socket;
    sockaddr_in peer{};
    ASSERT_EQ(socket.Bind(free), 0);
    ASSERT_EQ(socket.OpenConnectionToServerNonBlockingAfterBind("127.0.0.1", listener.port, 5), 0);
    // The clients of the cases above wait in front of it.
    BaseSocket accepted;
    while (peer.sin_port != free.sin_port)
        ASSERT_EQ(listener.socket.AcceptConnectionFromClientWithTimeOut(accepted, peer, 5, 0),
                  BaseSocket::Accepted);
    QORUnicodeString address;
    EXPECT_EQ(accepted.GetHostAddress(address, &peer), 0);
    EXPECT_EQ(address, "127.0.0.1");
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
