#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

/**
 * Which of the orphans that this process has adopted are strangers to whom, so that looking for the members
 * of one tree does not read the environment of everybody else's orphans again and again.
 *
 * An orphan's id stays its own until the table of children reaps it, which forgets it here: there is never
 * more than an entry for each orphan that lives. Only who has been alive for a while is remembered, because
 * a process that was just made may still exchange its program and with it its environment.
 */
namespace AdoptedOrphans
{
/** Notes what an orphan's whole environment (a NUL in front of each entry and behind the last) says of the
 * entry with the name that `mark` (NAME=value) has. */
void Note(pid_t processId, pid_t session, std::string_view environment, std::string_view mark);
/** True when the orphan is known neither to have been of this session nor to bear this mark. */
bool IsStranger(pid_t processId, pid_t session, std::string_view mark);
/** To be called when an id is free again. */
void Forget(pid_t processId) noexcept;
} // namespace AdoptedOrphans
