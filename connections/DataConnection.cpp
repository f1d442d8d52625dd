#include "connections/DataConnection.h"

#include "support/Clock.h"

#include <unistd.h>

namespace
{
constexpr int LeaveSeconds = 5; // a client that goes on sending is not waited for any longer
} // namespace

void DataConnection::Pause()
{
    sleep(PauseBetweenAttempts);
}

int DataConnection::ConnectFrom(BaseSocket& socket, const sockaddr_in* local, const QORUnicodeString& host,
                                const int& port)
{
    if (socket.OpenConnectionToServerNonBlocking(host, port, AttemptTimeOut, local) == 0)
        return 0;
    if (local == nullptr || !socket.IsLocalAddressUnavailable())
        return 1;
    return socket.OpenConnectionToServerNonBlocking(host, port, AttemptTimeOut, nullptr);
}

int DataConnection::ConnectAfterBind(BaseSocket& socket, const int& bindResult, const QORUnicodeString& host,
                                     const int& port)
{
    if (bindResult == 0 && socket.OpenConnectionToServerNonBlockingAfterBind(host, port, AttemptTimeOut) == 0)
        return 0;
    if (!socket.IsLocalAddressUnavailable())
        return 1;
    return socket.OpenConnectionToServerNonBlocking(host, port, AttemptTimeOut, nullptr);
}

void DataConnection::CloseInOrder(BaseSocket& socket)
{
    socket.ShutdownSending();
    char block[16384];
    char* buffer = block;
    const long long deadline = Clock::SteadyMilliseconds() + LeaveSeconds * 1000LL;
    int left = LeaveSeconds;
    while (left > 0 &&
           socket.ReadBinaryFileFromBaseSocketNonBlocking(&buffer, static_cast<int>(sizeof block), left) > 0)
        left = static_cast<int>((deadline - Clock::SteadyMilliseconds() + 999) / 1000);
    socket.CloseBaseSocket();
}
