#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/Delivery.h"
#include "client/GetTarget.h"
#include "client/ProgressBar.h"
#include "client/ServerRefusal.h"
#include "client/Terminal.h"
#include "client/TransferOptions.h"

TEST(ProgressTexts, FiguresHaveThreeDigitsAndDurationsAreReadAsOnAClock)
{
    for (const auto& [bytes, text] : {std::pair(1023LL, "1023 B"),
                                      {1024, "1.00 KiB"},
                                      {10 * 1024, "10.0 KiB"},
                                      {1023 * 1024, "1.00 MiB"},
                                      {1LL << 40, "1.00 TiB"}})
        EXPECT_EQ(FormatBytes(bytes), text);
    for (const auto& [seconds, text] :
         {std::pair(7.9, "0:07"), {754, "12:34"}, {10921, "3:02:01"}, {-1, "--:--"}, {1e12, "--:--"}})
        EXPECT_EQ(FormatDuration(seconds), text);
}

TEST(ProgressTexts, ABarTellsShareRateAndTimeLeft)
{
    // Half of it was there before: the rate is that of the other half.
    const Progress progress{3 << 20, 4 << 20, 2 << 20, 2};
    EXPECT_EQ(FormatProgress("a", progress, 80),
              "a         75 % [================>     ] 3.00 MiB/4.00 MiB  512 KiB/s   0:02 left");
    EXPECT_EQ(FormatProgress("a", {5, -1, 0, 1}, 40), "a             5 B      5 B/s   0:01     ");
    EXPECT_NE(FormatProgress("a", {0, 0, 0, 0}, 80).find("100 %"), std::string::npos);
}

TEST(ProgressTexts, ABarNeverIsWiderThanTheTerminal)
{
    const std::string name(300, 'n');
    for (int columns = 0; columns < 200; ++columns)
        EXPECT_LE(Terminal::CountColumns(FormatProgress(name, {1 << 30, 1LL << 40, 0, 100}, columns)),
                  columns);
}

TEST(TerminalTexts, OnlyWhatIsHarmlessReachesATerminal)
{
    const std::pair<std::string, std::string> cases[] = {
        {"plain, \xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "plain, \xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"\x1b[2J\r\n\x7f", "\\x1b[2J\\x0d\\x0a\\x7f"},
        {"\xC2\x9B", "\\xc2\\x9b"},          // a control sequence's beginning in one character
        {"\xE2\x80\xAE", "\\xe2\\x80\\xae"}, // turns the direction of writing
        {"\xE2\x80\x93\xE2\x80\xA6\xE2\x81\x84", "\xE2\x80\x93\xE2\x80\xA6\xE2\x81\x84"},
        {"\xEF\xBB\xBF", "\\xef\\xbb\\xbf"},
        {"\xE0\x82\x9B", "\\xe0\\x82\\x9b"}, // the same with a byte more than it needs
        {"\xC3", "\\xc3"},
        {"\xFFz", "\\xffz"}};
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(Terminal::MakePrintable(text), shown);
    EXPECT_EQ(Terminal::CutToColumns("\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4", 4), "\xC3\xA4...");
    EXPECT_EQ(Terminal::CutFrontToColumns("abcdefgh", 5), "...gh");
}

TEST(ClientNames, AreMadeSafely)
{
    EXPECT_EQ(FileNameFor("HOST(10.0.0.1), PORT(5678), N(3), UID(D\\../x)"),
              "HOST-10.0.0.1-PORT-5678-N-3-UID-D-..-x");
    EXPECT_EQ(FileNameFor("../../etc/passwd"), "etc-passwd");
    EXPECT_EQ(PartPathOf("/a/b"), "/a/.b.ruvelpart");
    EXPECT_EQ(PartPathOf("b"), ".b.ruvelpart");
    EXPECT_LE(PartPathOf(std::string(255, 'x')).size(), 255U);
    EXPECT_NE(PartPathOf(std::string(254, 'x')), PartPathOf(std::string(255, 'x')));
    EXPECT_EQ(NameIn("/a/b//"), "b");
    EXPECT_EQ(NameIn("b"), "b");
}

TEST(ClientRefusals, AreNotExplainedByWhatTheyQuote)
{
    const std::string log = "Error unable to open log file...(/var/log/5.log) : ";
    for (const auto& [line, explained] :
         {std::pair<std::string, const char*>("Error unable to impersonate : Error bad user or password",
                                              "the password"),
          {"Error unable to open remote file...( /a/Error bad user or password) : Is a directory", "folder"},
          {"Error unable to open remote file...( /No such file or directory) : Input/output error",
           "cannot open the file"},
          {log + "Permission denied", "folder for logs"},
          {"Error unable to check log command file : " + log + "No such file or directory", "not trust"},
          {"Error unable to kill command N(4) : not owner", "somebody else"}}) {
        EXPECT_THAT(ExplainRefusal({}, "->" + line).sentence, testing::HasSubstr(explained)) << line;
        EXPECT_EQ(IsUserRefusal(line), std::string_view(explained) == "the password") << line;
    }
}
