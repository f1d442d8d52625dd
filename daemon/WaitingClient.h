#pragma once

#include <list>
#include <memory>

#include "connections/RequestConnection.h"
#include "daemon/LaunchArguments.h"
#include "daemon/Poller.h"
#include "daemon/TransferArguments.h"
#include "protocol/RequestForms.h"
#include "protocol/RequestText.h"

/**
 * A client from its acceptance until its request is served.
 *
 * | state    | event                                          | next                              |
 * |----------|------------------------------------------------|-----------------------------------|
 * | reading  | request whole (end, terminator or silence)     | complete                          |
 * | reading  | read time-out, failure, closed, too long       | traced, gone without an answer    |
 * | complete | served, nothing to check                       | gone (its socket has moved on)    |
 * | complete | password to be checked                         | queued                            |
 * | queued   | its check is started                           | checking                          |
 * | queued   | no check can be started for too long           | refused, held back until deadline |
 * | checking | good                                           | served: gone                      |
 * | checking | refused                                        | refused, held back until deadline |
 * | refused  | deadline                                       | answered: gone                    |
 * | queued, refused | connection reset                        | traced, gone without an answer    |
 * | reading, queued, refused | has to make room               | traced, gone without an answer    |
 */
struct WaitingClient {
    enum class State { Reading, Complete, Queued, Checking, Refused, Gone };
    /** What is known of the user. Unchecked also when the check itself failed. */
    enum class Verdict { Unchecked, Good, Bad };

    using List = std::list<std::unique_ptr<WaitingClient>>;

    RequestConnection connection;
    protocol::RequestText text;
    State state = State::Reading;
    /** When the read time-out is over, on the steady clock. */
    long long readDeadline = Deadline::Never;
    /** Reading: when what has arrived is taken for the whole. Refused: when the refusal is sent. */
    long long stateDeadline = Deadline::Never;
    int slot = Poller::NoSlot;
    bool isSilent = false; // on the list of those who have said nothing
    List::iterator place;  // on the list that it is on

    // From here on set when the request is complete.
    long long completedAt = 0;
    protocol::RequestFields fields; // views into `text`
    int versionIndex = 0;
    const protocol::RequestForm* form = nullptr;
    LaunchArguments launch;     // of the launch forms
    TransferArguments transfer; // of the transfer forms
    Verdict verdict = Verdict::Unchecked;

    /** Bytes of the request that are kept for it, the converted ones included. */
    std::size_t HeldBytes() const;
    /** Gives back what a refusal does not need. */
    void DropRequest();
};
