#pragma once

#include <cstddef>
#include <optional>
#include <unordered_set>
#include <vector>

#include "support/ProcessFiles.h"
#include "support/ProcessTree.h"
#include "support/TurnShare.h"

/**
 * One search for members, each of which is held and stopped as soon as it is found. An id that was read
 * from a list may belong to another process a moment later, so that a member is taken in only after it has
 * been proved, with the pidfd in hand, to be still there and still the child of a member that is there.
 *
 * It goes step by step, each with one process, and may rest between any two: those that have been found
 * stand still meanwhile.
 */
class ProcessTree::Search
{
public:
    explicit Search(ProcessTree& tree);

    /** Goes on for this share of a turn; true as long as it has not come to its end. */
    bool GoOn(const TurnShare& share);
    bool Holds(pid_t processId) const { return members_.contains(processId); }
    /** The tree has moved. */
    void MoveTo(ProcessTree& tree) { tree_ = &tree; }

private:
    enum class Phase { StopKnown, LookWhetherStill, WalkOrphans, WalkMembers, Over };

    void StopNextKnown();
    void BeginLook();
    void LookAtNext();
    void BeginWalk();
    void ConsiderNextOrphan();
    void BeginMembers();
    void WalkNextMember();
    void EndWalk();
    void BeginClosing();
    void BeginClosingRound();
    long long SpentMicroseconds() const;

    bool IsCommandRunning() const { return ChildTable::IsRunning(tree_->command_); }
    bool IsInTheirSession(const Member& member) const;
    bool IsOfTheirSession(const ProcessStatus& orphan);
    bool IsStranger(pid_t orphan) const;
    void Miss(pid_t processId);
    void Consider(pid_t orphan);
    void Hold(pid_t processId, const Member* parent);

    /** The last walk found new members, or somebody who had just gone: who may have left a successor, which
     * the lists that were read before cannot show. */
    bool HasMoved() const { return grown_ || missed_; }
    /** It did not, and left nothing in doubt either; nor did those before it, had somebody been missed. */
    bool IsSettled() const;

    ProcessTree* tree_;
    Phase phase_ = Phase::StopKnown;
    bool isClosing_ = false; // looks at children alone, so that none loses the parent that tells it
    std::size_t next_ = 0;   // the member whose turn it is
    std::optional<ChildrenReader> reader_;
    std::vector<pid_t> orphans_;  // yet to be considered, from the back
    bool areOrphansOld_ = false;  // some may have been reaped since they were listed
    std::vector<pid_t> children_; // of the member before the next one; likewise

    long long begin_ = 0; // of the turn's share
    long long spent_ = 0; // in those before
    long long closingSince_ = 0;
    int naps_ = 0;

    bool sessionIsTheirs_;
    bool isStill_ = false; // nobody ran before the walk
    bool grown_ = false;
    bool missed_ = false;
    bool doubtful_ = false;
    bool hasEverMissed_ = false;
    int missedInARow_ = 0;
    int quietInARow_ = 0;
    std::unordered_set<pid_t> members_;
    std::unordered_set<pid_t> strangers_; // orphans that have been looked at: once a search is enough
};
