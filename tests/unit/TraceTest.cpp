#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/BaseString.h"
#include "support/FileDescriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
enum Kind { Pipe, PipeWithoutDescriptors, Socket, Packets };

/** Two ends of something that can stand behind descriptor 1. */
struct Channel {
    explicit Channel(Kind kind)
    {
        int ends[2] = {-1, -1};
        if (kind == Socket || kind == Packets)
            EXPECT_EQ(socketpair(AF_UNIX, kind == Socket ? SOCK_STREAM : SOCK_SEQPACKET, 0, ends), 0);
        else
            EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reader = FileDescriptor(ends[0]);
        writer = FileDescriptor(ends[1]);
    }
    /** Writes until nothing more goes in. The number of bytes that did. */
    size_t Stuff() const
    {
        const int flags = fcntl(writer.Number(), F_GETFL);
        fcntl(writer.Number(), F_SETFL, flags | O_NONBLOCK);
        size_t total = 0;
        const std::string block(PIPE_BUF, '.');
        for (ssize_t written; (written = write(writer.Number(), block.data(), block.size())) > 0;)
            total += static_cast<size_t>(written);
        fcntl(writer.Number(), F_SETFL, flags);
        return total;
    }
    /** What one read delivers, or "" when nothing has come within 10 s. */
    std::string Read(size_t size = 65536) const
    {
        pollfd arrived = {reader.Number(), POLLIN, 0};
        std::string bytes(size, '\0');
        ssize_t got = poll(&arrived, 1, 10000) == 1 ? read(reader.Number(), bytes.data(), size) : 0;
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

    FileDescriptor reader;
    FileDescriptor writer;
};

/** Puts a descriptor in the place of standard output: until the end of the scope nothing may be asserted. */
class TraceInto
{
public:
    explicit TraceInto(const FileDescriptor& descriptor) : saved_(dup(STDOUT_FILENO))
    {
        dup2(descriptor.Number(), STDOUT_FILENO);
    }
    ~TraceInto() { dup2(saved_.Number(), STDOUT_FILENO); }

private:
    FileDescriptor saved_;
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
TEST(Trace, AReaderThatIsFullOrGoneLosesLinesAndTheNextIsToldHowMany)
{
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    for (Kind kind : {Pipe, PipeWithoutDescriptors, Socket}) {
        Channel channel(kind), next(Pipe);
        size_t stuffed = channel.Stuff();
        int flags = fcntl(channel.writer.Number(), F_GETFL);
        TraceLinesInto(channel, kind, {"first", "second"});
        EXPECT_EQ(channel.ReadAll(stuffed), std::string(stuffed, '.'));
        TraceLinesInto(channel, kind, {"third", "fourth"});
        const std::string expected = "2 trace line(s) lost\nthird\nfourth\n";
        EXPECT_EQ(channel.ReadAll(expected.size()), expected) << static_cast<int>(kind);
        EXPECT_EQ(fcntl(channel.writer.Number(), F_GETFL), flags) << "flags are shared with others";
        channel.reader = FileDescriptor();
        TraceLinesInto(channel, kind, {"lost"});
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
    const FileDescriptor file(mkostemp(name, O_CLOEXEC));
    ASSERT_TRUE(file.IsOpen());
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
    ssize_t size = pread(file.Number(), contents, sizeof contents, 0);
    EXPECT_EQ(std::string(contents, static_cast<size_t>(size)), "torn in th\n2 trace line(s) lost\nwhole\n");
}
