// Measures RuvelServer beside floors and peers and writes what was measured as JSON.
//
//     RuvelBench [--quick] RESULTS [NAME...]
//
// The names choose rows and curves; those that need the same set-up are measured together.

#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>

#include <sys/resource.h>

#include "bench/Conversation.h"
#include "bench/Subjects.h"

namespace
{
constexpr Subject Subjects[] = {
    {"launch launch-p99 nosocket burst cpu", MeasureLaunches},
    {"output log log-cpu", MeasureStreams},
    {"get put get-cpu put-cpu file-sizes", MeasureTransfers},
    {"continue-get continue-put", MeasureContinuation},
    {"check-sum check-sum-portable", MeasureCheckSums},
    {"idle listening start", MeasureStanding},
    {"live-launch live-nosocket live-info live-memory live-commands info-lines memory ends",
     MeasureLiveCommands},
    {"crowd silent-clients", MeasureCrowds},
    {"run run-cpu run-output", MeasureControl},
};

/** Thousands of commands have a client each. */
void RaiseDescriptorLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int Fail(const char* reason)
{
    std::fprintf(stderr, "RuvelBench: %s\n", reason);
    return 1;
}
} // namespace

bool Subject::IsChosen(const Extent& extent) const
{
    if (extent.chosen.empty())
        return true;
    std::istringstream names(rows);
    for (std::string name; names >> name;)
        if (extent.chosen.contains(name))
            return true;
    return false;
}

int main(int argc, char** argv)
{
    Extent extent;
    int at = 1;
    if (at < argc && std::strcmp(argv[at], "--quick") == 0) {
        extent.isQuick = true;
        ++at;
    }
    if (at == argc)
        return Fail("where to are the results to be written?");
    const char* path = argv[at++];
    extent.chosen.insert(argv + at, argv + argc);
    RaiseDescriptorLimit();
    Results results;
    bool isAnyChosen = false;
    try {
        for (const Subject& subject : Subjects) {
            if (!subject.IsChosen(extent))
                continue;
            isAnyChosen = true;
            const double begin = NowInMicroseconds();
            std::fprintf(stderr, "%s ...", subject.rows);
            subject.measure(extent, results);
            std::fprintf(stderr, " %.0f s\n", (NowInMicroseconds() - begin) / 1e6);
        }
        if (isAnyChosen)
            results.Write(path, extent.isQuick);
    } catch (const std::exception& failure) {
        return Fail(failure.what());
    }
    return isAnyChosen ? 0 : Fail("there is no row of that name");
}
