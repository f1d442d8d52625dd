#pragma once

#include <functional>
#include <list>
#include <memory>

#include "daemon/WaitingClient.h"
#include "support/FileDescriptor.h"

/**
 * The server's list of requests: every accepted client until its request has been served. It accepts,
 * reads, and tells which requests are complete; it understands none. Owned by the server, used in its loop;
 * never waits.
 *
 * At most MostWaiting clients, fewer where descriptors are few, wait here, and what is kept of their requests
 * is at most MostHeldBytes and what one turn reads. Then the one that has waited longest makes room, from the
 * address that holds most clients, or bytes, so that no crowd keeps anybody out. Whose request is to be
 * served next, or whose password is just being checked, does not: where there are only such, nobody is
 * accepted until they have been served.
 *
 * Those who have said nothing yet stand apart, behind one descriptor that tells when one of them speaks: so a
 * turn costs the same however many they are.
 */
class WaitingClients
{
public:
    static constexpr std::size_t MostWaiting = 1024;
    /** 64 MiB: some hundred of the longest commands that can be started, and nothing to a machine. */
    static constexpr std::size_t MostHeldBytes = 64U << 20;
    /** How many clients are accepted, and how many requests are served, in one turn. */
    static constexpr int MostPerTurn = 16;
    /** Descriptors that the daemon needs whoever waits. */
    static constexpr long Headroom = 32;
    /** Pause before clients are accepted again once descriptors or memory have run out, in milliseconds. */
    static constexpr long long ExhaustionPause = 100;

    /** `readTimeOut`: seconds from acceptance until the request must be complete. */
    explicit WaitingClients(const int& readTimeOut) : readTimeOut_(readTimeOut) {}
    WaitingClients(const WaitingClients&) = delete;
    WaitingClients& operator=(const WaitingClients&) = delete;

    /** Comes first. The process may have so many descriptors open: half of what they leave goes to serving
     * requests. */
    void Prepare(long descriptorLimit);
    /** Adds the listening socket, unless accepting pauses, and everybody whose bytes are awaited. */
    void AddTo(Poller& poller, const BaseSocket& listening);
    /**
     * Accepts up to MostPerTurn clients and reads what has arrived of requests, as far as a turn allows.
     * `freeDescriptor` is asked to close something when descriptors run out, and tells whether it has.
     */
    void AcceptAndRead(const Poller& poller, BaseSocket& listening,
                       const std::function<bool()>& freeDescriptor);
    /** The first in line whose request is complete, or null. The line is in the order of acceptance, until
     * more arrives at once than a turn reads: then who was read goes behind who was not. */
    WaitingClient* NextComplete();
    /** Deletes the clients that are gone; everybody else stays where it is. */
    void Sweep();
    /** Drops everybody. */
    void Clear();

    long long NextDeadline() const;
    /** Everybody but those who have said nothing. */
    const WaitingClient::List& Heard() const { return heard_; }
    void AppendSocketsTo(QORListPtrBaseSocket& sockets);
    /** Drops the client that has to make room first; false when there is none that may be dropped. */
    bool MakeRoom();

private:
    /** How much a client holds of what is short. */
    using Share = std::size_t (*)(const WaitingClient&);

    std::size_t Count() const;
    void LimitHeldBytes();
    bool DropOneOfMost(Share share);
    void ReadHeard(const Poller& poller, long long now);
    void ReadSilent(const Poller& poller);
    void DropSilent(long long now);
    void BecomeSilent(WaitingClient& client);
    void BecomeHeard(WaitingClient& client);
    WaitingClient* FindLongestWaiting(in_addr_t address, Share share);
    int Accept(BaseSocket& listening, WaitingClient& client, sockaddr_in& address,
               const std::function<bool()>& freeDescriptor);
    bool AcceptOne(BaseSocket& listening, const std::function<bool()>& freeDescriptor);
    void Read(WaitingClient& client);
    void Receive(WaitingClient& client);
    void CheckDeadlines(WaitingClient& client, long long now);
    void TraceExhaustion(const QORUnicodeString& reason);

    const int& readTimeOut_;
    WaitingClient::List silent_; // in the order of acceptance, which is that of their time-outs
    FileDescriptor silentSet_;   // an epoll instance with those
    int silentSlot_ = Poller::NoSlot;
    WaitingClient::List heard_;
    std::size_t mostWaiting_ = MostWaiting;
    int listeningSlot_ = Poller::NoSlot;
    bool exhausted_ = false;
    long long acceptAgainAt_ = Deadline::Never;
};
