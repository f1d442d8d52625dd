#pragma once

#include <sys/types.h>

/** What a process has used up to the moment of asking. */
struct ProcessUse {
    long contextSwitches = 0; // voluntary and not
    double cpuMicroseconds = 0;
    double endedChildrensCpuSeconds = 0; // of those that have been waited for

    /** Of a process that lives; everything 0 of another. */
    static ProcessUse Of(pid_t process);
    /** The same, once it has waited for all its children, as a server does for those that served. */
    static ProcessUse OfAlone(pid_t process);
    /** All processor time, in milliseconds. */
    double CpuMilliseconds() const { return cpuMicroseconds / 1000 + endedChildrensCpuSeconds * 1000; }
};

/** The memory that is the process' alone plus its share of what it has in common with others, in KiB. */
double ProportionalMemory(pid_t process);
