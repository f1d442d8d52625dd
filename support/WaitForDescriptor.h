#pragma once

/** Milliseconds on the steady clock at which a wait that starts now and lasts `seconds` ends. */
long long DeadlineIn(int seconds);

/**
 * Waits until the descriptor is ready for `events` (as for poll) or broken, through interruptions and looks
 * that fail: true in time, false at the deadline. A deadline that has passed is not waited for at all.
 */
bool WaitForDescriptor(int descriptor, short events, long long deadline);
