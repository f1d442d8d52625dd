#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

/** What the kernel's process files (/proc) tell about one process, as of the moment of asking. */
struct ProcessStatus {
    char state = '?'; // of its first thread: R, S, D running or waiting; T, t stopped; Z ended
    pid_t parent = 0;
    pid_t session = 0;
    int threads = 0;
    unsigned long long startTime = 0; // clock ticks since boot: tells a reused id

    /** Neither runs nor will before somebody continues it. Says nothing when there are more threads. */
    bool IsStill() const { return state == 'T' || state == 't' || state == 'Z' || state == 'X'; }
    /** A first thread that has ended counts only when it was the last. */
    bool HasEnded() const { return (state == 'Z' || state == 'X') && threads <= 1; }
};

namespace ProcessFiles
{
/** Steady milliseconds in the unit of start times. */
unsigned long long ToTicks(long long milliseconds);
/** False when there is no such process (any more). */
bool ReadStatus(pid_t processId, ProcessStatus& status);
/** True when no thread of it runs: each one has stopped or ended. True of a process that is gone. */
bool IsStill(pid_t processId);
enum class Reading { Whole, Partial, NotYet };
/** The environment's entries, a NUL in front of each and behind the last. Partial when some or all may not be
 * read, NotYet while the process is just exchanging its program for another and has no environment. */
Reading ReadEnvironment(pid_t processId, std::string& entries);
} // namespace ProcessFiles

/**
 * Finds children at the cost of their number, by the kernel's own lists; where it keeps none, by one look at
 * every process there is, taken when first needed. One object serves one walk over a tree.
 */
class ChildrenReader
{
public:
    enum class Source { Automatic, AllProcesses };

    explicit ChildrenReader(Source source = Source::Automatic);
    /** Process ids of the children: a snapshot, complete when the process does not run meanwhile. */
    std::vector<pid_t> ListChildren(pid_t parent);

private:
    void ReadAllProcesses();

    bool byList_;
    bool allRead_ = false;
    std::vector<std::pair<pid_t, pid_t>> parentAndChild_; // sorted
};
