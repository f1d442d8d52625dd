// The request as it arrives: however a client's bytes are cut, the same fields come out, and the same
// judgement of whether the request is whole. The first byte says how it is cut.

#include "protocol/RequestForms.h"
#include "protocol/RequestText.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
/** A second, simple reading of what the fields are. */
std::vector<std::string_view> ReadFields(std::string_view text)
{
    if (text.ends_with("\r\n"))
        text.remove_suffix(2);
    else if (text.ends_with('\n') || text.ends_with('\0'))
        text.remove_suffix(1);
    return text.empty() ? std::vector<std::string_view>() : Split(text, '|');
}

void RequireSame(const protocol::RequestFields& fields, const std::vector<std::string_view>& expected)
{
    Require(fields.count == static_cast<int>(expected.size()), "every reading counts the same fields");
    for (std::size_t i = 0; i < expected.size() && i < protocol::MostFields; ++i)
        Require(fields[static_cast<int>(i) + 1] == expected[i], "every reading has the same fields");
    for (int i = fields.count + 1; i <= protocol::MostFields + 1; ++i)
        Require(fields[i].empty(), "there is nothing behind the last field");
}
} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto [seed, text] = TakeChoice(data, size);
    const std::vector<std::string_view> expected = ReadFields(text);
    RequireSame(protocol::SplitRequest(protocol::WithoutTerminator(text)), expected);

    protocol::RequestText whole;
    Require(whole.Append(text), "a request below the limit is taken");
    protocol::RequestText cut;
    for (const std::string_view piece : Cut(text, seed | 1)) {
        Require(cut.Append(piece), "a piece below the limit is taken");
        cut.SilenceToAwait();
    }
    RequireSame(cut.Fields(), expected);
    Require(cut.SilenceToAwait() == whole.SilenceToAwait(), "a cut request is whole when the uncut one is");
    Require(text.size() >= protocol::RequestText::SmallestSegment || whole.SilenceToAwait() == 0,
            "what fits into one segment is whole");

    // Wiping the password changes nothing else.
    cut.WipeField(3);
    const protocol::RequestFields fields = cut.Fields();
    for (int i = 1; i <= protocol::MostFields && i <= static_cast<int>(expected.size()); ++i) {
        const std::string_view field = expected[static_cast<std::size_t>(i) - 1];
        // A field of NULs at the very end would be taken for the terminator.
        if (i == 3 && fields.count == static_cast<int>(expected.size()) && i < fields.count)
            Require(fields[i] == std::string(field.size(), '\0'), "a wiped field has no bytes left");
        else if (i != 3)
            Require(fields[i] == field, "the other fields stay");
    }
    return 0;
}
