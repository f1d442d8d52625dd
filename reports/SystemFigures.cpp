#include "reports/SystemFigures.h"

#include <charconv>

namespace
{
constexpr std::string_view Blanks = " \t";
constexpr unsigned long long Kilobyte = 1024;

std::string_view Trim(std::string_view text)
{
    size_t begin = text.find_first_not_of(Blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(Blanks) - begin + 1);
}

/** The value of the first line that reads "key : value", whatever blanks stand around; empty: none. */
std::string_view FindValue(std::string_view table, std::string_view key)
{
    while (!table.empty()) {
        std::string_view line = table.substr(0, table.find('\n'));
        table.remove_prefix(line.size() < table.size() ? line.size() + 1 : line.size());
        size_t colon = line.find(':');
        if (colon != std::string_view::npos && Trim(line.substr(0, colon)) == key)
            return Trim(line.substr(colon + 1));
    }
    return {};
}

/** The whole number that the value begins with, false when there is none. */
bool ReadNumber(std::string_view value, unsigned long long& number)
{
    return std::from_chars(value.data(), value.data() + value.size(), number).ec == std::errc();
}

unsigned long long FindBytes(std::string_view table, std::string_view key)
{
    unsigned long long kilobytes;
    if (!ReadNumber(FindValue(table, key), kilobytes) || kilobytes > ReportFields::Unknown / Kilobyte)
        return ReportFields::Unknown;
    return kilobytes * Kilobyte;
}

unsigned long long UsedOf(unsigned long long total, unsigned long long free)
{
    bool isKnown = total != ReportFields::Unknown && free != ReportFields::Unknown && free <= total;
    return isKnown ? total - free : ReportFields::Unknown;
}
} // namespace

void SystemFigures::ReadMemory(std::string_view table)
{
    totalMemory = FindBytes(table, "MemTotal");
    freeMemory = FindBytes(table, "MemAvailable");
    usedMemory = UsedOf(totalMemory, freeMemory);
    totalSwap = FindBytes(table, "SwapTotal");
    freeSwap = FindBytes(table, "SwapFree");
    usedSwap = UsedOf(totalSwap, freeSwap);
}

void SystemFigures::ReadProcessor(std::string_view table, std::string_view architecture)
{
    processorDescription = architecture;
    // Architectures differ in what they call it, and some tell nothing.
    for (std::string_view key : {"model name", "cpu model", "cpu"}) {
        std::string_view model = FindValue(table, key);
        if (!model.empty()) {
            processorDescription.append(", ").append(model);
            break;
        }
    }
    unsigned long long megahertz;
    if (ReadNumber(FindValue(table, "cpu MHz"), megahertz))
        processorDescription.append(" at ").append(std::to_string(megahertz)).append(" Mhz");
}
