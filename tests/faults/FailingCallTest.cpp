#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>

#include <gtest/gtest.h>

#include "tests/faults/FaultyDaemon.h"
#include "tests/faults/Scenario.h"
#include "tests/system/SystemFacts.h"
#include "tests/system/TestAccount.h"

using faults::Kinds;
using faults::Place;

namespace
{
constexpr size_t Size = 600'000; // of a log or a file: more than a block
constexpr Place Places[] = {Place::Daemon, Place::Child};

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
    Bench(const DaemonOptions& options, const Credentials& asker) : options_(options), asker_(asker)
    {
        Start();
    }

    /** How often everything is called in a scenario in which nothing fails. */
    void CountCalls()
    {
        injection_.Count();
        const ScenarioResult result = RunScenario(*daemon_, asker_, Size);
        injection_.Disarm();
        EXPECT_EQ(result.worst, Outcome::Unnoticed) << result.toldIn << ": " << result.told;
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
        const ScenarioResult result = RunScenario(*daemon_, asker_, Size);
        injection_.Disarm();
        // What cannot be removed stays.
        if (Kinds[kind].name == "remove" || Kinds[kind].name == "unlink")
            for (const std::string& name : daemon_->LogFiles())
                std::remove((daemon_->LogDirectory() + "/" + name).c_str());
        ExpectRest(*daemon_, asker_, idleDescriptors_);
        const char* const outcomes[] = {"unnoticed", "closed", "told"};
        std::cout << Kinds[kind].name << "\t" << NameOf(place) << "\t" << number << "\t" << error << "\t"
                  << (injection_->hasFailed ? outcomes[static_cast<int>(result.worst)] : "not reached")
                  << "\t" << result.toldIn << "\t" << result.told << std::endl;
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
    Credentials asker_;
    FaultInjection injection_;
    std::unique_ptr<DaemonUnderTest> daemon_;
    size_t idleDescriptors_ = 0;
    long counts_[faults::PlaceCount][faults::KindCount] = {};
};

/** Which of so many calls fail: all in the long form, else the first, the middle and the last. */
std::set<long> Choose(long calls, bool justOne = false)
{
    std::set<long> chosen;
    for (long number = 1; number <= calls && IsLongForm(); ++number)
        chosen.insert(number);
    if (calls > 0 && justOne)
        chosen.insert(calls / 2 + 1);
    else if (calls > 0)
        chosen.insert({1, calls / 2 + 1, calls});
    return chosen;
}

const std::vector<std::string> Complaints = {"Error in _InitThreadOrProcess()"};

/** What only a daemon that serves several users does, or does otherwise. */
const std::set<std::string_view> IdentityKinds = {
    "fchown",       "fork",      "getgroups", "getpwnam_r", "pam_acct_mgmt", "pam_authenticate",
    "pam_set_item", "pam_start", "setgroups", "setresgid",  "setresuid",     "syscall"};

/** In the short form, of these kinds only, if there are any, and of each only one call; in the long form the
 * others fail with one of their errors. */
void LetEachCallFail(const DaemonOptions& options, const Credentials& asker,
                     const std::set<std::string_view>& kinds = {})
{
    Bench bench(options, asker);
    bench.CountCalls();
    for (size_t kind = 0; kind < faults::KindCount; ++kind) {
        const bool isFull = kinds.empty() || kinds.contains(Kinds[kind].name);
        if (!(isFull || IsLongForm()) || !IsWanted(Kinds[kind]))
            continue;
        const size_t errors = isFull && IsLongForm() ? Kinds[kind].errors.size() : 1;
        for (const Place place : Places)
            for (const long number : Choose(bench.CountOf(place, kind), !kinds.empty()))
                for (size_t i = 0; i < errors; ++i)
                    bench.LetFail(place, kind, number, Kinds[kind].errors[i]);
    }
}
} // namespace

TEST(FailingCall, OnlyItsClientNotices)
{
    LetEachCallFail({.shortLadders = true, .toleratedErrors = Complaints}, {});
}

TEST(FailingCallAsRoot, OnlyItsClientNoticesOfManyUsers)
{
    const TestAccount account;
    LetEachCallFail({.mode = {}, .shortLadders = true, .toleratedErrors = Complaints},
                    {account.Name(), account.Password()}, IdentityKinds);
}
