#include "client/CommandLine.h"

#include <gtest/gtest.h>

namespace
{
CommandLine Read(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "RuvelControl");
    return ReadCommandLine(static_cast<int>(arguments.size()), arguments.data());
}
} // namespace

TEST(CommandLineTest, TellsOwnOptionsFromTheCommandsWords)
{
    using Words = std::vector<std::string>;
    const struct {
        std::vector<const char*> arguments;
        Words words;
        const char* host;
        int port;
        long lifeTimeOut;
    } cases[] = {
        {{"run", "ls"}, {"ls"}, "localhost", 5678, 0},
        {{"run", "-H", "a.b:7", "--timeout=9", "--", "-x", "--", "-H", "c"},
         {"-x", "--", "-H", "c"},
         "a.b",
         7,
         9},
        {{"run", "-H:1", "git", "log", "--", "-H", "x"}, {"git", "log", "--", "-H", "x"}, "localhost", 1, 0},
        {{"run", "run", "--help", "[a,b]", "%%", "", "{}"},
         {"run", "--help", "[a,b]", "%%", "", "{}"},
         "localhost",
         5678,
         0},
        {{"run", "--host", "h", "", "x"}, {"", "x"}, "h", 5678, 0},
    };
    for (const auto& one : cases) {
        const CommandLine read = Read(one.arguments);
        ASSERT_TRUE(read.run.has_value()) << one.words.front();
        EXPECT_EQ(read.run->words, one.words);
        EXPECT_EQ(read.run->server.host, one.host);
        EXPECT_EQ(read.run->server.port, one.port);
        EXPECT_EQ(read.run->lifeTimeOut, one.lifeTimeOut);
    }
}

TEST(CommandLineTest, WhatCannotBeReadEndsWithOneLineAnd255)
{
    const std::vector<const char*> cases[] = {{},
                                              {"walk"},
                                              {"run"},
                                              {"run", "--"},
                                              {"run", "-Z", "ls"},
                                              {"run", "-H"},
                                              {"run", "-H", "a:0", "ls"},
                                              {"run", "-H", "a:", "ls"},
                                              {"run", "-H", "a:65536", "ls"},
                                              {"run", "--timeout", "-1", "ls"},
                                              {"run", "--timeout", "5m", "ls"}};
    for (const auto& arguments : cases) {
        testing::internal::CaptureStderr();
        const CommandLine read = Read(arguments);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(read.run.has_value()) << said;
        EXPECT_EQ(read.exitCode, 255) << said;
        EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
    }
}
