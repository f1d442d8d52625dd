#pragma once

#include "connections/SendQueue.h"
#include "support/BaseProcess.h"
#include "support/BaseSocket.h"
#include "support/QORUnicodeString.h"

/**
 * The root of every record that the daemon keeps for a client's lasting business: the client's socket, the
 * bytes on their way to it, the child process, and the life time. Owned by the server's list that it is on;
 * destroying it closes the socket and ends no process.
 *
 * Times are seconds on the clock of BaseString::GetTimeInSec().
 */
class Connection
{
public:
    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection() = default;

    BaseSocket& GetSocket() { return socket_; }
    const BaseSocket& GetSocket() const { return socket_; }
    BaseProcess& GetProcess() { return process_; }
    const BaseProcess& GetProcess() const { return process_; }
    SendQueue& GetSendQueue() { return sendQueue_; }

    /** Allowed life in seconds; 0 or less is unlimited. */
    void SetLifeTimeOut(const long& seconds) { lifeTimeOut_ = seconds; }
    const long& GetLifeTimeOut() const { return lifeTimeOut_; }
    /** The life begins; the begin date is "ErrorDate" when the time cannot be told as a date. */
    void SetBeginLifeTime(const long& seconds);
    const QORUnicodeString& GetBeginDate() const { return beginDate_; }

    /**
     * 1 when more than the life time-out has passed since the begin, else 0: at exactly begin + time-out
     * the connection is still alive. A `now` of 0 or less stands for the present time. Without a time-out,
     * or before the begin, nothing expires.
     */
    int IsEndOfLife(const long& now) const;
    /** The first second at which IsEndOfLife() holds, 0 when it never will. */
    long GetEndOfLife() const;

private:
    BaseSocket socket_;
    BaseProcess process_;
    SendQueue sendQueue_;
    long beginTime_ = 0;
    QORUnicodeString beginDate_;
    long lifeTimeOut_ = 0;
};
