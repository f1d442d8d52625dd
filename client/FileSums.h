#pragma once

#include <cstddef>
#include <string_view>

#include "support/CheckSum.h"

/** What both sides of a transfer tell each other about a file, or about its beginning. */
struct FileFacts {
    long long size = 0;
    unsigned headCheckSum = 0;
    unsigned bodyCheckSum = 0;
};

/** Sums up a file while its bytes pass by. */
class FileSums
{
public:
    /** The head: so many bytes at most. */
    static constexpr std::size_t HeadSize = 16384;

    void Add(std::string_view bytes);
    /** Adds the first `size` bytes of an open file, read at their offsets, to sums of nothing yet: 0, else
     * the error; EIO when the file is shorter. */
    int AddBeginning(int file, long long size);
    /** Of all bytes so far. */
    FileFacts Facts() const;

private:
    CheckSum sum_;
    long long size_ = 0;
    unsigned head_ = 0;
};
