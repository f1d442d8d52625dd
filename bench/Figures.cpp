#include "bench/Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace
{
double PercentileOf(std::vector<double> values, double share)
{
    if (values.empty())
        return std::nan("");
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<std::size_t>(at)];
}
} // namespace

double Figures::Percentile(double share) const
{
    std::vector<double> all;
    for (const auto& round : rounds_)
        all.insert(all.end(), round.begin(), round.end());
    return PercentileOf(std::move(all), share);
}

std::vector<double> Figures::RoundMedians() const
{
    std::vector<double> medians;
    for (const auto& round : rounds_)
        medians.push_back(PercentileOf(round, 0.5));
    return medians;
}

double Figures::LowestRoundMedian() const
{
    return PercentileOf(RoundMedians(), 0);
}

double Figures::HighestRoundMedian() const
{
    return PercentileOf(RoundMedians(), 1);
}

double Figures::RatioTo(const Figures& other) const
{
    std::vector<double> ratios = RoundMedians();
    const std::vector<double> others = other.RoundMedians();
    ratios.resize(std::min(ratios.size(), others.size()));
    for (std::size_t i = 0; i < ratios.size(); ++i)
        ratios[i] /= others[i];
    return PercentileOf(std::move(ratios), 0.5);
}

void PrintTable(const std::string& title, const std::vector<FiguresLine>& lines)
{
    std::printf("%s\n%-48s %9s %9s %9s %9s %7s\n", title.c_str(), "", "median", "p99", "low", "high",
                "ratio");
    for (const FiguresLine& line : lines)
        std::printf("%-48s %9.1f %9.1f %9.1f %9.1f %7.2f\n", line.name.c_str(), line.figures.Median(),
                    line.figures.Percentile(0.99), line.figures.LowestRoundMedian(),
                    line.figures.HighestRoundMedian(), line.figures.RatioTo(lines.front().figures));
    std::printf(
        "(low and high: medians of single rounds; ratio: to the first line, median of the rounds')\n\n");
    std::fflush(stdout);
}
