#pragma once

#include <string>
#include <vector>

#include "support/ChildTable.h"
#include "support/FileDescriptor.h"

/**
 * A command and everything that descends from it, held so that it can be ended for certain.
 *
 * The tree is: the command; its descendants; the orphans that this process has adopted (it is the reaper of
 * orphans) that are of the command's session or bear its mark in their environment; and theirs. Every
 * member is held by a pidfd, so that no reused id is ever hit and members that outlive the command stay in
 * reach. What clears its environment, changes its session and forks away can escape.
 *
 * Owned by the command's BaseProcess, and by the ladder that goes on after the command itself has ended.
 * Movable, not copyable.
 */
class ProcessTree
{
public:
    ProcessTree() = default;
    /** `mark` is the whole environment entry (NAME=value) that the command was started with. */
    ProcessTree(const ChildId& command, std::string mark);
    /** The tree moved from is empty: it finds and signals nothing. */
    ProcessTree(ProcessTree&& other) noexcept;
    ProcessTree& operator=(ProcessTree&& other) noexcept;
    ~ProcessTree() = default;

    /**
     * Stops the tree from the top until no new member appears, sends every member `signal`, and lets them
     * continue. Never waits for longer than a few milliseconds: a member that cannot stop just now is
     * signalled all the same. May be called again; members found before are kept.
     */
    void Signal(int signal);
    /** The command's process id was still its own at this moment (steady milliseconds): who was in its
     * session then is a member, however little else tells it. */
    void NoteRunning(long long milliseconds);
    /**
     * Number of members found so far that are still alive; those that have ended are let go. When the last
     * one has, it looks once more for what they may have left behind, which gets the last signal too. One
     * more while the tree moved on faster than it could be looked through. 0 before the first Signal().
     */
    int CountAlive();

private:
    /** A pidfd, or none: all trees together have a limited number, as everybody needs descriptors. */
    class Handle
    {
    public:
        Handle() = default;
        explicit Handle(pid_t processId);
        Handle(Handle&&) = default;
        Handle& operator=(Handle&&) = default;
        ~Handle();

        int Number() const { return descriptor_.Number(); }
        bool IsOpen() const { return descriptor_.IsOpen(); }

    private:
        static bool IsOneLeft();

        static int count;
        FileDescriptor descriptor_;
    };
    struct Member {
        pid_t processId;
        Handle pidDescriptor;
        unsigned long long startTime; // clock ticks since boot, tells a reused id
    };
    class Search;

    static int Send(const Member& member, int signal);
    static bool HasEnded(const Member& member);
    void LetGoOfEnded();
    bool StopAll();

    ChildId command_;
    std::string mark_;
    unsigned long long lastSeenRunning_ = 0; // the command: clock ticks since boot
    int lastSignal_ = 0;
    bool isUnsettled_ = false;
    std::vector<Member> members_; // in the order in which they were found, parents first
};
