#pragma once

/**
 * The steady clock behind every deadline and life time: milliseconds that are never set back or forth.
 */
namespace Clock
{
/** Milliseconds since an arbitrary start; only differences mean something. */
long long SteadyMilliseconds();
/** The same clock in microseconds, for limits shorter than a few milliseconds. */
long long SteadyMicroseconds();
/** Milliseconds since the epoch: the wall clock as it was at the first call, then steady. */
long long EpochMilliseconds();
} // namespace Clock
