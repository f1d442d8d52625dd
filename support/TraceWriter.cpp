#include "support/TraceWriter.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr int TraceDescriptor = STDOUT_FILENO;

struct OpenLine {
    size_t end = 1;         // position behind the open line's text
    unsigned long lost = 0; // lines dropped since one was last written
    bool torn = false;      // the last line got out in part: the next begins with a newline of its own
    char text[PIPE_BUF];    // that newline, the text, and the newline at its end
};
OpenLine line; // the interface has no object that could hold it

/**
 * Keeps a write to a pipe without reader from raising SIGPIPE, and a write to the terminal of somebody
 * else's foreground job from stopping the process. A SIGPIPE that the write caused is taken away again.
 */
class QuietSignals
{
public:
    QuietSignals()
    {
        sigset_t quiet;
        sigemptyset(&quiet);
        sigaddset(&quiet, SIGPIPE);
        sigaddset(&quiet, SIGTTOU);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        sigprocmask(SIG_BLOCK, &quiet, &old_);
    }
    QuietSignals(const QuietSignals&) = delete;
    QuietSignals& operator=(const QuietSignals&) = delete;
    ~QuietSignals()
    {
        if (!wasPending_) {
            sigset_t brokenPipe;
            sigemptyset(&brokenPipe);
            sigaddset(&brokenPipe, SIGPIPE);
            const timespec atOnce{};
            while (sigtimedwait(&brokenPipe, nullptr, &atOnce) == -1 && errno == EINTR) {
            }
        }
        sigprocmask(SIG_SETMASK, &old_, nullptr);
    }

private:
    sigset_t old_;
    bool wasPending_;
};

/**
 * Pipes and terminals have no flag per call for "do not wait", and their own flags are shared with whoever
 * handed them to us. Opened once more they are ours alone.
 */
ssize_t WriteToPipeOrDevice(const char* bytes, size_t length)
{
    QuietSignals quiet;
    int own = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (own >= 0) {
        ssize_t written = write(own, bytes, length);
        close(own);
        return written;
    }
    // No permission (a worker that has become its user) or no descriptor left: look before writing.
    pollfd room = {TraceDescriptor, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || room.revents != POLLOUT)
        return -1;
    return write(TraceDescriptor, bytes, length);
}

ssize_t WriteWithoutWaiting(const char* bytes, size_t length)
{
    struct stat status;
    if (fstat(TraceDescriptor, &status) != 0)
        return -1;
    if (S_ISSOCK(status.st_mode))
        return send(TraceDescriptor, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (S_ISREG(status.st_mode))
        return write(TraceDescriptor, bytes, length);
    return WriteToPipeOrDevice(bytes, length);
}

/** Writes what stands in `text` from 1 to `end`; both ends have room for a newline. False when it is lost. */
bool WriteLine(char* text, size_t end)
{
    text[0] = '\n';
    text[end] = '\n';
    size_t begin = line.torn ? 0 : 1;
    size_t size = end + 1 - begin;
    ssize_t written = WriteWithoutWaiting(text + begin, size);
    if (written <= 0)
        return false;
    line.torn = static_cast<size_t>(written) < size;
    return !line.torn;
}

bool WriteLostCount()
{
    if (line.lost == 0)
        return true;
    char text[64];
    int length = snprintf(text + 1, sizeof text - 2, "%lu trace line(s) lost", line.lost);
    if (!WriteLine(text, static_cast<size_t>(length) + 1))
        return false;
    line.lost = 0;
    return true;
}
} // namespace

void TraceWriter::Append(std::string_view piece)
{
    for (char character : piece.substr(0, sizeof line.text - 1 - line.end)) {
        bool isControl = static_cast<unsigned char>(character) < ' ' || character == '\x7F';
        line.text[line.end++] = isControl ? '?' : character;
    }
}

void TraceWriter::EndLine()
{
    int callersError = errno;
    if (!WriteLostCount() || !WriteLine(line.text, line.end))
        ++line.lost;
    line.end = 1;
    errno = callersError;
}
