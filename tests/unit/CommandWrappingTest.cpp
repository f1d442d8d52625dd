#include "client/CommandWrapping.h"

#include <gtest/gtest.h>

TEST(CommandWrappingTest, ShowingTheSentLineShowsNoMark)
{
    for (const std::string& sent :
         {WrapLine({"abc", true, Wrapping::InTmp}, "ls"), WrapLongLine({"abc", false, Wrapping::InTmp}, "ls"),
          ErrorReaderLine("abc")}) {
        EXPECT_EQ(sent.find(EndLead("abc")), std::string::npos);
        EXPECT_EQ(sent.find(ReadyLead("abc")), std::string::npos);
    }
}

TEST(CommandWrappingTest, ListingsShowTheUsersLine)
{
    const Wrapping apart = {"abc", true, Wrapping::InLogFolder};
    EXPECT_EQ(OwnLine(WrapLine(apart, "a;exit $1")), "a;exit $1");
    EXPECT_EQ(OwnLine(WireLine("a|b\n'c\\'")), "a|b\n'c\\'");
    EXPECT_EQ(OwnLine(WrapLongLine(apart, "a 'b' | c")), "a 'b'   c...");
    for (const std::string own : {"ls -l", "/bin/sh -c 'x'", "exit $1", "/bin/sh -c a;exit $2"})
        EXPECT_EQ(OwnLine(own), own);
    // Only what is wrapped in nothing else: the rest may be what matters.
    const std::string wrapped = WrapLine({"abc"}, "ls");
    for (const std::string& own :
         {"x;" + wrapped, WireLine("a|b") + ";x", ErrorReaderLine("abc") + ";x",
          std::string(wrapped).insert(wrapped.find(';'), ";x"), std::string(": ls;x;exit $1")})
        EXPECT_EQ(OwnLine(own), own);
    EXPECT_EQ(OwnLine(ErrorReaderLine("abc")), "(passes on a command's standard error)");
}
