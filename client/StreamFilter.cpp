#include "client/StreamFilter.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "protocol/Texts.h"

namespace
{
/** The banner line up to the version, which may be another than this client was built with. */
constexpr std::string_view BannerLead = protocol::BannerLine.substr(0, protocol::BannerLine.find(" V") + 2);
constexpr std::size_t LongestBanner = 256;
/** How refusals begin. Any other first line is output, and is passed on at once. */
constexpr std::array<std::string_view, 2> RefusalLeads = {"->Error ", "->Bad version "};
constexpr std::size_t LongestRefusal = 4096;
/** No form of the end is longer: the shutdown's words, the return line and two numbers. */
constexpr std::size_t LongestEnd = 256;
/** A sign and the ten digits of an int. */
constexpr std::size_t LongestNumber = 11;

/** Part: the input ended before the pattern did, so that more input may complete it. */
enum Match { Different, Part, Whole };

/** Takes `text` off the front of `rest`. */
Match Take(std::string_view& rest, std::string_view text)
{
    const std::size_t length = std::min(rest.size(), text.size());
    if (rest.substr(0, length) != text.substr(0, length))
        return Different;
    rest.remove_prefix(length);
    return length == text.size() ? Whole : Part;
}

Match TakeNumber(std::string_view& rest)
{
    const std::size_t sign = rest.starts_with('-') ? 1 : 0;
    const std::size_t length = std::min(rest.find_first_not_of("0123456789", sign), rest.size());
    if (length > LongestNumber)
        return Different;
    const bool isComplete = length < rest.size();
    rest.remove_prefix(length);
    if (!isComplete)
        return Part;
    return length > sign ? Whole : Different;
}

/** A way in which the server ends the stream: up to the code, with perhaps a number inside. */
struct EndForm {
    std::string text;
    /** Where in `text` the command's number stands, npos when it has none. */
    std::size_t numberAt = std::string::npos;
};

EndForm Killed(std::string_view words)
{
    const std::string text = protocol::CommandKilled("", words);
    return {text, text.find('(') + 1};
}

const std::array<EndForm, 7>& EndForms()
{
    static const std::array<EndForm, 7> forms = {{{std::string(protocol::ReturnCodeLead)},
                                                  {std::string(protocol::CommandExpired)},
                                                  {std::string(protocol::ShutdownCommand)},
                                                  Killed(protocol::Killed),
                                                  Killed(protocol::TreeKilled),
                                                  Killed(protocol::ForceKilled),
                                                  Killed(protocol::TreeForceKilled)}};
    return forms;
}

Match MatchForm(std::string_view rest, const EndForm& form)
{
    const std::string_view text = form.text;
    Match match = Take(rest, text.substr(0, form.numberAt));
    if (match == Whole && form.numberAt != std::string::npos) {
        match = TakeNumber(rest);
        if (match == Whole)
            match = Take(rest, text.substr(form.numberAt));
    }
    if (match != Whole)
        return match;
    std::string_view afterNoCode = rest;
    match = Take(afterNoCode, protocol::NoCode);
    if (match == Different)
        match = TakeNumber(rest);
    else
        rest = afterNoCode;
    if (match == Whole)
        match = Take(rest, "\n");
    // What is followed by anything is not the end.
    return match == Whole && !rest.empty() ? Different : match;
}

/** Whether these bytes, if nothing followed, would be an end of the stream, or could become one. */
Match MatchEnd(std::string_view bytes)
{
    Match best = Different;
    for (const EndForm& form : EndForms())
        best = std::max(best, MatchForm(bytes, form));
    return best;
}

/** Where the bytes that may belong to the end begin; the size when there are none. */
std::size_t FindEnd(std::string_view bytes)
{
    std::size_t at = bytes.size() > LongestEnd ? bytes.size() - LongestEnd : 0;
    while ((at = bytes.find('-', at)) != std::string_view::npos) {
        if (MatchEnd(bytes.substr(at)) != Different)
            return at;
        ++at;
    }
    return bytes.size();
}

/** Whether the whole answer behind the banner is, or could become, one line of refusal. */
Match MatchRefusal(std::string_view bytes)
{
    Match match = Different;
    for (const std::string_view lead : RefusalLeads) {
        std::string_view rest = bytes;
        match = std::max(match, Take(rest, lead));
    }
    if (match != Whole)
        return match;
    const std::size_t lineEnd = bytes.find('\n');
    if (lineEnd == std::string_view::npos)
        return bytes.size() > LongestRefusal ? Different : Part;
    // Requests that no server knows are refused without a return line.
    std::string_view rest = bytes.substr(lineEnd + 1);
    if (rest.empty())
        return Whole;
    match = Take(rest, protocol::NoReturnCodeLine);
    return rest.empty() ? match : Different;
}

StreamEnd ReadEnd(std::string_view bytes)
{
    StreamEnd end;
    const std::size_t lead = bytes.rfind(protocol::ReturnCodeLead);
    std::string_view code = bytes.substr(lead + protocol::ReturnCodeLead.size());
    code.remove_suffix(1);
    const char* const last = code.data() + code.size();
    const auto [stop, error] = std::from_chars(code.data(), last, end.code);
    end.kind = error == std::errc() && stop == last ? StreamEnd::Code : StreamEnd::NoCode;
    if (lead > 0) {
        const std::size_t length = lead - 1 - protocol::LineLead.size();
        end.words = bytes.substr(protocol::LineLead.size(), length);
        end.isExpired = bytes.starts_with(protocol::CommandExpired);
    }
    return end;
}
} // namespace

bool StreamFilter::Feed(std::string_view bytes, std::string& output)
{
    if (state_ == Foreign)
        return false;
    held_.append(bytes);
    if (state_ == InBanner)
        TakeBanner();
    if (state_ == InOpening)
        TakeOpening();
    if (state_ == InOutput)
        TakeOutput(output);
    return state_ != Foreign;
}

StreamEnd StreamFilter::Finish(std::string& output)
{
    StreamEnd end;
    if (state_ == InBanner || state_ == Foreign) {
        end.kind = StreamEnd::NoServer;
    } else if (state_ == InOpening && MatchRefusal(held_) == Whole) {
        end.kind = StreamEnd::Refused;
        const std::size_t lead = protocol::LineLead.size();
        end.words = held_.substr(lead, held_.find('\n') - lead);
    } else {
        TakeOutput(output);
        if (MatchEnd(held_) == Whole)
            end = ReadEnd(held_);
        else
            PassOn(held_.size(), output);
    }
    held_.clear();
    return end;
}

void StreamFilter::TakeBanner()
{
    std::string_view rest = held_;
    const std::size_t lineEnd = held_.find('\n');
    if (Take(rest, BannerLead) == Different || std::min(lineEnd, held_.size()) > LongestBanner) {
        state_ = Foreign;
    } else if (lineEnd != std::string::npos) {
        held_.erase(0, lineEnd + 1);
        state_ = InOpening;
    }
}

void StreamFilter::TakeOpening()
{
    if (MatchRefusal(held_) == Different)
        state_ = InOutput;
}

void StreamFilter::TakeOutput(std::string& output)
{
    PassOn(FindEnd(held_), output);
}

void StreamFilter::PassOn(std::size_t length, std::string& output)
{
    const std::size_t known = std::min(length, released_);
    output.append(held_, known, length - known);
    held_.erase(0, length);
    released_ -= known;
}

void StreamFilter::Release(std::string& output)
{
    if (!IsHolding())
        return;
    output.append(held_, released_);
    released_ = held_.size();
}
