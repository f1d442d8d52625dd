#include "client/EndMark.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace
{
/** An exit code, or a process. */
constexpr std::size_t LongestNumber = 9;
} // namespace

EndMark::Match EndMark::TakeNumber(std::string_view& rest)
{
    const std::size_t length = std::min(rest.find_first_not_of("0123456789"), rest.size());
    if (length > LongestNumber)
        return Match::Different;
    if (length == rest.size())
        return Match::Part;
    if (length == 0 || rest[length] != '\n')
        return Match::Different;
    std::from_chars(rest.data(), rest.data() + length, number_);
    rest.remove_prefix(length + 1);
    return Match::Whole;
}

void EndMark::Feed(std::string_view bytes, std::string& output)
{
    held_.append(bytes);
    if (isFound_)
        return;
    std::size_t outputEnd = 0;
    std::size_t markEnd = 0;
    for (Match match = Match::Different; match == Match::Different;) {
        outputEnd = std::min(held_.find(lead_.front(), outputEnd), held_.size());
        std::string_view rest = std::string_view(held_).substr(outputEnd);
        match = MatchMark(rest);
        markEnd = held_.size() - rest.size();
        outputEnd += match == Match::Different ? 1 : 0;
        isFound_ = match == Match::Whole;
    }
    const std::size_t known = std::min(outputEnd, released_);
    output.append(held_, known, outputEnd - known);
    released_ -= known;
    held_.erase(0, isFound_ ? markEnd : outputEnd);
}

EndMark::Match EndMark::MatchMark(std::string_view& rest)
{
    const std::size_t length = std::min(lead_.size(), rest.size());
    if (rest.substr(0, length) != std::string_view(lead_).substr(0, length))
        return Match::Different;
    rest.remove_prefix(length);
    return rest.empty() ? Match::Part : TakeNumber(rest);
}

void EndMark::Finish(std::string& output)
{
    Release(output);
    if (!isFound_)
        held_.clear();
}

void EndMark::Release(std::string& output)
{
    if (!IsHolding())
        return;
    output.append(held_, released_);
    released_ = held_.size();
}

std::string EndMark::TakeRest()
{
    return isFound_ ? std::exchange(held_, {}) : std::string();
}
