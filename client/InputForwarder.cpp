#include "client/InputForwarder.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

namespace
{
constexpr std::size_t BlockSize = 65536;
}

InputForwarder::InputForwarder(int source, int socket, std::string first)
    : source_(source), socket_(socket), sourceHasEnded_(source < 0), pending_(std::move(first))
{
}

void InputForwarder::Read()
{
    pending_.resize(BlockSize);
    const ssize_t count = read(source_, pending_.data(), pending_.size());
    pending_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    const bool comesLater = count < 0 && (errno == EINTR || errno == EAGAIN);
    // What cannot be read has ended.
    sourceHasEnded_ = count <= 0 && !comesLater;
    Send();
}

void InputForwarder::Send()
{
    std::size_t sent = 0;
    while (sent < pending_.size()) {
        const ssize_t count =
            send(socket_, pending_.data() + sent, pending_.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<std::size_t>(count);
        else if (errno == EAGAIN)
            break;
        else if (errno != EINTR)
            return Stop();
    }
    pending_.erase(0, sent);
    if (pending_.empty() && MustEnd()) {
        shutdown(socket_, SHUT_WR);
        hasEnded_ = true;
    }
}

void InputForwarder::Stop()
{
    pending_.clear();
    sourceHasEnded_ = true;
    hasEnded_ = true;
}
