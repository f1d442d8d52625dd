#include <algorithm>
#include <cerrno>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/CheckSum.h"
#include "support/CheckSumKernels.h"
#include "support/FileCheckSum.h"

namespace
{
unsigned int CheckSumOf(const std::string& bytes)
{
    CheckSum sum;
    sum.Update(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return sum.GetValue();
}

std::string RandomBytes(size_t count)
{
    std::mt19937 random(11);
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

/** The definition: one bit at a time. */
unsigned int DivideBitwise(unsigned int state, const unsigned char* data, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        state ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            state = (state >> 1) ^ ((state & 1U) * 0xEDB88320U);
    }
    return state;
}
} // namespace

// Every length around the steps of the kernels, at any alignment, from any state. The buffer ends with the
// data, so that the sanitizer sees a kernel that reads on.
TEST(CheckSum, KernelsAgreeWithTheDefinition)
{
    std::mt19937 random(20261122);
    for (size_t i = 0; i < 800; ++i) {
        size_t length = i < 600 ? i : random() % 20000;
        size_t offset = random() % 64;
        std::vector<unsigned char> buffer(offset + length);
        std::generate(buffer.begin(), buffer.end(), std::ref(random));
        const unsigned char* data = buffer.data() + offset;
        unsigned int state = static_cast<unsigned int>(random());
        unsigned int expected = DivideBitwise(state, data, length);
        ASSERT_EQ(CheckSumKernels::FoldPortable(state, data, length), expected) << length;
        if (CheckSumKernels::HasCarryless()) {
            ASSERT_EQ(CheckSumKernels::FoldCarryless(state, data, length), expected) << length;
        }
        if (CheckSumKernels::HasWide()) {
            ASSERT_EQ(CheckSumKernels::FoldWide(state, data, length), expected) << length;
        }
    }
}

TEST(CheckSum, WhatFollowsIsJoined)
{
    const std::string bytes = RandomBytes(90001);
    for (const size_t first : {0U, 1U, 300U, 40000U}) {
        for (const size_t second : {0U, 1U, 7U, 16384U, 50001U}) {
            CheckSum sum, following;
            sum.Update(bytes.data(), static_cast<unsigned int>(first));
            following.Update(bytes.data() + first, static_cast<unsigned int>(second));
            sum.Append(following, second);
            EXPECT_EQ(sum.GetValue(), CheckSumOf(bytes.substr(0, first + second)));
            sum.Update("more", 4); // goes on from there
            EXPECT_EQ(sum.GetValue(), CheckSumOf(bytes.substr(0, first + second) + "more"));
        }
    }
}

// Five thousand megabytes, joined one by one and at once.
TEST(CheckSum, WhatFollowsMayBeLongerThanFourGigabytes)
{
    const std::string megabyte = RandomBytes(1 << 20);
    CheckSum piece, oneByOne, following, atOnce;
    piece.Update(megabyte.data(), 1 << 20);
    oneByOne.Update("begin", 5);
    atOnce.Update("begin", 5);
    for (int i = 0; i < 5000; ++i) {
        oneByOne.Append(piece, 1 << 20);
        following.Append(piece, 1 << 20);
    }
    atOnce.Append(following, 5000ULL << 20);
    EXPECT_EQ(atOnce.GetValue(), oneByOne.GetValue());
}

TEST(FileCheckSum, ThreadsSumUpWhatOneWould)
{
    const std::string bytes = RandomBytes(5000003);
    const int file = memfd_create("bytes", MFD_CLOEXEC);
    ASSERT_EQ(write(file, bytes.data(), bytes.size()), 5000003);
    ASSERT_EQ(lseek(file, 7, SEEK_SET), 7);
    const std::pair<long long, long long> ranges[] = {{0, 0},       {0, 1},           {16384, 20000},
                                                      {0, 5000003}, {16384, 5000003}, {1, 2 * 1048576 + 1}};
    for (const auto& [begin, end] : ranges) {
        CheckSum sum;
        sum.Update(bytes.data(), static_cast<unsigned int>(begin));
        long long last = 0;
        const auto watch = [&](long long done) {
            EXPECT_GT(done, last);
            last = done;
        };
        EXPECT_EQ(SumUpRange(file, begin, end, sum, std::ref(watch)), 0);
        EXPECT_EQ(sum.GetValue(), CheckSumOf(bytes.substr(0, static_cast<size_t>(end)))) << begin;
        EXPECT_LE(last, end - begin);
    }
    CheckSum sum;
    EXPECT_EQ(SumUpRange(file, 0, 5000004, sum, {}), EIO) << "the file ends before";
    EXPECT_EQ(SumUpRange(-1, 0, 5000003, sum, {}), EBADF);
    EXPECT_EQ(lseek(file, 0, SEEK_CUR), 7);
    close(file);
}
