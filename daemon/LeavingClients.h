#pragma once

#include <list>

#include "connections/Connection.h"
#include "connections/SendQueue.h"
#include "daemon/Poller.h"
#include "support/BaseSocket.h"

/**
 * The clients that have been given their last answer, until they have taken it and gone.
 *
 * | state    | event                            | next                                   |
 * |----------|----------------------------------|----------------------------------------|
 * | writing  | room: all of the answer taken    | sending side shut down; draining       |
 * | writing  | nothing taken for the read time-out, or the write fails | traced, closed  |
 * | draining | the client has closed, or DrainMilliseconds are over    | closed          |
 *
 * Draining reads and throws away what still arrives: closing a socket with unread input would reset the
 * connection and destroy the answer on its way.
 *
 * Owned by the server, used in the loop; never waits.
 */
class LeavingClients
{
public:
    /** How long a client may take to close once it has been sent everything. */
    static constexpr long long DrainMilliseconds = 5000;
    /** What all answers together may hold that are not taken. Beyond that whoever has taken nothing for the
     * longest time is dropped, but for the newest: one answer may be as long as it is. */
    static constexpr std::size_t MostPendingBytes = 64 << 20;

    /** `stallLimit`: seconds in which a client must take something of its answer. */
    explicit LeavingClients(const int& stallLimit) : stallLimit_(stallLimit) {}
    LeavingClients(const LeavingClients&) = delete;
    LeavingClients& operator=(const LeavingClients&) = delete;

    /** Takes the connection's socket and whatever its client has not taken yet. */
    void Take(Connection& connection);
    void AddTo(Poller& poller);
    /** Pushes on with every client that has made room, closed or used up its time, as far as a turn allows.
     */
    void PushOn(const Poller& poller);
    long long NextDeadline() const;
    bool IsEmpty() const { return clients_.empty(); }
    void AppendSocketsTo(QORListPtrBaseSocket& sockets);
    /** Closes one that has everything and only drains, to free its descriptor; false when there is none. */
    bool MakeRoom();

private:
    struct Client {
        BaseSocket socket;
        SendQueue queue;
        bool draining = false;
        long long deadline = Deadline::Never;
        int slot = Poller::NoSlot;
    };

    void DropTheSlowest();
    void StartDraining(Client& client);
    bool Write(Client& client);
    bool Drain(Client& client);
    bool IsGone(Client& client, short events, long long now);

    const int& stallLimit_;
    std::list<Client> clients_;
};
