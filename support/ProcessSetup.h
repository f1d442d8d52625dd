#pragma once

/**
 * What a supervising process changes about itself at start, and what its children get back: one place for
 * both, so that nothing of the daemon's leaks into a command.
 */
namespace ProcessSetup
{
/**
 * Makes this process a supervisor: descriptors 0, 1 and 2 open (on /dev/null where they were closed); reaper
 * of orphans; no signal ignored but SIGHUP where it was; SIGCHLD, SIGTERM, SIGINT, SIGPIPE, and SIGHUP unless
 * it was ignored, blocked for life; soft limit of open files raised to the hard one; umask 022. Called once,
 * before anything else is opened. Returns a signalfd (close-on-exec, not blocking) for SIGCHLD, SIGTERM,
 * SIGINT and SIGHUP that the caller owns, or -1 with errno set.
 */
int BecomeSupervisor();

/**
 * For a process that holds passwords: no core file, no debugger, and no look into its memory or environment
 * by anybody but root. Forked workers inherit it, commands do not. The entries below /proc/<id> that tell
 * descriptors and environment then belong to root.
 */
void KeepMemoryPrivate();

/**
 * Gives a forked child what it would have had without the supervisor: an empty signal mask, default
 * dispositions; a command also the old limit of open files and a normal out-of-memory score. Workers keep
 * the raised limit: `forCommand` false. Async-signal-safe: fit for a child that shares its parent's memory.
 */
void RestoreInChild(bool forCommand);

/**
 * Leaves the session keyring, which is inherited like a group, for a new, empty one. Made before a change of
 * user, it does not count against the user's few. Systems without keyrings have nothing to inherit.
 * Async-signal-safe.
 */
void LeaveKeyring();

/**
 * Closes every descriptor from 3 up but `kept` (-1: none). All of this system's own are close-on-exec; this
 * is for what it was itself started with, and for workers. 0, or -1 on a kernel without the call (before
 * 5.9), which leaves them open. Async-signal-safe.
 */
int CloseAllDescriptorsBut(int kept);
/** True where that call is to be had. */
bool ClosesAllAtOnce();
} // namespace ProcessSetup
