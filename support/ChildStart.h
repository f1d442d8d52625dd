#pragma once

#include <sys/types.h>

/**
 * Starts children at a cost that does not grow with what the parent has open. An ordinary fork copies the
 * whole table of descriptors, and the child closes it again: with thousands of clients connected that takes
 * longer than all else. Here the child shares the parent's table until it has taken its own copy of the
 * first few entries: the standard streams and two low numbers that are kept for what it is to have besides.
 */
namespace ChildStart
{
/** Keeps the two numbers, and the stack that a child needs. Called once, before much is open or memory is
 * short; without it children copy the whole table. */
void Prepare();

/** Borrowed: the child uses the parent's, which sleeps until the child executes a program or ends. */
enum class Memory { Borrowed, Copied };

/** Two descriptors of the parent at the reserved numbers, for the child that is started meanwhile. */
class Handover
{
public:
    /**
     * Either may be -1. Where the numbers are not to be had, or copying the table is the smaller cost, the
     * child gets the descriptors as they are.
     */
    Handover(Memory memory, int first, int second);
    Handover(const Handover&) = delete;
    Handover& operator=(const Handover&) = delete;
    ~Handover();

    /** What the child has in place of each. */
    int First() const { return first_; }
    int Second() const { return second_; }
    /** The child has nothing besides these two and its standard streams, unless the system ran short. */
    bool IsSparing() const { return isSparing_; }

    /**
     * Forks, and calls `run` in the child, which must not return. The new process id, or -1 with errno set.
     * The caller has blocked all signals; the child begins with them blocked.
     *
     * With copied memory the small table is made by a helper between the two, which has ended when this
     * returns, and whose own SIGCHLD may come besides.
     */
    pid_t Start(void (*run)(void*), void* argument) const;

private:
    Memory memory_;
    int first_;
    int second_;
    bool isSparing_ = false;
};
} // namespace ChildStart
