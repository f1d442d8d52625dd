#pragma once

#include <functional>

#include "support/CheckSum.h"

/**
 * Adds the bytes of an open file from offset `begin` up to `end` to `sum`: 0, else the error; EIO when the
 * file ends before. They are read at their offsets: where the file stands is neither asked for nor changed.
 *
 * In a large regular file several threads share the work. They exist only during the call, take no signals
 * and belong to the identity that the caller has; where the system grants none, the caller does all itself.
 * `progress` (empty: nobody) is told now and then how many bytes are done, on the caller's thread.
 */
int SumUpRange(int file, long long begin, long long end, CheckSum& sum,
               const std::function<void(long long done)>& progress);
