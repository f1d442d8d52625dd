#include "client/FileSums.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <unistd.h>

namespace
{
constexpr std::size_t BlockSize = 262144;
} // namespace

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

FileFacts FileSums::Facts() const
{
    return {size_, head_, sum_.GetValue()};
}

int AddBeginning(int file, long long size, FileSums& sums)
{
    std::vector<char> block(BlockSize);
    for (long long done = 0; done < size;) {
        const auto length = static_cast<std::size_t>(std::min<long long>(size - done, BlockSize));
        const ssize_t count = pread(file, block.data(), length, done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count < 0 ? errno : EIO;
        sums.Add(std::string_view(block.data(), static_cast<std::size_t>(count)));
        done += count;
    }
    return 0;
}
