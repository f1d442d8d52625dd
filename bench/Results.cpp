#include "bench/Results.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <sys/utsname.h>
#include <unistd.h>

#include "bench/SystemFacts.h"

using Json = nlohmann::ordered_json;

namespace
{
Json DescribeMachine()
{
    utsname system{};
    uname(&system);
    const std::string release(system.release);
    const std::time_t now = std::time(nullptr);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&now));
    return {{"date", date},
            {"processors", sysconf(_SC_NPROCESSORS_ONLN)},
            {"model", ReadFact("/proc/cpuinfo", "model name")},
            {"memory", ReadFact("/proc/meminfo", "MemTotal")},
            {"system", std::string(system.sysname) + " " + release.substr(0, release.find('-'))}};
}

Json ToJson(const Row& row)
{
    return {{"name", row.name},
            {"what", row.what},
            {"unit", row.unit},
            {"sense", row.target.sense == Target::Sense::AtMost ? "at most" : "at least"},
            {"of", row.target.of == Target::Of::Ratio ? "ratio" : "value"},
            {"target", row.target.value},
            {"floor", row.target.floor}};
}

Json ToJson(const Curve& curve)
{
    return {{"name", curve.name}, {"what", curve.what}, {"size", curve.sizeName}, {"unit", curve.unit}};
}
} // namespace

template <class What>
std::vector<double>& Results::ValuesOf(std::vector<Entry<What>>& entries, const What& what,
                                       const std::string& member)
{
    auto entry = std::find_if(entries.begin(), entries.end(),
                              [&](const Entry<What>& each) { return each.what.name == what.name; });
    if (entry == entries.end())
        entry = entries.insert(entries.end(), {what, {}});
    auto values = std::find_if(entry->members.begin(), entry->members.end(),
                               [&](const Values& each) { return each.name == member; });
    if (values == entry->members.end())
        values = entry->members.insert(entry->members.end(), {member, {}});
    return values->values;
}

void Results::Add(const Row& row, const std::string& contestant, double value)
{
    ValuesOf(rows_, row, contestant).push_back(value);
}

void Results::Add(const Curve& curve, const std::string& series, double size, double value)
{
    std::vector<double>& values = ValuesOf(curves_, curve, series);
    values.push_back(size);
    values.push_back(value);
}

void Results::Write(const std::string& path, bool isQuick) const
{
    Json all = {{"machine", DescribeMachine()},
                {"quick", isQuick},
                {"own", Own},
                {"rows", Json::array()},
                {"curves", Json::array()}};
    const auto add = [&](const char* list, const auto& entries) {
        for (const auto& entry : entries) {
            Json described = ToJson(entry.what);
            for (const Values& member : entry.members)
                described["values"][member.name] = member.values;
            all[list].push_back(described);
        }
    };
    add("rows", rows_);
    add("curves", curves_);
    std::ofstream file(path);
    file << all.dump(1) << '\n';
    if (!file.flush())
        throw std::runtime_error("cannot write " + path);
}

double Percentile(std::vector<double> samples, double share)
{
    if (samples.empty())
        return std::nan("");
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + at, samples.end());
    return samples[static_cast<std::size_t>(at)];
}
