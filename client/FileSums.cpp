#include "client/FileSums.h"

#include <algorithm>

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

int FileSums::AddBeginning(int file, long long size)
{
    const long long headSize = std::min<long long>(size, HeadSize);
    if (const int error = SumUpRange(file, 0, headSize, sum_, {}))
        return error;
    head_ = sum_.GetValue();
    size_ = size;
    return SumUpRange(file, headSize, size, sum_, {});
}

FileFacts FileSums::Facts() const
{
    return {size_, head_, sum_.GetValue()};
}
