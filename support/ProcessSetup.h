#pragma once

/**
 * What a supervising process changes about itself at start, and what its children get back: one place for
 * both, so that nothing of the daemon's leaks into a command.
 */
namespace ProcessSetup
{
/**
 * Makes this process a supervisor: reaper of orphans; every signal disposition default; SIGCHLD, SIGTERM,
 * SIGINT, SIGPIPE, and SIGHUP unless it was ignored, blocked for life; soft limit of open files raised to
 * the hard one; umask 022. Returns a signalfd (close-on-exec, not blocking) for SIGCHLD, SIGTERM, SIGINT and
 * SIGHUP that the caller owns, or -1 with errno set.
 */
int BecomeSupervisor();

/**
 * Gives a forked child what it would have had without the supervisor: an empty signal mask, default
 * dispositions, the old limit of open files. Async-signal-safe: fit for a child that shares its parent's
 * memory. Workers keep the raised limit: `forCommand` false.
 */
void RestoreInChild(bool forCommand);

/** Closes every descriptor from 3 up but `kept` (-1: none). Async-signal-safe. */
void CloseAllDescriptorsBut(int kept);
} // namespace ProcessSetup
