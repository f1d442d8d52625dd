#pragma once

#include <string>
#include <string_view>

/**
 * Finds, in a stream that arrives in pieces, the lead of a mark with a number and a newline behind it:
 * what stands before is passed on as soon as it is certain that it does not belong to the mark, what stands
 * behind is kept. No more is held back than what may still turn out to be the mark.
 */
class EndMark
{
public:
    /** The lead must hold its first byte only once. */
    explicit EndMark(std::string lead) : lead_(std::move(lead)) {}

    /** Takes what has arrived and appends what is certainly output. */
    void Feed(std::string_view bytes, std::string& output);
    /** At the end of the stream: appends what was held back and is output after all. */
    void Finish(std::string& output);

    /** Whether something is held back that Release() would pass on. */
    bool IsHolding() const { return !isFound_ && held_.size() > released_; }
    /** Appends what is held back, for when nothing has followed it for a while. The mark is found all the
     * same. */
    void Release(std::string& output);
    /** The mark has been found, but its beginning had been released. */
    bool HasLeaked() const { return isFound_ && released_ > 0; }

    bool IsFound() const { return isFound_; }
    /** What the mark says, once it has been found. */
    int Number() const { return number_; }
    /** What has followed the mark since the last call. */
    std::string TakeRest();

private:
    /** Part: more may make it whole. What has been matched is taken off the front of `rest`. */
    enum class Match { Different, Part, Whole };
    Match MatchMark(std::string_view& rest);
    /** The number and the newline. */
    Match TakeNumber(std::string_view& rest);

    std::string lead_;
    std::string held_;
    /** So many bytes of what is held have been passed on already. */
    std::size_t released_ = 0;
    bool isFound_ = false;
    int number_ = 0;
};
