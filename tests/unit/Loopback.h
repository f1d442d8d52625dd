#pragma once

#include <string>

#include "support/BaseSocket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

/** Sockets on the loopback interface, at ports that the system chooses. */
namespace loopback
{
constexpr int DeadlineSeconds = 20;

struct Listener {
    Listener() { EXPECT_EQ(socket.OpenServerSocket(port, 50), 0); }
    /** Takes one client in; the port that it comes from, or -1. */
    int Accept(BaseSocket& client)
    {
        sockaddr_in from{};
        const int result = socket.AcceptConnectionFromClientWithTimeOut(client, from, DeadlineSeconds, 0);
        EXPECT_EQ(result, BaseSocket::Accepted) << socket.BaseSocketGetLastError().ConvertToChar();
        return result == BaseSocket::Accepted ? ntohs(from.sin_port) : -1;
    }
    BaseSocket socket;
    int port = 0;
};

/** Both ends of one connection. */
struct Pair {
    Pair()
    {
        Listener listener;
        EXPECT_EQ(
            client.OpenConnectionToServerNonBlocking("127.0.0.1", listener.port, DeadlineSeconds, nullptr),
            0);
        listener.Accept(server);
    }
    BaseSocket client;
    BaseSocket server;
};

/** Everything up to the end of the stream. */
inline std::string ReadToEnd(BaseSocket& socket)
{
    std::string received;
    char block[65536];
    char* buffer = block;
    int count;
    while ((count = socket.ReadBinaryFileFromBaseSocketNonBlocking(&buffer, sizeof block, DeadlineSeconds)) >
           0)
        received.append(block, static_cast<size_t>(count));
    EXPECT_EQ(count, 0) << socket.BaseSocketGetLastError().ConvertToChar();
    return received;
}
} // namespace loopback
