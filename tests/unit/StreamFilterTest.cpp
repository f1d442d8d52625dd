#include "client/StreamFilter.h"

#include <gtest/gtest.h>

#include "protocol/Texts.h"

namespace
{
const std::string Banner(protocol::BannerLine);

struct Filtered {
    std::string output;
    StreamEnd end;
};

Filtered Filter(std::string_view stream, std::size_t first, std::size_t step)
{
    Filtered filtered;
    StreamFilter filter;
    for (std::size_t at = 0; at < stream.size(); at += at == 0 ? first : step)
        filter.Feed(stream.substr(at, at == 0 ? first : step), filtered.output);
    filtered.end = filter.Finish(filtered.output);
    return filtered;
}

const struct {
    const char* what;
    std::string stream;
    std::string output;
    StreamEnd::Kind kind = StreamEnd::Cut;
    int code = 0;
    std::string words = {};
    bool isExpired = false;
} Streams[] = {
    {"no output", Banner + "->ProcessReturnCode = 0\n", "", StreamEnd::Code},
    {"text with its own newline", Banner + "one\ntwo\n->ProcessReturnCode = 3\n", "one\ntwo\n",
     StreamEnd::Code, 3},
    {"output that ends in the middle of a line", Banner + "abc->ProcessReturnCode = 255\n", "abc",
     StreamEnd::Code, 255},
    {"a negative code", Banner + "->ProcessReturnCode = -1\n", "", StreamEnd::Code, -1},
    {"bytes that are no text", Banner + std::string("\0\xff->\0-", 6) + "->ProcessReturnCode = 1\n",
     std::string("\0\xff->\0-", 6), StreamEnd::Code, 1},
    {"the lines of the server as output",
     Banner + Banner + "->ProcessReturnCode = 7\n->ProcessReturnCode = 8\n",
     Banner + "->ProcessReturnCode = 7\n", StreamEnd::Code, 8},
    {"beginnings of the end as output",
     Banner + "->Proc->ProcessReturnCode = --5\n-->ProcessReturnCode = 4\n",
     "->Proc->ProcessReturnCode = --5\n-", StreamEnd::Code, 4},
    {"an error line as output", Banner + "->Error no such thing\n->ProcessReturnCode = 2\n",
     "->Error no such thing\n", StreamEnd::Code, 2},
    {"a refusal as output", Banner + "->Error a\n->ProcessReturnCode = NoThing\n\n->ProcessReturnCode = 0\n",
     "->Error a\n->ProcessReturnCode = NoThing\n\n", StreamEnd::Code},
    {"life time-out",
     Banner + "half a li->Command killed due to expired life timeout\n->ProcessReturnCode = 143\n",
     "half a li", StreamEnd::Code, 143, "Command killed due to expired life timeout", true},
    {"life time-out as output",
     Banner + "->Command killed due to expired life timeout\n->ProcessReturnCode = 143\n.->ProcessReturnCode "
              "= 0\n",
     "->Command killed due to expired life timeout\n->ProcessReturnCode = 143\n.", StreamEnd::Code},
    {"killed by a user", Banner + "x->Command N(12), tree force killed\n->ProcessReturnCode = 137\n", "x",
     StreamEnd::Code, 137, "Command N(12), tree force killed"},
    {"killed in vain", Banner + "->Command N(0), killed\n->ProcessReturnCode = NoThing\n", "",
     StreamEnd::NoCode, 0, "Command N(0), killed"},
    {"shutdown", Banner + std::string(protocol::ShutdownCommand) + "143\n", "", StreamEnd::Code, 143,
     "RuvelServer shutdown, all log transfer(s) terminated, command(s) killed and file transfer(s) "
     "terminated"},
    {"not started", Banner + "->Error not owner : a : b\n->ProcessReturnCode = NoThing\n", "",
     StreamEnd::Refused, 0, "Error not owner : a : b"},
    {"not understood", Banner + "->Bad version of RuvelServer, please install a newer version\n", "",
     StreamEnd::Refused, 0, "Bad version of RuvelServer, please install a newer version"},
    {"another version's banner", "->RuvelServer V9\nx->ProcessReturnCode = 0\n", "x", StreamEnd::Code},
    {"cut in the output", Banner + "some output", "some output"},
    {"cut in the return line", Banner + "out->ProcessReturnCode = 1", "out->ProcessReturnCode = 1"},
    {"cut behind what is no code", Banner + "->ProcessReturnCode = -\n", "->ProcessReturnCode = -\n"},
    {"cut in an error", Banner + "->Error bad para", "->Error bad para"},
    {"cut behind the banner", Banner, ""},
    {"cut in the banner", "->RuvelServer V1", "", StreamEnd::NoServer},
    {"nothing", "", "", StreamEnd::NoServer},
    {"another protocol", "SSH-2.0-x\n->ProcessReturnCode = 0\n", "", StreamEnd::NoServer},
};
} // namespace

TEST(StreamFilterTest, TellsOutputFromEndWhereverTheStreamIsCut)
{
    for (const auto& one : Streams) {
        for (std::size_t cut = 1; cut <= one.stream.size() + 1; ++cut) {
            // The last round gives single bytes.
            const std::size_t step = cut <= one.stream.size() ? one.stream.size() : 1;
            const Filtered filtered = Filter(one.stream, step == 1 ? 1 : cut, step);
            ASSERT_EQ(filtered.output, one.output) << one.what << ", cut at " << cut;
            ASSERT_EQ(filtered.end.kind, one.kind) << one.what << ", cut at " << cut;
            ASSERT_EQ(filtered.end.code, one.code) << one.what << ", cut at " << cut;
            ASSERT_EQ(filtered.end.words, one.words) << one.what << ", cut at " << cut;
            ASSERT_EQ(filtered.end.isExpired, one.isExpired) << one.what << ", cut at " << cut;
        }
    }
}

TEST(StreamFilterTest, HoldsBackOnlyWhatMayBeTheEnd)
{
    const struct {
        std::string arrived;
        std::string passedOn;
    } cases[] = {
        {"a prompt> ", "a prompt> "},
        {"a-", "a"},
        {"a->ProcessReturnCode = 1", "a"},
        {"a->ProcessReturnCode = 1\n", "a"},
        {"a->ProcessReturnCode = 1\nb", "a->ProcessReturnCode = 1\nb"},
        {"a->ProcessReturnCode = 123456789012", "a->ProcessReturnCode = 123456789012"},
        {"a->Command N(1), killer", "a->Command N(1), killer"},
        {"->compiling\n", "->compiling\n"},
        {"->Error one\n->Error two", "->Error one\n->Error two"},
        {"->Error " + std::string(5000, 'x'), "->Error " + std::string(5000, 'x')},
        {std::string(100000, '-'), std::string(99999, '-')},
    };
    for (const auto& one : cases) {
        StreamFilter filter;
        std::string output;
        EXPECT_TRUE(filter.Feed(Banner + one.arrived, output));
        EXPECT_EQ(output, one.passedOn);
    }
}

TEST(StreamFilterTest, GivesUpOnAStrangerAtOnce)
{
    for (const std::string& stream : {std::string("HTTP"), "->RuvelServer V" + std::string(300, 'x')}) {
        StreamFilter filter;
        std::string output;
        EXPECT_FALSE(filter.Feed(stream, output)) << stream;
        EXPECT_EQ(output, "");
    }
}
