// What a request is taken for: its fields, its client, its form, and when it is whole.

#include "daemon/LaunchArguments.h"
#include "daemon/TransferArguments.h"
#include "protocol/RequestForms.h"
#include "protocol/RequestText.h"
#include "protocol/Texts.h"

#include <gtest/gtest.h>

using protocol::RequestFields;
using protocol::RequestKind;
using protocol::RequestText;
using protocol::SplitRequest;

namespace
{

RequestKind KindOf(std::string_view request)
{
    const RequestFields fields = SplitRequest(request);
    return protocol::RecognizeRequest(fields, protocol::VersionIndex(fields[1]));
}

std::string_view RefusalOf(std::string_view request)
{
    const RequestFields fields = SplitRequest(request);
    return protocol::RefusalOfUnknown(fields, protocol::VersionIndex(fields[1]));
}

} // namespace

TEST(Request, SplitKeepsEveryEmptyField)
{
    const struct {
        std::string_view text;
        int count;
        std::string_view second;
    } cases[] = {{"", 0, ""}, {"a", 1, ""}, {"a|", 2, ""}, {"|", 2, ""}, {"a||b", 3, ""}, {"a|b|c", 3, "b"}};
    for (const auto& each : cases) {
        EXPECT_EQ(SplitRequest(each.text).count, each.count) << each.text;
        EXPECT_EQ(SplitRequest(each.text)[2], each.second) << each.text;
    }
    const std::string many(100000, '|');
    EXPECT_EQ(SplitRequest(many).count, 100001);
    EXPECT_EQ(SplitRequest("1|2|3|4|5|6|7|8|9|10|11|12|13|14")[12], "12");
    EXPECT_EQ(SplitRequest("1|2|3|4|5|6|7|8|9|10|11|12|13|14")[13], "");
}

TEST(Request, ClientsAreKnownByTheBeginningOfTheirName)
{
    const struct {
        std::string_view head;
        int index;
    } cases[] = {{"CODE", 1},
                 {"RuvelControl V1.0", 2},
                 {"RuvelControl V1.7", 9},
                 {"RuvelControl V1.8.0", 10},
                 {"RuvelControl V1.8.1", 11},
                 {"RuvelControl V1.8", 12},
                 {"RuvelControl V1.8.2", 12},
                 {"RuvelControl V1.9.7 (Unix)", 13},
                 {"RuvelControl V2.0", 0},
                 {" CODE", 0},
                 {"code", 0},
                 {"", 0}};
    for (const auto& each : cases)
        EXPECT_EQ(protocol::VersionIndex(each.head), each.index) << each.head;
}

