#pragma once

#include <string>

#include "tests/system/DaemonUnderTest.h"

/** How the worst of a scenario's dialogues went that did not go as it should. */
enum class Outcome { Unnoticed, Closed, Told };

struct ScenarioResult {
    Outcome worst = Outcome::Unnoticed;
    /** What the client of that outcome was told, and in which dialogue. */
    std::string told;
    std::string toldIn;
};

/**
 * Everything that clients ask of a daemon, one dialogue after the other, while at most one thing goes wrong.
 * A dialogue goes as it should, or its client is told of an error, or finds its connection closed before
 * the answer is whole; and then the same dialogue, led once more, goes as it should. Anything else is a
 * failed test. `size`: bytes of the log and of the files that are transferred.
 */
ScenarioResult RunScenario(DaemonUnderTest& daemon, const Credentials& asker, size_t size);

/** Ends what is still listed, and waits until the daemon has no process, file or descriptor more than it had
 * when it was idle. */
void ExpectRest(DaemonUnderTest& daemon, const Credentials& asker, size_t idleDescriptors);
