#pragma once

#include <string>
#include <string_view>

#include "connections/ThreadOrProcessConnection.h"

#include <netinet/in.h>

/**
 * An accepted client whose request has not been served yet, and who it is. Its worker, where one is needed,
 * checks the user's password and ends with the result: 0 good, 1 refused. It has no status board.
 *
 * As only so many checks run at once, the worker is ended by an alarm when its time is over: a password
 * system that hangs must not hold a place for good.
 *
 * Owned by the server's list of requests. What it becomes takes its socket along.
 */
class RequestConnection : public ThreadOrProcessConnection
{
public:
    RequestConnection() : ThreadOrProcessConnection(BoardUse::WithoutBoard) {}
    /** Wipes the credentials. */
    ~RequestConnection() override;

    /** To be called when the client has been accepted. */
    void SetPeer(const sockaddr_in& address);
    const sockaddr_in& GetPeerAddress() const { return peerAddress_; }

    /** What the worker is to check, in at most so many seconds; copied here and nowhere else. */
    void SetCredentials(std::string_view user, std::string_view password, const int& limitSeconds);
    /** Overwrites the credentials in memory; to be called as soon as the worker has been started. */
    void WipeCredentials();

    int ThreadOrProcessRoutine() override;

private:
    sockaddr_in peerAddress_ = {};
    std::string user_;
    std::string password_;
    int limitSeconds_ = 0;
};
