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
} // namespace

// An interruption must neither end a wait nor start it anew: the latter would never end here.
TEST(BaseSocketTest, EveryWaitEndsInTimeThroughInterruptions)
{
    loopback::Listener listener;
    loopback::Pair pair;
    const itimerval often{{0, 20000}, {0, 20000}}, never{};
    signal(SIGALRM, [](int) {});
    setitimer(ITIMER_REAL, &often, nullptr);
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
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(BaseSocketTest, APortThatWouldAnswerItselfIsRefused)
{
    BaseSocket socket;
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(socket.Bind(own) + socket.GetSocketName(own), 0);
    EXPECT_NE(socket.OpenConnectionToServerNonBlockingAfterBind("127.0.0.1", ntohs(own.sin_port), 5), 0);
    EXPECT_FALSE(socket.IsLocalAddressUnavailable());
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
