#pragma once

#include <signal.h>

/** Holds SIGTERM back while it exists: an end asked for meanwhile comes when it goes. */
class TerminationHold
{
public:
    TerminationHold();
    TerminationHold(const TerminationHold&) = delete;
    TerminationHold& operator=(const TerminationHold&) = delete;
    ~TerminationHold();

private:
    sigset_t before_;
};

/**
 * A file that a worker is writing and that nobody must find half written. Once watched, it is removed when
 * the worker is told to terminate, which then ends by that signal all the same; a kill leaves it. At most one
 * exists in a process, and the process is a worker.
 */
class UnfinishedFile
{
public:
    /** `path` must outlive this object. */
    explicit UnfinishedFile(const char* path) : path_(path) {}
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;
    /** The file stays, unless Remove() was called. */
    ~UnfinishedFile();

    /** To be called under a TerminationHold that began before the file was made. */
    void Watch();
    /** The file, if watched, is removed. */
    void Remove();
    /** Whatever is watched stays from now on: this process is no longer the one that may remove it. */
    static void Abandon();

private:
    const char* path_;
};
