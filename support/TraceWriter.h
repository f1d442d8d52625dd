#pragma once

#include <string_view>

/**
 * The trace behind BaseString::PutTrace: one open line for the process, written to descriptor 1 with one
 * write when it ends.
 *
 * Nothing here waits, raises a signal, allocates or changes errno, whatever descriptor 1 is: a pipe that
 * nobody reads, a stopped terminal, a socket whose peer has gone, a full disk, nothing at all. A line that
 * finds no room is dropped and counted; the count is written before the next line that finds room.
 *
 * Much of what is traced was sent by strangers: control bytes in a piece become '?', so that a line cannot
 * be forged. A line ends at the size up to which a pipe takes writes whole, as workers write to it too.
 */
namespace TraceWriter
{
void Append(std::string_view piece);
void EndLine();
} // namespace TraceWriter