TEST(Request, FormsAreTriedInTheirOrder)
{
    using enum RequestKind;
    const struct {
        std::string_view request;
        RequestKind kind;
    } cases[] = {
        {"RuvelControl V1.7|u|p|c|SOCKET|WINDOW|60", Launch},
        {"RuvelControl V1.7|u|p|c|SOCKET|WINDOW|", Launch},
        {"RuvelControl V1.6|u|p|c|SOCKET|WINDOW|60", Unknown},
        {"RuvelControl V1.7|u|p|c|SOCKET|WINDOWS|60", Unknown},
        {"RuvelControl V1.7|u|p|c|socket|WINDOW|60", Unknown},
        {"RuvelControl V1.6|u|p|c|SOCKET|WINDOW|INTERACTIVE", LaunchInteractive},
        {"RuvelControl V1.9|u|p|c|NOSOCKET|WINDOW|INTERACTIVE", Unknown},
        {"RuvelControl V1.7|u|p|c|SOCKET|WINDOW|INTERACTIVE|9", LaunchInteractive},
        {"RuvelControl V1.6|u|p|c|SOCKET|WINDOW|INTERACTIVE|9", Unknown},
        {"RuvelControl V1.8.1|u|p|c|NOSOCKET|NOWINDOW|h|1", LaunchPassive},
        {"RuvelControl V1.8.1|u|p|c|NOSOCKET|NOWINDOW|h|1|9", LaunchPassive},
        {"RuvelControl V1.8.0|u|p|c|NOSOCKET|NOWINDOW|h|1", Unknown},
        {"RuvelControl V1.9|u|p|c|SOCKET|NOWINDOW|h|1", Unknown},
        {"CODE|u|p|c|SOCKET|NOWINDOW", LaunchUntimed},
        {"CODE|u|p|c|TRUE", LaunchOldest},
        {"RuvelControl V1.0|u|p|c|TRUE", Unknown},
        {"CODE|u|p|KILL|TRUE", LaunchOldest}, // a command of that name
        {"CODE|u|p|KILL|3", Kill},
        {"RuvelControl V1.0|u|p|FORCEKILLTREE|3", Kill},
        {"RuvelControl V1.0|u|p|Close", Close},
        {"RuvelControl V1.0|u|p|CLOSE", Unknown},
        {"RuvelControl V1.7|u|p|TRANSFERPUT|ASCII|f|0", Transfer},
        {"RuvelControl V1.7|u|p|TRANSFERGET|BINARY|f|0|h|1", Transfer},
        {"RuvelControl V1.6|u|p|TRANSFERGET|BINARY|f|0", Unknown},
        {"RuvelControl V1.8.0|u|p|TRANSFERUPDATEGET|BINARY|f|0|1|2|3", TransferUpdateGet},
        {"RuvelControl V1.8.0|u|p|TRANSFERUPDATEGET|BINARY|f|0|1|2|3|h|1", TransferUpdateGet},
        {"RuvelControl V1.8.0|u|p|TRANSFERUPDATEGET|ASCII|f|0|1|2|3", Unknown},
        {"RuvelControl V1.8.0|u|p|TRANSFERUPDATEPUT|BINARY|f|0|h|1", TransferUpdatePut},
        {"RuvelControl V1.7|u|p|TRANSFERUPDATEPUT|BINARY|f|0", Unknown},
        {"CODE|u|p|INFO", Info},
        {"RuvelControl V1.8.1|u|p|ALLINFO", AllInfo},
        {"RuvelControl V1.8.0|u|p|ALLINFO", Unknown},
        {"RuvelControl V1.8.1|ID|x", State},
        {"RuvelControl V1.8.0|ID|x", Unknown},
        {"hello", Unknown},
    };
    for (const auto& each : cases)
        EXPECT_EQ(KindOf(each.request), each.kind) << each.request;
}

TEST(Request, OfNoFormIsToldWhatToChange)
{
    EXPECT_EQ(RefusalOf("hello|RuvelControl V1.9"), protocol::MessageNotRecognized);
    EXPECT_EQ(RefusalOf("CODE|u|p"), protocol::MessageNotRecognized);
    EXPECT_EQ(RefusalOf("RuvelControl V1.5|u|p|c|SOCKET|WINDOW|INTERACTIVE"), protocol::ClientTooOld);
    EXPECT_EQ(RefusalOf("RuvelControl V1.5|u|p|c|SOCKET|WINDOW|60"), protocol::ServerTooOld);
    EXPECT_EQ(RefusalOf("RuvelControl V2.0|u|p|INFO"), protocol::ServerTooOld);
}

TEST(Request, IsWholeByLengthTerminatorOrSilence)
{
    const std::string lead = "RuvelControl V1.9|u|p|";
    const std::string tail = "|SOCKET|NOWINDOW|0";
    const auto ofLength = [&](size_t length) {
        return lead + std::string(length - lead.size() - tail.size(), 'c') + tail;
    };
    const struct {
        std::string text;
        int silence;
    } cases[] = {{"x", 0},
                 {"\n", 0},
                 {ofLength(535), 0},
                 {ofLength(536), RequestText::ShortSilence},
                 {ofLength(536) + "\n", 0},
                 {ofLength(536) + std::string(1, '\0'), 0},
                 {std::string(600, 'x'), RequestText::LongSilence},
                 {std::string(600, 'x') + "\n", RequestText::LongSilence},
                 {lead + std::string(600, 'c'), RequestText::LongSilence}};
    for (const auto& each : cases) {
        RequestText text;
        ASSERT_TRUE(text.Append(each.text));
        EXPECT_EQ(text.SilenceToAwait(), each.silence) << each.text.size();
    }
}

