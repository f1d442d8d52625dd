#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildTable.h"
#include "support/FileDescriptor.h"
#include "support/TurnShare.h"

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
    ProcessTree();
    /** `mark` is the whole environment entry (NAME=value) that the command was started with. */
    ProcessTree(const ChildId& command, std::string mark);
    /** The tree moved from is empty: it finds and signals nothing. */
    ProcessTree(ProcessTree&& other) noexcept;
    ProcessTree& operator=(ProcessTree&& other) noexcept;
    ~ProcessTree();

    /**
     * Begins to stop the tree from the top until no new member appears, to send every member `signal` then,
     * and to let them continue; members found before are kept. Does as much of it as one share of a turn has
     * time for, and GoOn() the rest. A member that cannot stop just now is signalled all the same. What is
     * demanded while it goes on comes with it or behind it; a kill goes before a request to terminate.
     */
    void Signal(int signal);
    /** Begins to let go of the members that have ended. When the last one has, it looks once more for what
     * they may have left behind, which gets the last signal too. GoOn() does it, behind a signal's course. */
    void Look();
    /** Goes on with what has been begun, for this share of a turn. True as long as some of it is left. */
    bool GoOn(const TurnShare& share);
    bool IsUnfinished() const { return phase_ != Phase::Idle || demandedSignal_ != 0 || isLookDemanded_; }
    /** The command's process id was still its own at this moment (steady milliseconds): who was in its
     * session then is a member, however little else tells it. */
    void NoteRunning(long long milliseconds);
    /** False when no member that has been found is alive as far as the last look saw; true while something is
     * left to do, and when the tree moved on faster than it could be looked through. */
    bool IsAnyoneAlive() const { return IsUnfinished() || isUnsettled_ || !members_.empty(); }

private:
    /** A pidfd, or none: all trees together have a limited number, as everybody needs descriptors. */
    class Handle
    {
    public:
        Handle() = default;
        explicit Handle(pid_t processId);
        Handle(Handle&&) = default;
        Handle& operator=(Handle&&) = default; // exchanges them, so that each is counted once
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

    /** What is being done for a signal or a look, in this order. */
    enum class Phase { Idle, LettingGo, Searching, Signalling, Continuing };

    static int Send(const Member& member, int signal);
    static bool HasEnded(const Member& member);
    void Begin();
    void LetGoOfNext();
    void EndLettingGo();
    void SearchOn(const TurnShare& share);
    void SignalNext();
    void ContinueNext();
    void Enter(Phase phase);

    ChildId command_;
    std::string mark_;
    unsigned long long lastSeenRunning_ = 0; // the command: clock ticks since boot
    bool isUnsettled_ = false;
    std::vector<Member> members_; // in the order in which they were found, parents first

    Phase phase_ = Phase::Idle;
    std::size_t next_ = 0; // the member whose turn it is
    std::size_t kept_ = 0; // those in front of it that have not ended
    std::unique_ptr<Search> search_;
    int demandedSignal_ = 0; // not begun with
    bool isLookDemanded_ = false;
    int signal_ = 0; // that is being sent, 0 in a look
    int lastSignal_ = 0;
    bool isRestSought_ = false; // what the last members may have left behind
};
