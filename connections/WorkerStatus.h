#pragma once

/**
 * What a worker's wait status means to supervision. Checking and waiting tell a fatal signal differently,
 * and clients see both, so both are kept.
 */
namespace WorkerStatus
{
constexpr int KilledOnPurpose = 999; // ended by signal 9 or 15
constexpr int NotReaped = 777;       // nobody knows how it ended
constexpr int Crashed = 666;
constexpr int Signalled = 333;

/** For a check: 0..255 on a normal exit; 999 for signals 9 and 15, 666 for 3, 333 for any other. */
int AfterCheck(int waitStatus);
/** For a wait: 0..255 on a normal exit; 666 when a core was dumped, else 999 for 9 and 15, else 333. */
int AfterWait(int waitStatus);
} // namespace WorkerStatus
