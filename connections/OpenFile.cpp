#include "connections/OpenFile.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

OpenFile::OpenFile(OpenFile&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

OpenFile& OpenFile::operator=(OpenFile&& other) noexcept
{
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

OpenFile::~OpenFile()
{
    Close();
}

long long OpenFile::FindSize()
{
    const long long size = lseek(descriptor_, 0, SEEK_END);
    return size >= 0 && Rewind() == 0 ? size : -1;
}

bool OpenFile::IsRegular() const
{
    struct stat status;
    return fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
}

long OpenFile::Read(char* buffer, std::size_t length)
{
    std::size_t count = 0;
    while (count < length) {
        const long got = ReadSome(buffer + count, length - count);
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        count += static_cast<std::size_t>(got);
    }
    return static_cast<long>(count);
}

long OpenFile::ReadSome(char* buffer, std::size_t length)
{
    for (;;) {
        const ssize_t got = read(descriptor_, buffer, length);
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

int OpenFile::Write(const char* buffer, std::size_t length)
{
    while (length > 0) {
        const ssize_t put = write(descriptor_, buffer, length);
        if (put < 0 && errno != EINTR)
            return -1;
        if (put > 0) {
            buffer += put;
            length -= static_cast<std::size_t>(put);
        }
    }
    return 0;
}

int OpenFile::MoveTo(long long offset)
{
    return lseek(descriptor_, offset, SEEK_SET) == offset ? 0 : -1;
}

int OpenFile::SetBlocking()
{
    const int flags = fcntl(descriptor_, F_GETFL);
    return flags != -1 && fcntl(descriptor_, F_SETFL, flags & ~O_NONBLOCK) == 0 ? 0 : -1;
}

int OpenFile::Close()
{
    // Never repeated after EINTR: the descriptor is free by then.
    const int descriptor = std::exchange(descriptor_, -1);
    return descriptor < 0 || close(descriptor) == 0 || errno == EINTR ? 0 : -1;
}
