#include "client/OutputStream.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/WaitForDescriptor.h"

OutputStream::OutputStream(int descriptor) : descriptor_(descriptor)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return;
    if (S_ISREG(status.st_mode)) {
        kind_ = Kind::File;
    } else if (S_ISSOCK(status.st_mode)) {
        kind_ = Kind::Socket;
    } else {
        const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
        own_ = FileDescriptor(open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        kind_ = own_.IsOpen() ? Kind::NonBlocking : Kind::Blocking;
    }
}

int OutputStream::Write(std::string_view bytes)
{
    if (HasPending()) {
        pending_.append(bytes);
        bytes = pending_;
    }
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = WriteSome(bytes.substr(written));
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno == EAGAIN)
            break;
        else if (errno != EINTR)
            return errno;
    }
    if (HasPending())
        pending_.erase(0, written);
    else
        pending_ = bytes.substr(written);
    return 0;
}

int OutputStream::Flush()
{
    while (HasPending()) {
        if (!WaitForDescriptor(Descriptor(), POLLOUT, DeadlineIn(INT_MAX)))
            return ETIMEDOUT;
        if (const int error = Write({}))
            return error;
    }
    return 0;
}

ssize_t OutputStream::WriteSome(std::string_view bytes)
{
    if (kind_ == Kind::Socket)
        return send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (kind_ != Kind::Blocking)
        return write(Descriptor(), bytes.data(), bytes.size());
    // A pipe that is ready takes this much without waiting.
    pollfd ready = {descriptor_, POLLOUT, 0};
    if (poll(&ready, 1, 0) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return write(descriptor_, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
}
