#pragma once

#include "connections/ThreadOrProcessConnection.h"

/**
 * The last words to a client whose socket has been another user's standard streams, by a worker that also
 * takes leave of the client. Whoever shares a socket can make every call on it wait, the last close among
 * them, for as long as they like: the daemon itself does nothing with such a socket any more.
 *
 * Owned by the server until the worker has ended. States: waiting for a worker (the socket is open), and
 * handed over (it is closed here). It has no status board.
 */
class FarewellConnection : public ThreadOrProcessConnection
{
public:
    /** Takes the socket of `source`, and what its client has not taken yet, which goes ahead of `words`. The
     * worker waits at most `stallLimit` seconds for the client to take something. */
    FarewellConnection(Connection& source, const QORUnicodeString& words, const int& stallLimit);

    /** 0 when a worker has taken over, 1 when none could be started: then this may be tried again. */
    int HandOver(QORListPtrBaseSocket& socketsToClose) { return HandSocketToWorker(socketsToClose); }
    bool IsHandedOver() const { return GetSocket().GetBaseSocketStatus() == 0; }

    /** 0 when the client has been given everything, else 1. */
    int ThreadOrProcessRoutine() override;

private:
    int stallLimit_;
};
