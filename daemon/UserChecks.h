#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "daemon/WaitingClient.h"
#include "support/QORLists.h"

/**
 * The password checks of the clients that wait for one. The password system blocks for as long as it likes,
 * so each check is a worker of its client's RequestConnection; at most MostAtOnce run, the others wait in
 * order. A refusal is held back until RefusalDelay after its request was complete: a deadline and not a
 * process, and the same whether the user exists or not.
 *
 * Owned by the server, used in its loop; never waits. A client in state checking is known here and stays
 * where it is until it is told its verdict or ForgetAll() is called.
 */
class UserChecks
{
public:
    static constexpr int MostAtOnce = 8;
    /** Milliseconds from a complete request to the refusal of its user. */
    static constexpr long long RefusalDelay = 2000;

    /** Puts the client in state checking; its password is wiped from the request. */
    void Enqueue(WaitingClient& client);
    /** Gives every client whose check has ended its verdict: state complete when good, refused when bad. */
    void CollectVerdicts();
    /** Starts what may run. `socketsToClose` makes the list for a worker about to be forked. */
    void StartWaiting(const std::function<void(QORListPtrBaseSocket&)>& socketsToClose);
    /** Ends the checks that run and forgets the clients: the daemon stops. */
    void EndAll();

private:
    std::deque<WaitingClient*> waiting_;
    std::vector<WaitingClient*> running_;
};
