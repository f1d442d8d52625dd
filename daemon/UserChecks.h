#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "daemon/WaitingClient.h"
#include "support/QORLists.h"

/**
 * The password checks of the clients that wait for one. The password system blocks for as long as it likes,
 * so each check is a worker of its client's RequestConnection; at most MostAtOnce run, the others wait. A
 * refusal is held back until RefusalDelay after its request was complete: a deadline and not a process, and
 * the same whether the user exists or not.
 *
 * Nobody can tell a right password from a wrong one before it is checked, and a check computes for tens of
 * milliseconds. So that a crowd of wrong ones does not hold up who comes after it, the next check is for the
 * address with the fewest running, and of an address' clients it is for the one that came last; every
 * TurnOfTheFirst-th is for the one that came first, so that nobody waits for ever.
 *
 * When no process can be had for a check, nothing is tried before ComputingTime has passed. Whoever has
 * waited for as long as a refusal is held back by then is refused as unchecked.
 *
 * Owned by the server, used in its loop; never waits. A client in state queued or checking is known here and
 * stays where it is until it is told its verdict or EndAll() is called; a queued one may also go, but is not
 * deleted before StartWaiting() has been called.
 */
class UserChecks
{
public:
    static constexpr std::size_t MostAtOnce = 8;
    static constexpr unsigned TurnOfTheFirst = 4;
    /** More checks than processors make each other late while they compute. One that has run for so many
     * milliseconds is taken to wait for something else, and leaves its processor to another. */
    static constexpr long long ComputingTime = 100;
    /** Milliseconds from a complete request to the refusal of its user. */
    static constexpr long long RefusalDelay = 2000;

    /** `limitSeconds`: what one check may take; then its worker is ended, and its client is refused as
     * unchecked. */
    explicit UserChecks(const int& limitSeconds);

    /** Puts the client in state queued. Its password stays in its request until its check is started, and
     * is wiped then. */
    void Enqueue(WaitingClient& client);
    /** Gives every client whose check has ended its verdict: state complete when good, refused when bad. */
    void CollectVerdicts();
    /** Forgets the clients that are gone, and starts what may run. `socketsToClose` makes the list for a
     * worker about to be forked. */
    void StartWaiting(const std::function<QORListPtrBaseSocket()>& socketsToClose);
    /** When StartWaiting() may have something to start though nothing has happened. */
    long long NextDeadline() const;
    /** Ends the checks that run and forgets the clients: the daemon stops. */
    void EndAll();

private:
    bool HasRoom() const;
    bool Start(WaitingClient& client, const std::function<QORListPtrBaseSocket()>& socketsToClose) const;
    std::deque<WaitingClient*>::iterator FindNext();
    void RefuseOverdue(long long now);

    const int& limitSeconds_;
    std::size_t processors_;
    std::deque<WaitingClient*> waiting_; // in the order of arrival
    std::vector<WaitingClient*> running_;
    long long lastStart_ = 0; // or attempt to start one
    bool hasLastStartFailed_ = false;
    unsigned startCount_ = 0;
};
