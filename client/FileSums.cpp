#include "client/FileSums.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <unistd.h>

#include "support/FileCheckSum.h"

void FileSums::Add(std::string_view bytes)
{
    while (!bytes.empty()) {
        // The head ends within a block at most once.
        const long long left = static_cast<long long>(HeadSize) - size_;
        const std::size_t length =
            left > 0 ? std::min(bytes.size(), static_cast<std::size_t>(left)) : bytes.size();
        sum_.Update(bytes.data(), static_cast<unsigned>(length));
        size_ += static_cast<long long>(length);
        if (left > 0)
            head_ = sum_.GetValue();
        bytes.remove_prefix(length);
    }
}

void FileSums::Append(const CheckSum& following, long long length)
{
    sum_.Append(following, static_cast<unsigned long long>(length));
    size_ += length;
}

FileFacts FileSums::Facts() const
{
    return {size_, head_, sum_.GetValue()};
}

int AddBeginning(int file, long long size, FileSums& sums)
{
    const long long headSize = std::min<long long>(size, FileSums::HeadSize);
    std::array<char, FileSums::HeadSize> head;
    for (long long done = 0; done < headSize;) {
        const ssize_t count = pread(file, head.data(), static_cast<std::size_t>(headSize - done), done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count < 0 ? errno : EIO;
        sums.Add(std::string_view(head.data(), static_cast<std::size_t>(count)));
        done += count;
    }
    CheckSum rest;
    if (const int error = SumUpRange(file, headSize, size, rest, {}))
        return error;
    sums.Append(rest, size - headSize);
    return 0;
}
