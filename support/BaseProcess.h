#pragma once

#include <string>

#include "support/Account.h"
#include "support/BaseSocket.h"
#include "support/ChildTable.h"
#include "support/ProcessTree.h"
#include "support/QORLists.h"
#include "support/QORUnicodeString.h"

/**
 * One launched command: it starts it, reports and waits for its end, and ends it or its whole tree.
 * The connection that the command belongs to owns it; the daemon calls it, never a worker (but for
 * ImpersonateUser and RestoreUser, which only workers call). States: not started (process id 0), running,
 * ended (the exit code has been reported). Destruction ends no process.
 *
 * A command runs as `/bin/sh -c command` in a session of its own, in the user's home directory ("/" when
 * that cannot be entered), with umask 022, default signals, and descriptors 0, 1 and 2 only. Its
 * environment carries a random mark by which its tree is found again (MarkName).
 *
 * What can fail is tried before the fork: a start result other than 0 comes with its reason, leaves the
 * object not started, and leaves no file behind. Past the fork a child that cannot go on writes the reason
 * to the command's own error stream and exits with 126 or 127.
 *
 * Exit codes: what the command returned, or 128 + n when signal n ended it.
 */
class BaseProcess
{
public:
    static constexpr const char* MarkName = "RUVELSERVER_MARK";
    /** The reason of every refusal of a user: it must not tell whether the user exists. */
    static constexpr const char* UserRefusedReason = "Error bad user or password";
    /** Exit code of a command that the table of children knows nothing of: its end went unseen. */
    static constexpr int UnseenEnd = 777;

    BaseProcess() = default;
    BaseProcess(const BaseProcess&) = delete;
    BaseProcess& operator=(const BaseProcess&) = delete;
    ~BaseProcess();

    // Starting: 0 when the command was started. Every descriptor of the daemon's is close-on-exec, so the
    // child needs no list of sockets to close (it may be null); the flags carry the request's window and
    // interactive choices, which mean nothing on this system.
    /** As the daemon's own user, with its environment and home. */
    int StartBaseProcess(const QORUnicodeString& command, QORListPtrBaseSocket* socketsToClose,
                         const int& window, const int& interactive);
    /** As `user` (user id, group id, supplementary groups), with a login's environment. */
    int StartBaseProcessUser(const QORUnicodeString& command, const QORUnicodeString& user,
                             const QORUnicodeString& password, QORListPtrBaseSocket* socketsToClose,
                             const int& window);
    /** With the client's socket as standard input, output and error; the output file is not made. */
    int StartBaseProcessWithSocket(const QORUnicodeString& command, BaseSocket& socket,
                                   QORListPtrBaseSocket* socketsToClose, const int& window,
                                   const int& interactive, const int& online);
    int StartBaseProcessUserWithSocket(const QORUnicodeString& command, const QORUnicodeString& user,
                                       const QORUnicodeString& password, BaseSocket& socket,
                                       QORListPtrBaseSocket* socketsToClose, const int& window,
                                       const int& interactive);

    /** Standard input comes from this file; /dev/null unless set. */
    void SetInputFileName(const QORUnicodeString& name) { inputFileName_ = name; }
    /** Standard output and error both go to this file: a new one of the command's user, mode 0600, in place
     * of an old one. What else stands there makes the start fail. */
    void SetOutputAndErrorFileName(const QORUnicodeString& name) { outputFileName_ = name; }
    const QORUnicodeString& GetOutputFileName() const { return outputFileName_; }
    /** The started command's process id, 0 before the start and after ResetBeforeDestruction(). */
    int GetProcessId() const { return processId_; }

    /** Tells the started command from every other, unlike its process id, which is used again. 0 before the
     * start and after ResetBeforeDestruction(). */
    unsigned long long GetSerial() const { return child_.serial; }

    /** The user id that the command was started under, which its output file belongs to; nobody's (-1) as
     * long as no start has succeeded. */
    uid_t GetUserId() const { return userId_; }

    /** Says that the user's password has been checked already: the start calls do not check it again. */
    void SetUserVerified() { userVerified_ = true; }

    /** Nonzero when the command has ended, with its exit code; 0 while it runs. Makes no system call: it
     * asks the table of children. Once ended it answers the same ever after. */
    int CheckForProcess(int& returnCode);
    /** What CheckForProcess would find, without asking: false also when nothing has been started. */
    bool IsRunning() const { return ChildTable::IsRunning(child_); }
    /** Opposite sense: 0 when the command ended within the time, with its exit code; nonzero on time-out. */
    int WaitForProcess(int& returnCode, const int& timeoutSeconds);
    /** Asks the command to terminate (`force` 0) or kills it (1). 0 when signalled or already ended. */
    int KillBaseProcess(const int& force);
    /** The same for the command and everything that descends from it. A large tree takes more than one share
     * of a turn: then the rest is left to GoOnWithTree(). */
    int KillBaseProcessTree(const int& force);
    /** Goes on with the end of the tree for this share of a turn. */
    void GoOnWithTree(const TurnShare& share) { tree_.GoOn(share); }
    bool IsTreeUnfinished() const { return tree_.IsUnfinished(); }
    /** Hands over the tree, so that what outlives the command can still be ended. */
    ProcessTree TakeProcessTree();
    /** Forgets the process: destruction touches nothing, CheckForProcess says ended. */
    void ResetBeforeDestruction();
    /** Reaps, without blocking, every child that has ended. */
    static void CleanZombiProcess();

    QORUnicodeString BaseProcessGetLastError() const { return lastError_; }

    /** Nonzero when `user` (without its domain) is the account this process runs under; `currentUser`
     * receives that account's name. */
    static int IsSameUser(const QORUnicodeString& user, QORUnicodeString& currentUser);
    /**
     * 0 when `user` exists, `password` is its password, and the account is valid. Blocks for as long as the
     * password system likes: called in a worker only. Every refusal gives the same reason.
     */
    int VerifyUser(const QORUnicodeString& user, const QORUnicodeString& password);
    /**
     * Saves the effective user id, group id and supplementary groups, then takes on those of `user`, without
     * the session keyring. The count is the array's capacity on entry; groups beyond it are not saved. Mode 0
     * checks the password, mode 1 trusts an earlier check. For the user that the process already is there is
     * nothing to switch. On failure the identity is as it was.
     */
    int ImpersonateUser(const QORUnicodeString& user, const QORUnicodeString& password, long& savedUserId,
                        long& savedGroupId, long* savedGroups, int& savedGroupCount, const int& mode);
    int RestoreUser(long& savedUserId, long& savedGroupId, long* savedGroups, int& savedGroupCount);

private:
    int Start(const QORUnicodeString& command, const Account* account, const BaseSocket* socket);
    int StartAsUser(const QORUnicodeString& command, const QORUnicodeString& user,
                    const QORUnicodeString& password, const BaseSocket* socket);
    int Launch(const QORUnicodeString& command, const Account* account, int input, int output);
    int Fail(std::string reason);
    void NoteEnd(ChildState state, int waitStatus);

    ChildId child_;
    int processId_ = 0;
    int exitCode_ = 0;
    bool ended_ = false;
    bool userVerified_ = false;
    uid_t userId_ = static_cast<uid_t>(-1);
    QORUnicodeString inputFileName_ = "/dev/null";
    QORUnicodeString outputFileName_;
    std::string lastError_;
    ProcessTree tree_;
};
