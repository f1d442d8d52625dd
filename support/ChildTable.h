#pragma once

#include <deque>

#include <sys/types.h>

/**
 * Names one child of this process beyond doubt: the process id alone may already belong to another process
 * when a status is asked for.
 */
struct ChildId {
    long processId = 0; // 0: no child
    unsigned long long serial = 0;

    bool IsNone() const { return processId == 0; }
};

enum class ChildState {
    Running,
    Ended,  // and its wait status has been handed out, once
    Unknown // never entered, forgotten, or already asked for
};

/**
 * The one table of this process' children, and the only place that reaps.
 *
 * A child is entered right after its fork. Reap() collects every child that has ended: the status of one in
 * the table is kept for the one who asks, that of a stranger (an orphan that this process has adopted) is
 * dropped. Since nobody else reaps, a child that the table calls running cannot have had its id reused:
 * signalling it is safe, and nothing may signal one that the table calls ended.
 *
 * The daemon collects at each SIGCHLD, so asking costs no system call.
 */
namespace ChildTable
{
/** Makes room for one more child. Called before a fork, it lets memory run out while nothing has been
 * started yet; the Enter() that follows cannot fail, nor can the note of the child's end. */
void Prepare();
/** Enters a child that was just forked. Must come before the next Reap(). */
ChildId Enter(pid_t processId);
/** Collects, without blocking, every child that has ended. Its cost grows with the number of children, but
 * no more than that however many of them have ended. Adopted strangers are collected for a share of a turn:
 * true when more of them are likely to have ended. */
bool Reap();
/** Collects this child if it has ended, at the same cost however many children there are. */
void ReapOne(pid_t processId);
/** Collects those of the youngest children that have ended: where signals have run into one, these are the
 * likeliest to be behind it. The cost does not grow either. */
void ReapYoungest();
/** The child's state as of the last Reap(); an ended child's wait status goes to `waitStatus` and its entry.
 */
ChildState Ask(const ChildId& child, int& waitStatus);
/** When an ended child that has not been asked for was collected, on the steady clock in milliseconds; 0 for
 * any other. */
long long TimeOfEnd(const ChildId& child);
/** Waits until the child has ended, at most this long (negative: without limit), reaping meanwhile. */
ChildState Wait(const ChildId& child, int& waitStatus, long long limitMilliseconds);
/** True while the table has the child as running, so that it may be signalled. */
bool IsRunning(const ChildId& child);
/** True when a running child of the table has this id. */
bool HoldsRunning(pid_t processId);
/** Drops the entry of a child that nobody will ask for; it is still reaped. */
void Forget(const ChildId& child);
/** Number of ended children that have not been asked for yet. */
int CountOfUnaskedEnds();
/** Number of children that run. */
int CountOfRunning();
/** Appends the serials of the table's children that were collected since the last call, in the order of
 * their ends. */
void TakeEnds(std::deque<unsigned long long>& serials);
/** Drops everything: the first thing a forked worker does, whose children these are not. */
void Clear();
} // namespace ChildTable
