#include "client/CommandWrapping.h"

#include <cstdio>

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace
{
struct Ran {
    std::string output;
    int code;
};

/** Runs a line as the server does. */
Ran RunShell(const std::string& line)
{
    FILE* const shell = popen(line.c_str(), "r");
    Ran ran;
    for (int byte; (byte = fgetc(shell)) != EOF;)
        ran.output += static_cast<char>(byte);
    ran.code = WEXITSTATUS(pclose(shell));
    return ran;
}

const Wrapping Merged = {"0123456789abcdef", false, Wrapping::InTmp};
} // namespace

TEST(CommandWrappingTest, TellsTheCodeWhateverTheLineDoesToItsShell)
{
    const struct {
        const char* line;
        int code;
    } cases[] = {{"exit 3", 3},        {"kill -9 $$", 137},
                 {"exec false", 1},    {"trap 'exit 8' 0; exit 4", 8},
                 {"set -e; false", 1}, {"printf() { :; }; (exit 255)", 255},
                 {"echo 'x", 2},       {"", 0},
                 {"-x", 127},          {"# nothing", 0}};
    for (const auto& one : cases) {
        const Ran ran = RunShell(WrapLine(Merged, one.line) + " 2>&1");
        EXPECT_EQ(ran.code, one.code) << one.line;
        EXPECT_TRUE(ran.output.ends_with(EndLead(Merged.mark) + std::to_string(one.code) + "\n")) << one.line;
    }
}

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
    EXPECT_EQ(OwnLine(ErrorReaderLine("abc")), "(passes on a command's standard error)");
}
