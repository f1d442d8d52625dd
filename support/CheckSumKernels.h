#pragma once

#include <cstddef>

/**
 * The ways to fold bytes into a CRC-32 state (the value without its final complement). All give the same
 * result; CheckSum takes the fastest that the processor has, and the portable one serves everywhere.
 */
namespace CheckSumKernels
{
/** Sixteen bytes a step through tables. */
unsigned int FoldPortable(unsigned int state, const unsigned char* data, size_t length);
/** True when this processor multiplies without carries, so that FoldCarryless may be called. */
bool HasCarryless();
/** 64 bytes a step through the processor's carry-less multiplication. */
unsigned int FoldCarryless(unsigned int state, const unsigned char* data, size_t length);
/** True when it also makes four such products of 128 bits at a time, so that FoldWide may be called. */
bool HasWide();
/** 256 bytes a step through those. */
unsigned int FoldWide(unsigned int state, const unsigned char* data, size_t length);
} // namespace CheckSumKernels
