#pragma once

#include <sys/types.h>

/** What a process has used up to the moment of asking. */
struct ProcessUse {
    long contextSwitches = 0; // voluntary and not
    double cpuMicroseconds = 0;
    long residentKilobytes = 0;
    double endedChildrensCpuSeconds = 0; // of those that have been waited for

    /** Of a process that lives; everything 0 of another. */
    static ProcessUse Of(pid_t process);
};
