#include "client/RunStream.h"

#include <algorithm>

#include "client/CommandWrapping.h"

namespace
{
/** The first line is shown of what comes instead of being ready, in bytes. */
constexpr std::size_t LongestWordsBeforeReady = 4096;
} // namespace

RunStream::RunStream(const std::string& mark, bool beginsWithReady)
    : ready_(ReadyLead(mark)), end_(EndLead(mark)), awaitsReady_(beginsWithReady)
{
}

bool RunStream::Feed(std::string_view bytes, std::string& output)
{
    text_.clear();
    const bool isServer = filter_.Feed(bytes, text_);
    Sort(text_, output);
    return isServer;
}

StreamEnd RunStream::Finish(std::string& output)
{
    text_.clear();
    const StreamEnd end = filter_.Finish(text_);
    Sort(text_, output);
    ready_.Finish(wordsBeforeReady_);
    end_.Finish(output);
    return end;
}

void RunStream::Release(std::string& output)
{
    text_.clear();
    filter_.Release(text_);
    Sort(text_, output);
    if (!awaitsReady_)
        end_.Release(output);
}

void RunStream::Sort(std::string_view text, std::string& output)
{
    if (awaitsReady_) {
        ready_.Feed(text, wordsBeforeReady_);
        wordsBeforeReady_.resize(std::min(wordsBeforeReady_.size(), LongestWordsBeforeReady));
        if (!ready_.IsFound())
            return;
        awaitsReady_ = false;
        end_.Feed(ready_.TakeRest(), output);
    } else {
        end_.Feed(text, output);
    }
    // What a child that was left behind writes behind the end is nobody's.
    if (end_.IsFound())
        end_.TakeRest();
}
