#include <gtest/gtest.h>

#include "client/Listing.h"
#include "client/ListingText.h"

namespace
{
const std::string Head = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n"
                         "->7 launched command(s) and file transfer(s) since beginning\n";

/** A listing with nothing but these commands. */
std::string WithCommands(int count, const std::string& lines)
{
    return Head + "->Found 0 active log transfer(s)\n->Found " + std::to_string(count) +
           " active command(s)\n" + lines + "->Found 0 active file transfer(s)\n";
}

std::string CommandLine(int number, const std::string& command)
{
    return "->N(" + std::to_string(number) + "), PID(41), UID(ann), BDATE(2026-11-22 20:15:04), CMD(" +
           command + ")\n";
}
} // namespace

TEST(ClientListing, TellsLogsCommandsAndTransfersApart)
{
    const auto listing = ParseListing(
        Head +
        "->Found 1 active log transfer(s)\n"
        "->N(2), PID(40), UID(DOM\\bob), BDATE(d), CMD(echo ), RC(1), x), RC(-3), STATUS(sent 5 byte(s) in 1 "
        "s (5 B/s))\n"
        "->Found 1 active command(s)\n" +
        CommandLine(3, "echo 'a), CMD(b'") +
        "->Found 2 active file transfer(s)\n"
        "->N(4), UID(ann), BDATE(d), LTO(60), CMD(TRANSFER GET), MODE(ASCII), TYPE(PASSIVE), REMOTE FILE(/a "
        "(1))\n"
        "->N(5), UID(ann), BDATE(d), LTO(0), CMD(TRANSFER PUT), MODE(BINARY), TYPE(ACTIVE), REMOTE FILE(/b), "
        "STATUS(integrity 1/2 byte(s))\n"
        "->Memory : 12\n->Disk : 3\n");
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->startedSinceBeginning, 7);
    ASSERT_EQ(listing->logs.size(), 1U);
    EXPECT_EQ(listing->logs[0].user, "DOM\\bob");
    EXPECT_EQ(listing->logs[0].command, "echo ), RC(1), x");
    EXPECT_EQ(listing->logs[0].returnCode, -3);
    EXPECT_EQ(listing->logs[0].status, "sent 5 byte(s) in 1 s (5 B/s)");
    ASSERT_EQ(listing->commands.size(), 1U);
    EXPECT_EQ(listing->commands[0].number, 3);
    EXPECT_EQ(listing->commands[0].processId, 41);
    EXPECT_EQ(listing->commands[0].command, "echo 'a), CMD(b'");
    ASSERT_EQ(listing->transfers.size(), 2U);
    EXPECT_TRUE(listing->transfers[0].isGet && listing->transfers[0].isAscii &&
                listing->transfers[0].isPassive);
    EXPECT_EQ(listing->transfers[0].file, "/a (1)");
    EXPECT_EQ(listing->transfers[0].lifeTimeOut, 60);
    EXPECT_EQ(listing->transfers[1].file, "/b");
    EXPECT_EQ(listing->transfers[1].status, "integrity 1/2 byte(s)");
    EXPECT_EQ(listing->report, (std::vector<std::string>{"Memory : 12", "Disk : 3"}));
}

TEST(ClientListing, ACommandMayHoldAnyText)
{
    const std::string forged = CommandLine(9, "forged");
    for (const std::string& command :
         {std::string("a\nb\n"), std::string("->\n->Found 3 active command(s)\n)"), "x)\n" + forged + "y"}) {
        const auto listing = ParseListing(WithCommands(2, CommandLine(3, command) + CommandLine(4, "true")));
        ASSERT_TRUE(listing) << command;
        EXPECT_EQ(listing->commands.size(), 2U) << command;
        EXPECT_EQ(listing->commands[0].number, 3) << command;
        EXPECT_TRUE(listing->transfers.empty()) << command;
    }
    const auto listing = ParseListing(WithCommands(1, CommandLine(3, "a\nb")));
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->commands[0].command, "a\nb");
}

TEST(ClientListing, IsShownInColumns)
{
    const auto listing = ParseListing(WithCommands(2, CommandLine(3, "a\nb") + CommandLine(1234, "true")));
    ASSERT_TRUE(listing);
    EXPECT_EQ(FormatListing(*listing, 0),
              (std::vector<std::string>{"Commands (2)", "     N  PROCESS  USER  BEGAN                COMMAND",
                                        "     3       41  ann   2026-11-22 20:15:04  a\\x0ab",
                                        "  1234       41  ann   2026-11-22 20:15:04  true"}));
    for (const std::string& line : FormatListing(*listing, 30))
        EXPECT_LE(line.size(), 30U);
    EXPECT_EQ(FormatListing(*ParseListing(WithCommands(0, "")), 80),
              std::vector<std::string>{"Nothing is running."});
    const std::string json = FormatListingAsJson(*ParseListing(WithCommands(1, CommandLine(3, "\xC2\x9B"
                                                                                              "2J"))));
    EXPECT_NE(json.find("\\u009b2J"), std::string::npos) << json;
}

TEST(ClientListing, WhatIsNoListingIsNotTakenForOne)
{
    for (const std::string& answer :
         {std::string(), Head, std::string("->Error bad user or password"),
          std::string("HTTP/1.1 400\r\n\r\n"), WithCommands(0, "").substr(0, Head.size() + 40)})
        EXPECT_FALSE(ParseListing(answer)) << answer;
}
