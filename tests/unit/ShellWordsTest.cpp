#include "client/ShellWords.h"

#include <cstdio>

#include <gtest/gtest.h>

TEST(ShellWordsTest, AShellReadsTheSameWords)
{
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    const std::vector<std::string> words = {"",   everyByte, "'", "a b", "~",     "*", "x=$HOME",
                                            "-n", "\\",      "#", "!",   "plain", "",  "`id`"};
    std::string expected;
    for (const std::string& word : words)
        expected += word + '\0';

    FILE* const shell = popen(("printf '%s\\0' " + JoinShellWords(words)).c_str(), "r");
    ASSERT_NE(shell, nullptr);
    std::string received;
    int byte;
    while ((byte = fgetc(shell)) != EOF)
        received += static_cast<char>(byte);
    EXPECT_EQ(pclose(shell), 0);
    EXPECT_EQ(received, expected);
    EXPECT_EQ(JoinShellWords({"VAR=1", "ls", "a b"}), "'VAR=1' ls 'a b'");
}
