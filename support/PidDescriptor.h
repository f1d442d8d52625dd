#pragma once

#include <sys/syscall.h>
#include <unistd.h>

/**
 * Descriptors that stand for one process for good, unlike its id. The C library declares these calls only
 * for C in the versions that matter.
 */
namespace PidDescriptor
{
/** Close-on-exec, readable once the process has ended; -1 with errno set. */
inline int Open(pid_t processId)
{
    return static_cast<int>(syscall(SYS_pidfd_open, processId, 0));
}
/** As kill(). */
inline int SendSignal(int descriptor, int signal)
{
    return static_cast<int>(syscall(SYS_pidfd_send_signal, descriptor, signal, nullptr, 0));
}
} // namespace PidDescriptor
