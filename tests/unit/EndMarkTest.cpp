#include "client/EndMark.h"

#include <gtest/gtest.h>

namespace
{
const std::string Lead = "\036ab12:";

const struct {
    const char* what;
    std::string stream;
    std::string output;
    bool isFound;
    int number;
    std::string rest;
} Streams[] = {
    {"nothing before it", Lead + "0\n", "", true, 0, ""},
    {"any bytes before it, more behind", std::string("\0\xff\n|", 4) + Lead + "255\nmore" + Lead + "1\n",
     std::string("\0\xff\n|", 4), true, 255, "more" + Lead + "1\n"},
    {"its beginning as output", "\036\036ab\036ab12\036ab12:" + Lead + "7\n",
     "\036\036ab\036ab12\036ab12:", true, 7, ""},
    {"no number", Lead + "\n" + Lead + "x\n" + Lead + "-1\n", Lead + "\n" + Lead + "x\n" + Lead + "-1\n",
     false, 0, ""},
    {"too long a number", Lead + "1234567890\n", Lead + "1234567890\n", false, 0, ""},
    {"cut in the middle", "out" + Lead + "12", "out" + Lead + "12", false, 0, ""},
    {"cut at its first byte", "out\036", "out\036", false, 0, ""},
};
} // namespace

TEST(EndMarkTest, IsFoundHoweverTheStreamIsCut)
{
    for (const auto& one : Streams)
        for (std::size_t first = 1; first <= one.stream.size(); ++first)
            for (std::size_t step : {std::size_t(1), std::size_t(3), one.stream.size()}) {
                EndMark mark(Lead);
                std::string output;
                std::string rest;
                for (std::size_t at = 0; at < one.stream.size(); at += at == 0 ? first : step) {
                    mark.Feed(std::string_view(one.stream).substr(at, at == 0 ? first : step), output);
                    rest += mark.TakeRest();
                }
                mark.Finish(output);
                ASSERT_EQ(output, one.output) << one.what << ", " << first << ", " << step;
                ASSERT_EQ(mark.IsFound(), one.isFound) << one.what;
                ASSERT_EQ(rest, one.rest) << one.what;
                if (one.isFound) {
                    ASSERT_EQ(mark.Number(), one.number) << one.what;
                }
            }
}

TEST(EndMarkTest, WhatWasReleasedIsNeitherRepeatedNorForgotten)
{
    EndMark mark(Lead);
    std::string output;
    mark.Feed("x\036ab", output);
    ASSERT_TRUE(mark.IsHolding());
    mark.Release(output);
    EXPECT_EQ(output, "x\036ab");
    mark.Feed("1", output);
    mark.Feed("!" + Lead.substr(0, 2), output);
    EXPECT_EQ(output, "x\036ab1!");
    mark.Release(output);
    mark.Feed(Lead.substr(2) + "5\n", output);
    EXPECT_EQ(output, "x\036ab1!" + Lead.substr(0, 2));
    EXPECT_TRUE(mark.IsFound());
    EXPECT_TRUE(mark.HasLeaked());
    EXPECT_EQ(mark.Number(), 5);
}
