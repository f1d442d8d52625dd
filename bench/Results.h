#pragma once

#include <map>
#include <string>
#include <vector>

/** What a row's own contestant must reach: a value, or a ratio to the row's first contestant. */
struct Target {
    enum class Sense { AtMost, AtLeast };
    enum class Of { Value, Ratio };
    Sense sense;
    Of of;
    double value;
    /** The contestant that ratios are to; empty for the first. */
    std::string floor = {};
};

/** One thing that is measured of several contestants, who take turns: a value of each in every round. */
struct Row {
    std::string name; // by which it is chosen on the command line
    std::string what;
    std::string unit;
    Target target;
};

/** What is plotted against a size, which grows in steps. */
struct Curve {
    std::string name;
    std::string what;
    std::string sizeName;
    std::string unit;
};

/**
 * All that a run has measured, kept round by round: what reads it, reports, works out medians and ratios.
 * Contestants and series are told apart by their names and keep the order of their first value.
 */
class Results
{
public:
    /** The contestant that targets are for. */
    static constexpr const char* Own = "RuvelServer";

    void Add(const Row& row, const std::string& contestant, double value);
    void Add(const Curve& curve, const std::string& series, double size, double value);
    /** As JSON. */
    void Write(const std::string& path, bool isQuick) const;

private:
    struct Values {
        std::string name;
        std::vector<double> values; // of a curve: size and value in turn
    };
    template <class What>
    struct Entry {
        What what;
        std::vector<Values> members;
    };
    template <class What>
    static std::vector<double>& ValuesOf(std::vector<Entry<What>>& entries, const What& what,
                                         const std::string& member);

    std::vector<Entry<Row>> rows_;
    std::vector<Entry<Curve>> curves_;
};

/** The value that `share` of the samples (0 to 1) do not exceed. */
double Percentile(std::vector<double> samples, double share);
