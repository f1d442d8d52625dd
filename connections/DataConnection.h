#pragma once

#include "support/BaseSocket.h"

/**
 * What workers that reach a client over a connection of their own have in common. Everything here may wait.
 */
namespace DataConnection
{
/** How long one attempt waits for the client, and the pause between two attempts; seconds. */
constexpr int AttemptTimeOut = 30;
constexpr int PauseBetweenAttempts = 30;

/** Results of an attempt; GiveUp: another one would be of no use. */
enum AttemptResult { Connected = 0, Failed = 1, GiveUp = 2 };

/**
 * Makes up to `attempts` attempts with the pause between them, none after the last: the last one's
 * AttemptResult.
 */
template <class Attempt>
int Retry(int attempts, Attempt attempt);
void Pause();

/**
 * Connects from `local` (null: from anywhere). When that local address is in use or not available, which
 * another connection to the same client suffices for, the same attempt goes on from an unbound socket.
 */
int ConnectFrom(BaseSocket& socket, const sockaddr_in* local, const QORUnicodeString& host, const int& port);
/** 0 when the socket that Bind() was called on with `bindResult` is connected, with the same way out. */
int ConnectAfterBind(BaseSocket& socket, const int& bindResult, const QORUnicodeString& host,
                     const int& port);

/**
 * Takes leave in order: ends the sending side, reads away what still arrives until the client closes or a
 * few seconds have passed, and closes. Closing with unread input would destroy what is on its way.
 */
void CloseInOrder(BaseSocket& socket);
} // namespace DataConnection

template <class Attempt>
int DataConnection::Retry(int attempts, Attempt attempt)
{
    int result = Failed;
    for (int i = 1; i <= attempts && result == Failed; ++i) {
        if (i > 1)
            Pause();
        result = attempt();
    }
    return result;
}
