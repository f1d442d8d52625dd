#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>

class BaseSocket;

/**
 * The bytes that a client has been given but has not yet taken, in the order in which they were given. The
 * daemon's loop owns one per connection and flushes it whenever the client's socket has room; nothing here
 * ever waits. Memory goes back piece by piece as the queue drains.
 */
class SendQueue
{
public:
    enum class Result {
        Done,  // nothing is left
        More,  // the socket takes nothing more just now
        Failed // the peer has gone: what is left has been dropped, the socket has the reason
    };

    SendQueue() = default;
    /** The queue moved from is empty and goes on being usable. */
    SendQueue(SendQueue&& other) noexcept;
    SendQueue& operator=(SendQueue&& other) noexcept;

    void Append(std::string_view bytes);
    Result Flush(BaseSocket& socket);
    bool IsEmpty() const { return pieces_.empty(); }
    /** What is still to be sent: a flush that leaves it unchanged made no progress. */
    std::size_t GetPendingBytes() const { return pendingBytes_; }

private:
    std::list<std::string> pieces_; // no memory while empty, so that moving needs none either
    std::size_t sentOfFirst_ = 0;
    std::size_t pendingBytes_ = 0;
};
