#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "tests/faults/FaultyDaemon.h"
#include "tests/faults/Scenario.h"
#include "tests/system/SystemFacts.h"

using faults::Kinds;
using faults::Place;

namespace
{
constexpr size_t Size = 40000; // of a log or a file: some blocks
constexpr Place Places[] = {Place::Daemon, Place::Child};

/** Every call that a scenario makes is to fail, with every error. */
bool IsLongForm()
{
    return getenv("RUVEL_TORTURE") != nullptr;
}

/** The long form can be had of one kind alone. */
bool IsWanted(const faults::Kind& kind)
{
    const char* const only = getenv("RUVEL_TORTURE_CALL");
    return only == nullptr || kind.name == only;
}

const char* NameOf(Place place)
{
    return place == Place::Daemon ? "daemon" : "child";
}

int CountFailures()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

/** One daemon after the other, each of which serves until a test fails. */
class Bench
{
public:
    Bench(const DaemonOptions& options, const Asker& asker) : options_(options), asker_(asker) { Start(); }

    /** How often everything is called in a scenario in which nothing fails. */
    void CountCalls()
    {
        injection_.Count();
        Scenario scenario(*daemon_, asker_, Size);
        scenario.Run();
        injection_.Disarm();
        EXPECT_EQ(scenario.Worst(), Outcome::Unnoticed);
        ExpectRest(*daemon_, asker_, idleDescriptors_);
        for (const Place place : Places)
            for (size_t kind = 0; kind < faults::KindCount; ++kind)
                counts_[static_cast<size_t>(place)][kind] = injection_.CountOf(place, kind);
    }
    long CountOf(Place place, size_t kind) const { return counts_[static_cast<size_t>(place)][kind]; }

    void LetFail(Place place, size_t kind, long number, int error)
    {
        const int failuresBefore = CountFailures();
        SCOPED_TRACE(std::string(Kinds[kind].name) + " in the " + NameOf(place) + ", call " +
                     std::to_string(number) + " of " + std::to_string(CountOf(place, kind)) + ", error " +
                     std::to_string(error));
        injection_.Fail(place, kind, number, error);
        Scenario scenario(*daemon_, asker_, Size);
        scenario.Run();
        injection_.Disarm();
        // What cannot be removed stays.
        if (Kinds[kind].name == "remove" || Kinds[kind].name == "unlink")
            for (const std::string& name : daemon_->LogFiles())
                std::remove((daemon_->LogDirectory() + "/" + name).c_str());
        ExpectRest(*daemon_, asker_, idleDescriptors_);
        const char* const outcomes[] = {"unnoticed", "closed", "told"};
        std::cout << Kinds[kind].name << "\t" << NameOf(place) << "\t" << number << "\t" << error << "\t"
                  << (injection_->hasFailed ? outcomes[static_cast<int>(scenario.Worst())] : "not reached")
                  << "\t" << scenario.ToldIn() << "\t" << scenario.Told() << std::endl;
        // The next one finds a sound daemon whatever this one has left.
        if (CountFailures() != failuresBefore)
            Start();
    }

private:
    void Start()
    {
        daemon_.reset();
        daemon_ = injection_.StartDaemon(options_);
        idleDescriptors_ = CountDescriptorsOf(daemon_->Process().Id());
    }

    DaemonOptions options_;
    Asker asker_;
    FaultInjection injection_;
    std::unique_ptr<DaemonUnderTest> daemon_;
    size_t idleDescriptors_ = 0;
    long counts_[faults::PlaceCount][faults::KindCount] = {};
};

/** Which of so many calls fail: all in the long form, else the first, the middle and any one. */
std::set<long> Choose(long calls, std::mt19937& random)
{
    std::set<long> chosen;
    for (long number = 1; number <= calls && IsLongForm(); ++number)
        chosen.insert(number);
    if (calls > 0 && chosen.empty())
        chosen = {1, calls / 2 + 1, std::uniform_int_distribution<long>(1, calls)(random)};
    return chosen;
}

void LetEachCallFail(const DaemonOptions& options, const Asker& asker)
{
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    Bench bench(options, asker);
    bench.CountCalls();
    for (size_t kind = 0; kind < faults::KindCount; ++kind) {
        if (!IsWanted(Kinds[kind]))
            continue;
        const size_t errors = IsLongForm() ? Kinds[kind].errors.size() : 1;
        for (const Place place : Places)
            for (const long number : Choose(bench.CountOf(place, kind), random))
                for (size_t i = 0; i < errors; ++i)
                    bench.LetFail(place, kind, number, Kinds[kind].errors[i]);
    }
}
} // namespace

TEST(FailingCall, OnlyItsClientNotices)
{
    LetEachCallFail({.shortLadders = true, .toleratedErrors = {"Error in _InitThreadOrProcess()"}}, {});
}
