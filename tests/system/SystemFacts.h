#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// What the system knows of processes and of System V objects, for a look from outside at what the daemon
// holds and what it has left behind.

/** Every process of the machine, those that have ended and wait to be asked for included. */
std::vector<pid_t> ListProcesses();
/** Processes alive whose environment holds `text`; those that may not be looked into are left out. */
std::vector<pid_t> FindProcessesWith(const std::string& text);
/** Ended children of a process that it has not yet asked for. */
std::vector<pid_t> FindZombiesOf(pid_t parent);
bool IsAlive(pid_t process);
/** Stops it and waits until it stands still: a signal sent before that could be taken first. */
void StopProcess(pid_t process);
size_t CountDescriptorsOf(pid_t process);
/** The semaphore sets that one of these processes was the last to use. */
std::vector<int> FindSemaphoresOf(const std::vector<pid_t>& users);
/** Shared memory segments and semaphore sets that a process made and that still stand. */
size_t CountSystemVObjectsOf(pid_t process);
