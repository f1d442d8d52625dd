// Line ends of ASCII transfers: cutting the data into blocks changes nothing, and the way back from what a
// file was sent as gives the file. The first byte says how the data is cut.

#include "protocol/LineEnds.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
/** A second, simple way to the same result. */
std::string ReduceAll(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] != '\r' || !text.substr(i + 1).starts_with('\n'))
            result += text[i];
    return result;
}

std::string Reduce(std::string_view text, unsigned seed)
{
    LineEnds::Reducer reducer;
    std::string result;
    for (const std::string_view piece : Cut(text, seed)) {
        // Exactly as large as it must be, so that a byte written beyond it is found.
        std::vector<char> room(piece.size() + 1, '?');
        piece.copy(room.data() + 1, piece.size());
        result += reducer.Reduce(room.data(), piece.size());
        result += reducer.Reduce(room.data(), 0);
    }
    return result += reducer.TakeHeldBack();
}

std::string Expand(std::string_view text, unsigned seed)
{
    std::string result;
    for (const std::string_view piece : Cut(text, seed)) {
        std::vector<char> room(2 * piece.size());
        result.append(room.data(), LineEnds::Expand(piece, room.data()));
    }
    return result;
}
} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto [seed, text] = TakeChoice(data, size);
    const std::string reduced = ReduceAll(text);
    Require(Reduce(text, seed | 1) == reduced, "what is received does not depend on how it is cut");
    Require(Reduce(text, 0) == reduced, "what is received in one block is the same");

    const std::string expanded = Expand(text, seed | 1);
    Require(expanded == Expand(text, 0), "what is sent does not depend on how it is read");
    Require(Reduce(expanded, seed * 7 + 1) == text, "there and back gives the file");
    return 0;
}
