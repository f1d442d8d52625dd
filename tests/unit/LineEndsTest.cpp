#include <string>
#include <vector>

#include "protocol/LineEnds.h"

#include <gtest/gtest.h>

namespace
{
std::string ReduceInBlocks(const std::vector<std::string>& blocks)
{
    LineEnds::Reducer reducer;
    std::string result;
    for (const std::string& block : blocks) {
        std::string room = "?" + block;
        result += reducer.Reduce(room.data(), block.size());
    }
    return result += reducer.TakeHeldBack();
}

TEST(LineEnds, DropTheReturnOfEveryPairHoweverTheDataIsCut)
{
    const struct {
        std::string given, kept;
    } Cases[] = {
        {"a\r\nb\r\nc", "a\nb\nc"},
        {"\r\n", "\n"},
        {"\r\r\n\r", "\r\n\r"},
        {"\r\r\r", "\r\r\r"},
        {"\n\r\n\n\r", "\n\n\n\r"},
        {"a\rb\r\r\n", "a\rb\r\n"},
        {"", ""},
        {"plain", "plain"},
        {std::string("\0\r\n\0", 4), std::string("\0\n\0", 3)},
    };
    for (const auto& one : Cases) {
        // Every way to cut it into three, empty pieces included.
        for (size_t i = 0; i <= one.given.size(); ++i)
            for (size_t j = i; j <= one.given.size(); ++j)
                EXPECT_EQ(
                    ReduceInBlocks({one.given.substr(0, i), one.given.substr(i, j - i), one.given.substr(j)}),
                    one.kept)
                    << i << ' ' << j;
        std::vector<std::string> bytes;
        for (const char byte : one.given)
            bytes.emplace_back(1, byte);
        EXPECT_EQ(ReduceInBlocks(bytes), one.kept);
    }
}

TEST(LineEnds, PutAReturnBeforeEveryLineFeed)
{
    const struct {
        std::string given, sent;
    } Cases[] = {
        {"a\nb\n", "a\r\nb\r\n"}, {"\n\n\n", "\r\n\r\n\r\n"}, {"a\r\nb", "a\r\r\nb"}, {"", ""}, {"x", "x"}};
    for (const auto& one : Cases) {
        std::string out(2 * one.given.size(), '?');
        out.resize(LineEnds::Expand(one.given, out.data()));
        EXPECT_EQ(out, one.sent);
    }
}
} // namespace
