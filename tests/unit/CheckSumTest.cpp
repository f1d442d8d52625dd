#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/CheckSum.h"
#include "support/CheckSumKernels.h"

namespace
{
unsigned int CheckSumOf(const std::string& bytes)
{
    CheckSum sum;
    sum.Update(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return sum.GetValue();
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

TEST(CheckSum, KnownValues)
{
    EXPECT_EQ(CheckSumOf(""), 0U);
    EXPECT_EQ(CheckSumOf("123456789"), 0xCBF43926U);
    EXPECT_EQ(CheckSumOf(std::string(32, '\0')), 0x190A55ADU);
}

// Every length around the steps of the kernels, at any alignment, from any state. The buffer ends with the
// data, so that the sanitizer sees a kernel that reads on.
TEST(CheckSum, KernelsAgreeWithTheDefinition)
{
    std::mt19937 random(20261122);
    for (size_t i = 0; i < 500; ++i) {
        size_t length = i < 300 ? i : random() % 20000;
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
    }
}

// The pieces fall on both sides of the length at which another kernel takes over.
TEST(CheckSum, SplitsChangeNothing)
{
    std::mt19937 random(7);
    std::string bytes(50000, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    for (unsigned int longest : {1U, 300U, 16384U}) {
        CheckSum sum;
        for (size_t done = 0; done < bytes.size();) {
            size_t piece = std::min<size_t>(bytes.size() - done, random() % (longest + 1));
            sum.Update(bytes.data() + done, static_cast<unsigned int>(piece));
            done += piece;
        }
        EXPECT_EQ(sum.GetValue(), CheckSumOf(bytes)) << longest;
    }
}
