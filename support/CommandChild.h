#pragma once

#include <cstddef>

#include <sys/types.h>

/** The identity that a command's process takes on before it runs. */
struct ChildIdentity {
    uid_t userId;
    gid_t groupId;
    const gid_t* groups; // supplementary ones
    std::size_t groupCount;
};

/**
 * All that a command's process needs between its fork and its exec, made ready by the parent: plain
 * pointers, since the child may share the parent's memory and must neither allocate nor change anything.
 */
struct CommandChild {
    const char* const* arguments;   // ends with a null; the first is the program's name, not its path
    const char* const* environment; // ends with a null
    int input;                      // descriptors above 2; the parent keeps and closes its own
    int outputAndError;
    const char* home;
    const ChildIdentity* identity; // null: that of the parent
};

/**
 * Forks, and runs /bin/sh in the child. The new process id, or -1 with errno set. A child that cannot go on
 * writes one line to its own standard error and exits with 126, or with 127 when there is no /bin/sh.
 *
 * Under the parent's own user id the child borrows the parent's memory until its exec, which spares the
 * copy. The parent sleeps meanwhile: a home directory on a hung mount holds it up.
 */
pid_t StartCommandChild(const CommandChild& child);
