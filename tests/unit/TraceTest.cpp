#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/BaseString.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace
{
enum Kind { Pipe, PipeWithoutDescriptors, Socket, Packets, Terminal };

/** Two ends of something that can stand behind descriptor 1. */
class Channel
{
public:
    explicit Channel(Kind kind)
    {
        int ends[2] = {-1, -1};
        if (kind == Terminal) {
            ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
            EXPECT_EQ(unlockpt(ends[0]), 0);
            ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
            termios raw{};
            cfmakeraw(&raw);
            tcsetattr(ends[1], TCSANOW, &raw);
        } else if (kind == Socket || kind == Packets) {
            EXPECT_EQ(socketpair(AF_UNIX, kind == Socket ? SOCK_STREAM : SOCK_SEQPACKET, 0, ends), 0);
        } else {
            EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        }
        reader = ends[0];
        writer = ends[1];
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel()
    {
        CloseReader();
        close(writer);
    }
    void CloseReader()
    {
        if (reader >= 0)
            close(reader);
        reader = -1;
    }
    /** Stops a terminal; writes into others until nothing more goes in. The number of bytes that did. */
    size_t Stuff() const
    {
        if (isatty(writer)) {
            EXPECT_EQ(tcflow(writer, TCOOFF), 0);
            return 0;
        }
        fcntl(writer, F_SETFL, fcntl(writer, F_GETFL) | O_NONBLOCK);
        size_t total = 0;
        const std::string block(PIPE_BUF, '.');
        for (ssize_t written; (written = write(writer, block.data(), block.size())) > 0;)
            total += static_cast<size_t>(written);
        fcntl(writer, F_SETFL, fcntl(writer, F_GETFL) & ~O_NONBLOCK);
        return total;
    }
    /** Lets a stuffed channel take lines again: what went in comes out. */
    void Drain(size_t stuffed) const
    {
        if (isatty(writer))
            tcflow(writer, TCOON);
        EXPECT_EQ(ReadAll(stuffed), std::string(stuffed, '.'));
    }
    /** What one read delivers, or "" when nothing has come within 10 s. */
    std::string Read(size_t size = 65536) const
    {
        pollfd arrived = {reader, POLLIN, 0};
        std::string bytes(size, '\0');
        ssize_t got = poll(&arrived, 1, 10000) == 1 ? read(reader, bytes.data(), size) : 0;
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
        return bytes;
    }
    std::string ReadAll(size_t size) const
    {
        std::string all;
        for (std::string some; all.size() < size && !(some = Read(size - all.size())).empty();)
            all += some;
        return all;
    }

    int reader;
    int writer;
};

/** Puts a descriptor in the place of standard output: until the end of the scope nothing may be asserted. */
class TraceInto
{
public:
    explicit TraceInto(int descriptor) : saved_(dup(STDOUT_FILENO)) { dup2(descriptor, STDOUT_FILENO); }
    TraceInto(const TraceInto&) = delete;
    TraceInto& operator=(const TraceInto&) = delete;
    ~TraceInto()
    {
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

void TraceLinesInto(const Channel& channel, Kind kind, std::initializer_list<const char*> lines)
{
    TraceInto redirected(channel.writer);
    rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    rlimit allInUse = {1, old.rlim_max};
    if (kind == PipeWithoutDescriptors)
        setrlimit(RLIMIT_NOFILE, &allInUse);
    for (const char* line : lines)
        BaseString::PutTrace(line, 1);
    setrlimit(RLIMIT_NOFILE, &old);
}
} // namespace

TEST(Trace, ALineIsOneWriteWhateverItsPieces)
{
    Channel packets(Packets);
    int errorAfterwards;
    {
        TraceInto redirected(packets.writer);
        errno = ENOENT;
        BaseString::PutTrace("Error unable to check file...(", "/a", ") : ", 0);
        BaseString::PutTrace(strerror(errno), 1);
        BaseString::PutTrace(QORUnicodeString("port "), 5678, "", 0);
        BaseString::PutTrace(static_cast<const char*>(nullptr), 0);
        BaseString::PutTrace("!", "?", 1);
        BaseString::PutTrace("a\r\nforged\t\x1B[2J\x7F\xC3\xA9", 1);
        errno = EMLINK;
        for (int i = 0; i < 100; ++i)
            BaseString::PutTrace(std::string(100, 'x'), i == 99);
        errorAfterwards = errno;
        BaseString::PutTrace("", 1);
    }
    EXPECT_EQ(errorAfterwards, EMLINK);
    EXPECT_EQ(packets.Read(), "Error unable to check file...(/a) : No such file or directory\n");
    EXPECT_EQ(packets.Read(), "port 5678!?\n");
    EXPECT_EQ(packets.Read(), "a??forged??[2J?\xC3\xA9\n");
    std::string cut = packets.Read();
    EXPECT_GT(cut.size(), static_cast<size_t>(PIPE_BUF - 10));
    EXPECT_LE(cut.size(), static_cast<size_t>(PIPE_BUF));
    EXPECT_EQ(cut.find('\n'), cut.size() - 1);
    EXPECT_EQ(packets.Read(), "\n");
}

// A trace that waited would hang here until the test's time-out.
TEST(Trace, AFullReaderLosesLinesAndIsToldHowMany)
{
    for (Kind kind : {Pipe, PipeWithoutDescriptors, Socket, Terminal}) {
        Channel channel(kind);
        size_t stuffed = channel.Stuff();
        int flags = fcntl(channel.writer, F_GETFL);
        TraceLinesInto(channel, kind, {"first", "second"});
        channel.Drain(stuffed);
        TraceLinesInto(channel, kind, {"third", "fourth"});
        const std::string expected = "2 trace line(s) lost\nthird\nfourth\n";
        EXPECT_EQ(channel.ReadAll(expected.size()), expected) << static_cast<int>(kind);
        EXPECT_EQ(fcntl(channel.writer, F_GETFL), flags) << "flags are shared with others";
    }
}

TEST(Trace, AReaderThatHasGoneKillsNobody)
{
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    for (Kind kind : {Pipe, PipeWithoutDescriptors, Socket, Terminal}) {
        Channel channel(kind);
        channel.CloseReader();
        TraceLinesInto(channel, kind, {"lost"});
        Channel next(Pipe);
        TraceLinesInto(next, Pipe, {"still here"});
        EXPECT_EQ(next.ReadAll(32), "1 trace line(s) lost\nstill here\n") << static_cast<int>(kind);
    }
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

// A full disk takes the beginning of a line only; the next line must not be glued to it.
TEST(Trace, ALineAfterATornOneBeginsOnItsOwn)
{
    char name[] = "/tmp/ruvel-trace-XXXXXX";
    int file = mkostemp(name, O_CLOEXEC);
    ASSERT_GE(file, 0);
    unlink(name);
    ASSERT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    {
        TraceInto redirected(file);
        rlimit tenBytes = {10, old.rlim_max};
        setrlimit(RLIMIT_FSIZE, &tenBytes);
        BaseString::PutTrace("torn in the middle", 1);
        BaseString::PutTrace("no room at all", 1);
        setrlimit(RLIMIT_FSIZE, &old);
        BaseString::PutTrace("whole", 1);
    }
    signal(SIGXFSZ, SIG_DFL);
    char contents[100];
    ssize_t size = pread(file, contents, sizeof contents, 0);
    close(file);
    EXPECT_EQ(std::string(contents, static_cast<size_t>(size)), "torn in th\n2 trace line(s) lost\nwhole\n");
}
