#include "connections/SendQueue.h"

#include <algorithm>
#include <utility>

#include "support/BaseSocket.h"

namespace
{
// What one send hands over, and what comes free at a time: as much as a socket usually takes at once.
constexpr std::size_t PieceSize = 65536;
} // namespace

SendQueue::SendQueue(SendQueue&& other) noexcept
    : pieces_(std::exchange(other.pieces_, {})),
      sentOfFirst_(std::exchange(other.sentOfFirst_, 0)),
      pendingBytes_(std::exchange(other.pendingBytes_, 0))
{
}

SendQueue& SendQueue::operator=(SendQueue&& other) noexcept
{
    pieces_ = std::exchange(other.pieces_, {});
    sentOfFirst_ = std::exchange(other.sentOfFirst_, 0);
    pendingBytes_ = std::exchange(other.pendingBytes_, 0);
    return *this;
}

void SendQueue::Append(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (pieces_.empty() || pieces_.back().size() >= PieceSize)
            pieces_.emplace_back();
        std::string& piece = pieces_.back();
        const std::size_t count = std::min(PieceSize - piece.size(), bytes.size());
        piece.append(bytes.substr(0, count));
        pendingBytes_ += count;
        bytes.remove_prefix(count);
    }
}

SendQueue::Result SendQueue::Flush(BaseSocket& socket)
{
    while (!pieces_.empty()) {
        const std::string_view left = std::string_view(pieces_.front()).substr(sentOfFirst_);
        const long count = socket.SendAvailable(left);
        if (count == BaseSocket::NothingYet)
            return Result::More;
        if (count < 0) {
            *this = SendQueue();
            return Result::Failed;
        }
        const auto sent = static_cast<std::size_t>(count);
        pendingBytes_ -= sent;
        sentOfFirst_ += sent;
        if (sent == left.size()) {
            pieces_.pop_front();
            sentOfFirst_ = 0;
        }
    }
    return Result::Done;
}
