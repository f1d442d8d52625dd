#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "connections/BaseConnection.h"
#include "connections/ThreadOrProcessConnection.h"
#include "daemon/Poller.h"

/** One step of ending work: how hard to signal (0 terminate, 1 kill), and how many seconds to wait then. */
struct LadderStep {
    int force;
    int seconds;
};
using Ladder = std::span<const LadderStep>;

/** The ladders, as data (Ladders.cpp). */
namespace Ladders
{
/** A log's or transfer's worker. */
extern const LadderStep Worker[2];
/** A command's tree, when its life or the daemon's is over. */
extern const LadderStep CommandTree[2];
/** A kill request's own signal for a command. */
extern const LadderStep GentleKill[1];
extern const LadderStep ForcedKill[1];
/** Seconds that logs have at shutdown to be delivered by themselves, before their ladder begins. */
extern const int LogSeconds;
} // namespace Ladders

/** Who demanded an end, which decides what the work's own client is told. */
enum class EndingCause { LifeTimeOut, Shutdown, KillRequest };

/** One demand that a piece of work end. */
struct EndingDemand {
    EndingCause cause;
    Ladder ladder;
    bool wholeTree = false;            // commands: every descendant, or the command alone
    std::string text;                  // what is told, up to where the code follows
    std::unique_ptr<Connection> asker; // who asked for a kill and waits for the answer; else null

    // The course of it.
    size_t step = 0;
    long long stepDeadline = 0; // milliseconds, steady
    std::string codeText;       // the code in decimal or "NoThing"; empty while it goes on
};

/**
 * The end of one piece of work: a command, or the worker of a log or transfer. It never waits: each demand
 * sends its first signal at once and climbs its ladder as turns go by, until the work has ended or the
 * ladder has (then the code is "NoThing"). Several demands for the same work go on side by side, each with
 * its own signal, limit and answer; the work is done with when its last demand is.
 *
 * Owned by the server. While it lives, the ordinary checks leave the work alone.
 */
class Ending
{
public:
    /** The work outlives the ending. */
    explicit Ending(BaseConnection& command) : command_(&command) {}
    explicit Ending(ThreadOrProcessConnection& worker) : worker_(&worker) {}

    void Add(EndingDemand demand);
    /** True when a demand has been made for this cause. */
    bool HasCause(EndingCause cause) const;
    /** True when Advance() has something to do, or the ending is over. */
    bool IsDue(long long now);
    /**
     * Goes on with the tree for this share of a turn, looks whether the work has ended and climbs the ladders
     * whose time is over. Returns the demands that came to their end in this call, in the order in which they
     * were made.
     */
    std::vector<EndingDemand*> Advance(const TurnShare& share);
    /** True for the demand that was made first: the work's own client is told its text. */
    bool IsFirst(const EndingDemand* demand) const { return demand == demands_.front().get(); }
    bool IsOver() const;
    long long NextDeadline() const;

    /** The command, or null for a worker's ending. */
    BaseConnection* GetCommand() const { return command_; }
    ThreadOrProcessConnection* GetWorker() const { return worker_; }
    /** True when the work has ended by itself or by a signal; its code. */
    bool HasEnded(int& code);
    /** When what is left of the tree is to be killed: where a whole-tree demand's gentle step ends, at once
     * for one that kills, never without one. */
    long long TreeDeadline() const;

private:
    bool IsTreeUnfinished() const;
    bool HasWorkerEnded();
    void Signal(const EndingDemand& demand);
    void Climb(EndingDemand& demand, long long now);

    BaseConnection* command_ = nullptr;
    ThreadOrProcessConnection* worker_ = nullptr;
    bool ended_ = false;
    int code_ = 0;
    std::vector<std::unique_ptr<EndingDemand>> demands_;
};

/**
 * What is left of a command's tree once the command itself has ended: its ladder goes on until nobody is
 * alive. Owned by the server.
 */
class TreeRemainder
{
public:
    /** `killAt`: when the gentle step is over, milliseconds on the steady clock. */
    TreeRemainder(ProcessTree tree, long long killAt) : tree_(std::move(tree)), killAt_(killAt) {}

    /** Goes on for this share of a turn. True when nobody is left, or nothing more can be done. Looks again
     * once a second. */
    bool Advance(const TurnShare& share);
    long long NextDeadline() const { return nextLook_; }

private:
    ProcessTree tree_;
    long long killAt_;
    long long nextLook_ = 0;
    int killsSent_ = 0;
};
