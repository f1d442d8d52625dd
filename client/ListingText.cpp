#include "client/ListingText.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "client/CommandWrapping.h"
#include "client/Terminal.h"

namespace
{
using Row = std::vector<std::string>;

constexpr std::string_view Gap = "  ";
constexpr std::string_view PartEnding = ".ruvelpart";

/** A heading and rows of as many cells; numbers stand to the right, the last cell as it comes. */
struct Table {
    std::string title;
    Row heading;
    std::size_t rightCells = 0;
    std::vector<Row> rows;
};

std::vector<int> MeasureCells(const Table& table)
{
    std::vector<int> widths(table.heading.size());
    const auto measure = [&widths](const Row& row) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], Terminal::CountColumns(row[i]));
    };
    measure(table.heading);
    std::for_each(table.rows.begin(), table.rows.end(), measure);
    return widths;
}

std::string AlignRow(const Row& row, const std::vector<int>& widths, std::size_t rightCells)
{
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const auto padding = static_cast<std::size_t>(widths[i] - Terminal::CountColumns(row[i]));
        line.append(Gap);
        if (i < rightCells)
            line.append(padding, ' ').append(row[i]);
        else
            line.append(row[i]).append(i + 1 < row.size() ? padding : 0, ' ');
    }
    return line;
}

void AppendTable(const Table& table, std::vector<std::string>& lines)
{
    if (table.rows.empty())
        return;
    if (!lines.empty())
        lines.emplace_back();
    const std::vector<int> widths = MeasureCells(table);
    lines.push_back(table.title + " (" + std::to_string(table.rows.size()) + ")");
    lines.push_back(AlignRow(table.heading, widths, table.rightCells));
    for (const Row& row : table.rows)
        lines.push_back(AlignRow(row, widths, table.rightCells));
}

std::string ShownCommand(const ListedWork& work)
{
    return OwnLine(work.command);
}

std::string ShownStatus(const ListedWork& work)
{
    return work.status.empty() ? "" : " [" + Terminal::MakePrintable(work.status) + "]";
}

/** What a put writes into is called after its target, which is what its user knows. */
std::string ShownFile(const std::string& file)
{
    const std::size_t slash = file.rfind('/') + 1;
    const std::size_t ending = file.size() - std::min(file.size(), PartEnding.size());
    if (file.substr(slash, 1) != "." || ending <= slash || file.substr(ending) != PartEnding)
        return file;
    return file.substr(0, slash) + file.substr(slash + 1, ending - slash - 1);
}

Table MakeCommandTable(const std::vector<ListedWork>& commands)
{
    Table table{"Commands", {"N", "PROCESS", "USER", "BEGAN", "COMMAND"}, 2, {}};
    for (const ListedWork& one : commands)
        table.rows.push_back({std::to_string(one.number), std::to_string(one.processId),
                              Terminal::MakePrintable(one.user), Terminal::MakePrintable(one.beginDate),
                              Terminal::MakePrintable(ShownCommand(one))});
    return table;
}

Table MakeTransferTable(const std::vector<ListedWork>& transfers)
{
    Table table{"Transfers", {"N", "USER", "BEGAN", "KIND", "FILE"}, 1, {}};
    for (const ListedWork& one : transfers)
        table.rows.push_back({std::to_string(one.number), Terminal::MakePrintable(one.user),
                              Terminal::MakePrintable(one.beginDate),
                              std::string(one.isGet ? "get" : "put") + (one.isAscii ? " ascii" : "") +
                                  (one.isPassive ? " passive" : ""),
                              Terminal::MakePrintable(ShownFile(one.file)) + ShownStatus(one)});
    return table;
}

Table MakeLogTable(const std::vector<ListedWork>& logs)
{
    Table table{"Logs being delivered", {"N", "CODE", "USER", "BEGAN", "COMMAND"}, 2, {}};
    for (const ListedWork& one : logs)
        table.rows.push_back({std::to_string(one.number), std::to_string(one.returnCode),
                              Terminal::MakePrintable(one.user), Terminal::MakePrintable(one.beginDate),
                              Terminal::MakePrintable(ShownCommand(one)) + ShownStatus(one)});
    return table;
}

nlohmann::ordered_json MakeEntry(const ListedWork& work)
{
    nlohmann::ordered_json entry = {{"number", work.number}, {"user", work.user}, {"began", work.beginDate}};
    if (!work.status.empty())
        entry["status"] = work.status;
    return entry;
}

nlohmann::ordered_json MakeCommandEntry(const ListedWork& work)
{
    nlohmann::ordered_json entry = MakeEntry(work);
    entry["processId"] = work.processId;
    entry["command"] = ShownCommand(work);
    return entry;
}

nlohmann::ordered_json MakeLogEntry(const ListedWork& work)
{
    nlohmann::ordered_json entry = MakeCommandEntry(work);
    entry["returnCode"] = work.returnCode;
    return entry;
}

nlohmann::ordered_json MakeTransferEntry(const ListedWork& work)
{
    nlohmann::ordered_json entry = MakeEntry(work);
    entry["direction"] = work.isGet ? "get" : "put";
    entry["mode"] = work.isAscii ? "ascii" : "binary";
    entry["passive"] = work.isPassive;
    entry["lifeTimeOut"] = work.lifeTimeOut;
    entry["file"] = work.file;
    return entry;
}

template <class Make>
nlohmann::ordered_json MakeEntries(const std::vector<ListedWork>& works, Make make)
{
    nlohmann::ordered_json entries = nlohmann::ordered_json::array();
    for (const ListedWork& one : works)
        entries.push_back(make(one));
    return entries;
}
} // namespace

std::vector<std::string> FormatListing(const Listing& listing, int columns)
{
    std::vector<std::string> lines;
    AppendTable(MakeCommandTable(listing.commands), lines);
    AppendTable(MakeTransferTable(listing.transfers), lines);
    AppendTable(MakeLogTable(listing.logs), lines);
    if (lines.empty())
        lines.emplace_back("Nothing is running.");
    if (!listing.report.empty())
        lines.emplace_back();
    for (const std::string& line : listing.report)
        lines.push_back(Terminal::MakePrintable(line));
    if (columns > 0)
        for (std::string& line : lines)
            line = Terminal::CutToColumns(line, columns);
    return lines;
}

std::string FormatListingAsJson(const Listing& listing)
{
    nlohmann::ordered_json all = {{"startedSinceBeginning", listing.startedSinceBeginning},
                                  {"commands", MakeEntries(listing.commands, MakeCommandEntry)},
                                  {"transfers", MakeEntries(listing.transfers, MakeTransferEntry)},
                                  {"logs", MakeEntries(listing.logs, MakeLogEntry)}};
    if (!listing.report.empty())
        all["report"] = listing.report;
    return all.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}
