#include "client/ProgressBar.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include <unistd.h>

#include "client/Terminal.h"
#include "support/Clock.h"

namespace
{
/** Often enough to look alive. */
constexpr long long DrawingInterval = 100; // milliseconds
constexpr long LongestDuration = 99L * 24 * 3600;
constexpr int NarrowestBar = 10;
constexpr int WidestBar = 40;
constexpr int NarrowestName = 8;
constexpr const char* Green = "\x1b[32m";
constexpr const char* Plain = "\x1b[0m";

/** "=====>    ", filled to the share; between 0 and 1. */
std::string MakeBar(double share, int columns)
{
    const int filled = static_cast<int>(share * columns);
    std::string bar(static_cast<std::size_t>(filled), '=');
    if (filled < columns)
        bar += filled > 0 ? '>' : ' ';
    bar.resize(static_cast<std::size_t>(columns), ' ');
    return bar;
}

std::string PadFront(std::string text, std::size_t columns)
{
    return text.size() < columns ? text.insert(0, columns - text.size(), ' ') : text;
}

/** Bytes, rate and time left (or taken, at the end). */
std::string FormatFigures(const Progress& progress)
{
    const auto moved = static_cast<double>(progress.bytesDone - progress.bytesBefore);
    const double rate = progress.seconds > 0 ? moved / progress.seconds : 0;
    std::string figures = PadFront(FormatBytes(progress.bytesDone), 8);
    if (progress.bytesInAll >= 0)
        figures += "/" + FormatBytes(progress.bytesInAll);
    figures += " " + PadFront(FormatBytes(std::llround(rate)), 8) + "/s ";
    if (progress.bytesInAll < 0 || progress.bytesDone >= progress.bytesInAll)
        return figures + PadFront(FormatDuration(progress.seconds), 6) + "     ";
    const auto left = static_cast<double>(progress.bytesInAll - progress.bytesDone);
    return figures + PadFront(FormatDuration(rate > 0 ? std::ceil(left / rate) : -1), 6) + " left";
}
} // namespace

std::string FormatBytes(long long bytes)
{
    constexpr std::array<const char*, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // What would be rounded to 1000 or more has four digits.
    while (value >= 999.5 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    std::array<char, 32> text;
    const int digits = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
    snprintf(text.data(), text.size(), "%.*f %s", digits, value, units[unit]);
    return text.data();
}

std::string FormatDuration(double seconds)
{
    if (!(seconds >= 0) || seconds > static_cast<double>(LongestDuration))
        return "--:--";
    const auto whole = static_cast<long>(seconds);
    std::array<char, 32> text;
    if (whole < 3600)
        snprintf(text.data(), text.size(), "%ld:%02ld", whole / 60, whole % 60);
    else
        snprintf(text.data(), text.size(), "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
    return text.data();
}

std::string FormatProgress(std::string_view name, const Progress& progress, int columns)
{
    std::string figures = FormatFigures(progress);
    std::string share;
    int barColumns = 0;
    if (progress.bytesInAll >= 0) {
        const double done = progress.bytesInAll == 0 ? 1
                                                     : static_cast<double>(progress.bytesDone) /
                                                           static_cast<double>(progress.bytesInAll);
        const double part = std::clamp(done, 0.0, 1.0);
        share = PadFront(std::to_string(static_cast<int>(part * 100)), 4) + " %";
        const int room = columns - static_cast<int>(share.size() + figures.size()) - NarrowestName - 4;
        barColumns = room >= NarrowestBar ? std::min({room, columns / 3, WidestBar}) : 0;
        if (barColumns > 0)
            share += " [" + MakeBar(part, barColumns) + "]";
    }
    const std::string tail = share + " " + figures;
    const int nameColumns = columns - static_cast<int>(tail.size());
    if (nameColumns < NarrowestName)
        return Terminal::CutToColumns(tail, columns);
    std::string line = Terminal::CutFrontToColumns(name, nameColumns);
    line.append(static_cast<std::size_t>(nameColumns - Terminal::CountColumns(line)), ' ');
    return line + tail;
}

ProgressBar::ProgressBar(std::string_view name, bool isWanted)
    : name_(Terminal::MakePrintable(name)),
      isDrawn_(isWanted && Terminal::IsCapable(STDERR_FILENO)),
      startMilliseconds_(Clock::SteadyMilliseconds())
{
}

void ProgressBar::Finish()
{
    if (isFinished_)
        return;
    progress_.seconds = Seconds();
    isFinished_ = true;
    if (!hasLine_)
        return;
    Draw();
    fputs("\n", stderr);
}

void ProgressBar::Start(long long bytesBefore, long long bytesInAll)
{
    progress_ = {bytesBefore, bytesInAll, bytesBefore, 0};
    startMilliseconds_ = Clock::SteadyMilliseconds();
    if (isDrawn_)
        Draw();
}

void ProgressBar::Update(long long bytesDone)
{
    progress_.bytesDone = bytesDone;
    if (isDrawn_ && !isFinished_ && Clock::SteadyMilliseconds() - drawnMilliseconds_ >= DrawingInterval)
        Draw();
}

double ProgressBar::Seconds() const
{
    if (isFinished_)
        return progress_.seconds;
    return static_cast<double>(Clock::SteadyMilliseconds() - startMilliseconds_) / 1000;
}

void ProgressBar::Draw()
{
    drawnMilliseconds_ = Clock::SteadyMilliseconds();
    progress_.seconds = Seconds();
    // One column is left free: a full line would make some terminals go to the next.
    std::string line = FormatProgress(name_, progress_, Terminal::ColumnsOf(STDERR_FILENO) - 1);
    // The last ones: a name may have some too.
    const std::size_t begin = line.rfind('[');
    const std::size_t end = line.rfind(']');
    if (Terminal::MayColor(STDERR_FILENO) && begin != std::string::npos && end != std::string::npos) {
        line.insert(end, Plain);
        line.insert(begin + 1, Green);
    }
    fputs(("\r" + line).c_str(), stderr);
    hasLine_ = true;
}
