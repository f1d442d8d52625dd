// The client's reading of a command's stream: however it is cut, the same output and the same end. What is
// passed on early, because nothing followed, changes the output only by what the end would have kept.
// The first byte says how the stream is cut and which of the readers looks at it.

#include "client/CommandWrapping.h"
#include "client/LogAnswer.h"
#include "client/RunStream.h"
#include "client/StreamFilter.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
struct Outcome {
    std::string output;
    StreamEnd end;
};

bool AreSame(const StreamEnd& a, const StreamEnd& b)
{
    return a.kind == b.kind && a.code == b.code && a.words == b.words && a.isExpired == b.isExpired;
}

template <class Reader>
Outcome Read(Reader& reader, std::string_view text, unsigned seed)
{
    Outcome outcome;
    for (const std::string_view piece : Cut(text, seed))
        if (!reader.Feed(piece, outcome.output))
            break;
    outcome.end = reader.Finish(outcome.output);
    return outcome;
}

template <class MakeReader>
void Compare(std::string_view text, unsigned seed, MakeReader make)
{
    auto whole = make();
    auto cut = make();
    const Outcome expected = Read(whole, text, 0);
    const Outcome outcome = Read(cut, text, seed | 1);
    Require(outcome.output == expected.output, "the output does not depend on how the stream is cut");
    Require(AreSame(outcome.end, expected.end), "nor does the end");
    if (expected.end.kind == StreamEnd::NoServer)
        Require(expected.output.empty(), "a stranger's bytes are no output");
}

void ReleaseEarly(std::string_view text, unsigned seed)
{
    StreamFilter patient;
    const Outcome expected = Read(patient, text, 0);
    StreamFilter filter;
    Outcome outcome;
    for (const std::string_view piece : Cut(text, seed | 1)) {
        if (!filter.Feed(piece, outcome.output))
            break;
        filter.Release(outcome.output);
        Require(!filter.IsHolding(), "nothing is held once it has been released");
    }
    outcome.end = filter.Finish(outcome.output);
    Require(AreSame(outcome.end, expected.end), "the end is told all the same");
    Require(outcome.output.starts_with(expected.output), "and no output is lost");
}
} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto [choice, text] = TakeChoice(data, size);
    const unsigned seed = choice / 4;
    switch (choice % 4) {
    case 0:
        Compare(text, seed, [] { return StreamFilter(); });
        break;
    case 1:
        ReleaseEarly(text, seed);
        break;
    case 2:
        Compare(text, seed, [] { return LogAnswer(); });
        break;
    case 3:
        Compare(text, seed, [&] { return RunStream("mark", seed % 3 == 0); });
        break;
    }
    return 0;
}
