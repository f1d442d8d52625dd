#pragma once

#include <string>
#include <string_view>

/** How the answer to a command launched in SOCKET mode ended. */
struct StreamEnd {
    enum Kind {
        Code,     // the command ended with `code`
        NoCode,   // the server could not make it end: there is no code
        Refused,  // the server started nothing; `words` says why
        NoServer, // what answered, if anything did, is no RuvelServer
        Cut       // the stream ended without a return line
    };
    Kind kind = Cut;
    int code = 0;
    /** The server's own words without lead and newline: why it refused, or what ended the command. */
    std::string words;
    /** With Code and NoCode: the command's life time-out ended it. */
    bool isExpired = false;
};

/**
 * Separates the command's output from what the server adds to it on the same stream: the banner line in
 * front, and at the very end the return line, before which the server says so when it was the one to end
 * the command. The return line follows the output without a newline between, and the output may hold any
 * bytes, such a line included: only the end of the stream tells. So no more is held back than what may
 * still turn out to be the end: nothing in most output, at most a few hundred bytes otherwise.
 *
 * An answer that is nothing but one line of refusal is held back until it ends or turns out to be output.
 */
class StreamFilter
{
public:
    /**
     * Takes what has arrived and appends what is certainly output. False once the stream is known not to
     * be a RuvelServer's; reading on is then of no use.
     */
    bool Feed(std::string_view bytes, std::string& output);
    /** Appends what was held back and is output after all, and tells how the stream ended. Called once. */
    StreamEnd Finish(std::string& output);
    /** Whether something is held back that Release() would pass on. */
    bool IsHolding() const { return state_ != InBanner && state_ != Foreign && held_.size() > released_; }
    /**
     * Appends what is held back. For when nothing has followed it for a while: whoever speaks in turns may be
     * waited for, while the rest of an end is on its way already. Should it be the end after all, that is
     * still told.
     */
    void Release(std::string& output);
    /** The server has spoken: it may be sent more than the request. */
    bool IsPastBanner() const { return state_ == InOpening || state_ == InOutput; }

private:
    enum State { InBanner, InOpening, InOutput, Foreign };

    void TakeBanner();
    void TakeOpening();
    void TakeOutput(std::string& output);

    void PassOn(std::size_t length, std::string& output);

    State state_ = InBanner;
    std::string held_;
    /** So many bytes of what is held have been passed on already. */
    std::size_t released_ = 0;
};
