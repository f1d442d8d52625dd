#include "client/EndMark.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace
{
/** An exit code. */
constexpr std::size_t LongestNumber = 3;

enum class Match { Different, Part, Whole };

/** Reads a number and a newline off the front of `rest`. */
Match TakeNumber(std::string_view& rest, int& number)
{
    const std::size_t length = std::min(rest.find_first_not_of("0123456789"), rest.size());
    if (length > LongestNumber)
        return Match::Different;
    if (length == rest.size())
        return Match::Part;
    if (length == 0 || rest[length] != '\n')
        return Match::Different;
    std::from_chars(rest.data(), rest.data() + length, number);
    rest.remove_prefix(length + 1);
    return Match::Whole;
}
} // namespace

void EndMark::Feed(std::string_view bytes, std::string& output)
{
    held_.append(bytes);
    std::size_t passedOn = 0;
    while (!isFound_) {
        const std::size_t at = std::min(held_.find(lead_.front(), passedOn), held_.size());
        output.append(held_, passedOn, at - passedOn);
        passedOn = at;
        std::string_view rest = std::string_view(held_).substr(at);
        const std::size_t length = std::min(lead_.size(), rest.size());
        Match match = Match::Different;
        if (rest.substr(0, length) == std::string_view(lead_).substr(0, length)) {
            rest.remove_prefix(length);
            match = rest.empty() ? Match::Part : TakeNumber(rest, number_);
        }
        if (match == Match::Part)
            break;
        if (match == Match::Whole) {
            isFound_ = true;
            passedOn = held_.size() - rest.size();
        } else {
            output += held_[passedOn++];
        }
    }
    held_.erase(0, passedOn);
}

void EndMark::Finish(std::string& output)
{
    if (!isFound_)
        output += std::exchange(held_, {});
}

std::string EndMark::TakeRest()
{
    return isFound_ ? std::exchange(held_, {}) : std::string();
}
