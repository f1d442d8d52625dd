#pragma once

#include <string>
#include <string_view>

#include "client/EndMark.h"
#include "client/StreamFilter.h"

/**
 * One of the streams of a wrapped command (see CommandWrapping.h): between the server's banner and return
 * line there may be the mark that says "ready", then the output, then the mark that says that the output is
 * whole. What the end means is judged by the command's run.
 */
class RunStream
{
public:
    /** The stream begins with a ready mark only where standard error is kept apart. */
    RunStream(const std::string& mark, bool beginsWithReady);

    /** Appends what is certainly output. False once the stream is known not to be a RuvelServer's. */
    bool Feed(std::string_view bytes, std::string& output);
    /** The stream has ended: appends what was held back, and tells what the server said at the end. */
    StreamEnd Finish(std::string& output);

    /** Something is held back that may be the beginning of an end, or of what follows in its own time. */
    bool IsHolding() const { return filter_.IsHolding() || (!awaitsReady_ && end_.IsHolding()); }
    /** Appends it: nothing has followed it for a while. */
    void Release(std::string& output);
    /** Some of an end was released as output, since its parts came too far apart. */
    bool HasLeaked() const { return end_.HasLeaked(); }

    /** The server may be sent what is for the command. */
    bool IsPastBanner() const { return filter_.IsPastBanner(); }
    bool IsReady() const { return !awaitsReady_; }
    int ReadyNumber() const { return ready_.Number(); }
    /** Before it was ready: why it will not be. */
    const std::string& WordsBeforeReady() const { return wordsBeforeReady_; }
    /** The output is whole. */
    bool IsWhole() const { return end_.IsFound(); }
    int Code() const { return end_.Number(); }

private:
    void Sort(std::string_view text, std::string& output);

    StreamFilter filter_;
    EndMark ready_;
    EndMark end_;
    bool awaitsReady_;
    std::string text_;
    std::string wordsBeforeReady_;
};
