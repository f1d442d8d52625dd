#include "client/Listing.h"

#include <charconv>

#include "protocol/Texts.h"

namespace
{
constexpr std::string_view NextKey = "), ";

template <class Number>
bool ReadNumber(std::string_view text, Number& number)
{
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}

/** Takes the value of `key`, which the line must begin with, up to the key that follows it. */
bool TakeValue(std::string_view& line, std::string_view key, std::string_view nextKey, std::string& value)
{
    if (!line.starts_with(key) || !line.substr(key.size()).starts_with('('))
        return false;
    const std::string end = std::string(NextKey).append(nextKey).append("(");
    const std::size_t at = line.find(end);
    if (at == std::string_view::npos)
        return false;
    value = line.substr(key.size() + 1, at - key.size() - 1);
    line.remove_prefix(at + NextKey.size());
    return true;
}

template <class Number>
bool TakeNumber(std::string_view& line, std::string_view key, std::string_view nextKey, Number& number)
{
    std::string value;
    return TakeValue(line, key, nextKey, value) && ReadNumber(value, number);
}

/** Takes ", KEY(value)" off the end. The value holds no bracket of its own unless `mayNest`. */
bool TakeLast(std::string_view& line, std::string_view key, bool mayNest, std::string& value)
{
    if (!line.ends_with(')'))
        return false;
    const std::string begin = std::string(", ").append(key).append("(");
    const std::size_t at = line.rfind(begin);
    if (at == std::string_view::npos)
        return false;
    const std::string_view inside = line.substr(at + begin.size(), line.size() - at - begin.size() - 1);
    if (!mayNest && inside.find(')') != std::string_view::npos)
        return false;
    value = inside;
    line = line.substr(0, at);
    return true;
}

bool ReadCommandLine(std::string_view line, ListedWork& work)
{
    if (!TakeNumber(line, "N", "PID", work.number) || !TakeNumber(line, "PID", "UID", work.processId) ||
        !TakeValue(line, "UID", "BDATE", work.user) || !TakeValue(line, "BDATE", "CMD", work.beginDate) ||
        !line.starts_with("CMD(") || !line.ends_with(')'))
        return false;
    work.command = line.substr(4, line.size() - 5);
    return true;
}

bool ReadLogLine(std::string_view line, ListedWork& work)
{
    // The status is the worker's "sent ... byte(s) in ... s (...)".
    std::string code;
    std::string_view withStatus = line;
    if (TakeLast(withStatus, "STATUS", true, work.status) && TakeLast(withStatus, "RC", false, code)) {
        line = withStatus;
    } else {
        work.status.clear();
        if (!TakeLast(line, "RC", false, code))
            return false;
    }
    return ReadNumber(code, work.returnCode) && ReadCommandLine(line, work);
}

bool ReadTransferLine(std::string_view line, ListedWork& work)
{
    std::string direction;
    std::string mode;
    std::string type;
    if (!TakeNumber(line, "N", "UID", work.number) || !TakeValue(line, "UID", "BDATE", work.user) ||
        !TakeValue(line, "BDATE", "LTO", work.beginDate) ||
        !TakeNumber(line, "LTO", "CMD", work.lifeTimeOut) || !TakeValue(line, "CMD", "MODE", direction) ||
        !TakeValue(line, "MODE", "TYPE", mode) || !TakeValue(line, "TYPE", "REMOTE FILE", type))
        return false;
    constexpr std::string_view fileLead = "REMOTE FILE(";
    TakeLast(line, "STATUS", true, work.status);
    if (!line.starts_with(fileLead) || !line.ends_with(')'))
        return false;
    work.file = line.substr(fileLead.size(), line.size() - fileLead.size() - 1);
    work.isGet = direction == "TRANSFER GET";
    work.isAscii = mode == "ASCII";
    work.isPassive = type == "PASSIVE";
    return true;
}

using ReadLine = bool (*)(std::string_view line, ListedWork& work);

/** One part of the listing: its counting line, then as many entries as that says. */
struct Section {
    std::string_view counted;
    std::string_view nextHeading;
    ReadLine read;
    std::vector<ListedWork> Listing::*works;
};

constexpr Section Sections[] = {
    {protocol::ActiveLogTransfers, protocol::ActiveCommands, ReadLogLine, &Listing::logs},
    {protocol::ActiveCommands, protocol::ActiveTransfers, ReadCommandLine, &Listing::commands},
    {protocol::ActiveTransfers, {}, ReadTransferLine, &Listing::transfers}};

/** Takes one line without its newline; false at the end of the text. */
bool TakeLine(std::string_view& text, std::string_view& line)
{
    if (text.empty())
        return false;
    const std::size_t end = text.find('\n');
    line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return true;
}

/** Reads lead, number and text of a counting line. */
bool ReadCount(std::string_view line, std::string_view lead, std::string_view counted, long& count)
{
    if (!line.starts_with(lead) || !line.ends_with(counted) || line.size() < lead.size() + counted.size())
        return false;
    line.remove_prefix(lead.size());
    line.remove_suffix(counted.size());
    return ReadNumber(line, count);
}

/** Whether an entry can end here: the text is at its end or at the next line with a lead. */
bool IsAtLead(std::string_view rest)
{
    return rest.empty() || rest.starts_with(protocol::LineLead);
}

/** Takes one entry; a line that does not end it is tried together with those behind it. */
bool TakeEntry(std::string_view& rest, ReadLine read, ListedWork& work)
{
    if (!rest.starts_with(protocol::LineLead))
        return false;
    const std::string_view begin = rest.substr(protocol::LineLead.size());
    std::string_view left = rest;
    std::string_view line;
    while (TakeLine(left, line)) {
        const auto end = static_cast<std::size_t>(line.data() + line.size() - begin.data());
        ListedWork candidate;
        if (IsAtLead(left) && read(begin.substr(0, end), candidate)) {
            work = std::move(candidate);
            rest = left;
            return true;
        }
    }
    return false;
}

/** Lets what stands before the heading, where there is one, go on with the entry before it. */
void TakeRemains(std::string_view& rest, std::string_view nextHeading, std::vector<ListedWork>& works)
{
    std::string_view left = rest;
    std::string_view line;
    long count = 0;
    while (TakeLine(left, line) && !ReadCount(line, protocol::FoundLead, nextHeading, count)) {
        if (!works.empty())
            (works.back().file.empty() ? works.back().command : works.back().file).append("\n").append(line);
        rest = left;
    }
}

bool TakeSection(std::string_view& rest, const Section& section, Listing& listing)
{
    std::string_view line;
    long count = 0;
    if (!TakeLine(rest, line) || !ReadCount(line, protocol::FoundLead, section.counted, count))
        return false;
    std::vector<ListedWork>& works = listing.*section.works;
    for (ListedWork work; count > 0 && TakeEntry(rest, section.read, work); --count)
        works.push_back(std::move(work));
    // Who sends a command that looks like more entries must not keep others from their listing.
    if (!section.nextHeading.empty())
        TakeRemains(rest, section.nextHeading, works);
    return true;
}
} // namespace

std::optional<Listing> ParseListing(std::string_view answer)
{
    Listing listing;
    std::string_view line;
    if (!TakeLine(answer, line) || !TakeLine(answer, line) ||
        !ReadCount(line, protocol::LineLead, protocol::LaunchedSinceBeginning, listing.startedSinceBeginning))
        return std::nullopt;
    for (const Section& section : Sections)
        if (!TakeSection(answer, section, listing))
            return std::nullopt;
    while (TakeLine(answer, line)) {
        if (line.starts_with(protocol::LineLead))
            line.remove_prefix(protocol::LineLead.size());
        listing.report.emplace_back(line);
    }
    return listing;
}
