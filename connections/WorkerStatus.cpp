#include "connections/WorkerStatus.h"

#include <csignal>

#include <sys/wait.h>

namespace
{
bool IsEndOnPurpose(int signal)
{
    return signal == SIGKILL || signal == SIGTERM;
}
} // namespace

int WorkerStatus::AfterCheck(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (!WIFSIGNALED(waitStatus))
        return 0;
    if (IsEndOnPurpose(WTERMSIG(waitStatus)))
        return KilledOnPurpose;
    return WTERMSIG(waitStatus) == SIGQUIT ? Crashed : Signalled;
}

int WorkerStatus::AfterWait(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (!WIFSIGNALED(waitStatus))
        return 0;
    if (WCOREDUMP(waitStatus))
        return Crashed;
    return IsEndOnPurpose(WTERMSIG(waitStatus)) ? KilledOnPurpose : Signalled;
}
