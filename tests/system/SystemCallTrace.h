#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/system/ServerProcess.h"

/** Whom a process acts as; the file system goes by the effective ids and the groups. */
struct TracedIdentity {
    struct Ids {
        unsigned real = 0;
        unsigned effective = 0;
        unsigned saved = 0;
        bool operator==(const Ids&) const = default;
    };
    Ids user;
    Ids group;
    /** As in a trace, in ascending order: "27 1000". Of the first process they are not known. */
    std::string groups = "unknown";
    bool operator==(const TracedIdentity&) const = default;
};

/** A system call that names a path, and who made it. */
struct TracedCall {
    pid_t process = 0;
    TracedIdentity identity;
    std::string name;
    /** In the order of the arguments; empty where the call goes by a descriptor alone. */
    std::vector<std::string> paths;
    /** As it was traced, with its result. */
    std::string text;
};

/**
 * The calls of a root process, and of all that descend from it, that name a path, as strace sees them. It
 * begins with a process that runs and ends when the last one has gone.
 */
class SystemCallTrace
{
public:
    explicit SystemCallTrace(pid_t process);
    SystemCallTrace(const SystemCallTrace&) = delete;
    SystemCallTrace& operator=(const SystemCallTrace&) = delete;
    ~SystemCallTrace();

    /** False when there is no strace, or the system does not let it trace. */
    bool Runs() const { return runs_; }
    /** Waits for the end of everything that is traced. Each process' calls are in their order, and before
     * those of a child come those that its parent made before it. */
    std::vector<TracedCall> Collect();

private:
    void Read(pid_t process, TracedIdentity identity, std::vector<TracedCall>& calls) const;

    TestDirectory directory_;
    pid_t process_;
    pid_t tracer_ = -1;
    bool runs_ = false;
};
