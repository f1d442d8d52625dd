#pragma once

#include <string>
#include <vector>

/** What was measured of one thing, in rounds that took turns with those of the others. */
class Figures
{
public:
    /** Ends the round before it, if any. */
    void BeginRound() { rounds_.emplace_back(); }
    void Add(double value) { rounds_.back().push_back(value); }

    /** Over all rounds: the value that `share` of them (0 to 1) do not exceed. */
    double Percentile(double share) const;
    double Median() const { return Percentile(0.5); }
    double LowestRoundMedian() const;
    double HighestRoundMedian() const;
    /** Median of the rounds' own ratios, each to the other's round of the same number: a machine that is
     * slower for a while is so for both. */
    double RatioTo(const Figures& other) const;

private:
    std::vector<double> RoundMedians() const;

    std::vector<std::vector<double>> rounds_;
};

/** A line of a table: what was measured. */
struct FiguresLine {
    std::string name;
    const Figures& figures;
};

/** Prints a line for each; ratios are to the first. */
void PrintTable(const std::string& title, const std::vector<FiguresLine>& lines);
