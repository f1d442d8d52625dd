#include "client/ServerOptions.h"
#include "client/Subcommand.h"
#include "client/SubcommandParser.h"

#include <gtest/gtest.h>

namespace
{
using Words = std::vector<std::string>;
} // namespace

TEST(CommandLineTest, TellsOwnOptionsFromTheCommandsWords)
{
    const struct {
        Arguments arguments;
        Words words;
        const char* host;
        std::string choice;
    } cases[] = {
        {{{"ls"}, {}, false}, {"ls"}, "", ""},
        {{{"-H", "a.b:7", "--choice=9"}, {"-x", "--", "-H", "c"}, true},
         {"-x", "--", "-H", "c"},
         "a.b:7",
         "9"},
        {{{"-H:1", "git", "log"}, {"-H", "x"}, true}, {"git", "log", "--", "-H", "x"}, ":1", ""},
        {{{"run", "--help", "[a,b]", "%%", "", "{}"}, {}, false},
         {"run", "--help", "[a,b]", "%%", "", "{}"},
         "",
         ""},
        {{{"--host", "h", "", "x"}, {}, false}, {"", "x"}, "h", ""},
    };
    for (const auto& one : cases) {
        SubcommandParser parser({"run", "", nullptr}, "");
        std::string choice;
        parser.Options().add_option("--choice", choice);
        EXPECT_EQ(parser.Parse(one.arguments), std::nullopt);
        EXPECT_EQ(parser.Words(), one.words);
        EXPECT_EQ(parser.WhoAndWhere().host.value_or(""), one.host);
        EXPECT_EQ(choice, one.choice);
    }
}

TEST(CommandLineTest, ReadsDurations)
{
    const struct {
        const char* text;
        std::optional<long> seconds;
    } cases[] = {{"0", 0},
                 {"90", 90},
                 {"30s", 30},
                 {"10m", 600},
                 {"2h", 7200},
                 {"1d", 86400},
                 {"24855d", 24855L * 86400},
                 {"24856d", std::nullopt},
                 {"", std::nullopt},
                 {"m", std::nullopt},
                 {"-1", std::nullopt},
                 {"1ms", std::nullopt},
                 {"1.5h", std::nullopt}};
    for (const auto& one : cases)
        EXPECT_EQ(ReadDuration(one.text), one.seconds) << one.text;
}