/** However a client cuts its request, the fields are those of the whole. */
TEST(Request, FieldsDoNotDependOnThePieces)
{
    const std::string whole = "RuvelControl V1.9|user||" + std::string(700, 'c') + "|SOCKET|NOWINDOW|0";
    const RequestFields expected = SplitRequest(whole);
    for (const size_t piece : {1u, 2u, 7u, 24u, 536u, 700u}) {
        RequestText text;
        for (size_t at = 0; at < whole.size(); at += piece)
            ASSERT_TRUE(text.Append(std::string_view(whole).substr(at, piece)));
        for (const std::string_view terminator : {"", "\r", "\n"})
            ASSERT_TRUE(text.Append(terminator)); // CR LF in two pieces
        const RequestFields fields = text.Fields();
        ASSERT_EQ(fields.count, expected.count);
        for (int i = 1; i <= expected.count; ++i)
            EXPECT_EQ(fields[i], expected[i]) << piece << " " << i;
    }
}

TEST(Request, HasALimitAndForgetsItsPassword)
{
    RequestText full;
    EXPECT_TRUE(full.Append(std::string(RequestText::Limit, 'x')));
    EXPECT_FALSE(full.Append("x"));
    RequestText text;
    ASSERT_TRUE(text.Append("CODE|user|secret|INFO"));
    text.WipeField(3);
    EXPECT_EQ(text.Fields()[2], "user");
    EXPECT_EQ(text.Fields()[3], std::string(6, '\0'));
    EXPECT_EQ(text.Fields()[4], "INFO");
}

TEST(Request, ArgumentsAreCheckedWhole)
{
    const struct {
        std::string_view request;
        bool good;
    } cases[] = {
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|0", true},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|9999999999", true},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|", false},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|-1", false},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|5s", false},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW| 5", false},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|99999999999999999999", false},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|INTERACTIVE|", false},
        {"RuvelControl V1.9|u|p|c|SOCKET|WINDOW|INTERACTIVE|7", true},
        {"RuvelControl V1.9|u|p|c|NOSOCKET|WINDOW|host|", true},
        {"RuvelControl V1.9|u|p|c|NOSOCKET|WINDOW|host|x", false},
        {"RuvelControl V1.9|u|p|c|NOSOCKET|WINDOW||80", false},
        {"RuvelControl V1.9|u|p|c|NOSOCKET|WINDOW|host|80|-1", false},
        {"RuvelControl V1.9|u|p|TRANSFERGET|BINARY||0", true},
        {"RuvelControl V1.9|u|p|TRANSFERGET|BINARY|f|-1", false},
        {"RuvelControl V1.9|u|p|TRANSFERGET|BINARY|f|0|h|", false},
        {"RuvelControl V1.9|u|p|TRANSFERGET|BINARY|f|0||80", false},
        {"RuvelControl V1.9|u|p|TRANSFERUPDATEGET|BINARY|f|0|5000000000|4294967295|0", true},
        {"RuvelControl V1.9|u|p|TRANSFERUPDATEGET|BINARY|f|0|-1|0|0", false},
        {"RuvelControl V1.9|u|p|TRANSFERUPDATEGET|BINARY|f|0|1|4294967296|0", false},
        {"RuvelControl V1.9|u|p|TRANSFERUPDATEGET|BINARY|f|0|1|0|0||80", false},
    };
    for (const auto& each : cases) {
        const RequestFields fields = SplitRequest(each.request);
        const RequestKind kind = KindOf(each.request);
        const bool isTransfer = fields[4].starts_with("TRANSFER");
        EXPECT_EQ(isTransfer ? ReadTransferArguments(kind, fields).has_value()
                             : ReadLaunchArguments(kind, fields).has_value(),
                  each.good)
            << each.request;
    }
    EXPECT_EQ(ReadLaunchArguments(RequestKind::LaunchInteractive,
                                  SplitRequest("RuvelControl V1.9|u|p|rm|SOCKET|WINDOW|INTERACTIVE"))
                  ->command,
              "/bin/ksh");
}
