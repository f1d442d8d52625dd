#include <gtest/gtest.h>

#include "tests/faults/FaultyDaemon.h"
#include "tests/faults/Scenario.h"
#include "tests/system/SystemFacts.h"

/** Every read and write of the daemon and its workers takes a part of what it could, and each call that can
 * be interrupted is so now and then: nobody notices. */
TEST(Stutter, ShortAndInterruptedCallsChangeNothing)
{
    FaultInjection injection;
    const auto daemon = injection.StartDaemon();
    const size_t descriptors = CountDescriptorsOf(daemon->Process().Id());
    injection.Count();
    injection->isStuttering = true;
    const ScenarioResult result = RunScenario(*daemon, {}, IsLongForm() ? 100'000'000 : 4'000'000);
    EXPECT_EQ(result.worst, Outcome::Unnoticed) << result.toldIn << ": " << result.told;
    injection.Disarm();
    EXPECT_GT(injection.CountOf(faults::Place::Child, faults::IndexOf("send")), 500);
    ExpectRest(*daemon, {}, descriptors);
}
