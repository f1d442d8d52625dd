#include "support/BaseProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Clock.h"
#include "support/CommandChild.h"
#include "support/CommandEnvironment.h"
#include "support/FileDescriptor.h"
#include "support/LogFile.h"

namespace
{
constexpr std::size_t LongestCommand = 131071; // the kernel takes no longer single argument
constexpr std::size_t MarkBytes = 16;
constexpr int SignalledBase = 128; // exit code of a command that signal n ended: this + n

/** An environment entry that nobody can guess, so that no process passes for another command's; empty, with
 * errno set, when there is no randomness to be had. */
std::string MakeMark()
{
    unsigned char random[MarkBytes];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random))
        return {};
    std::string mark = std::string(BaseProcess::MarkName) + "=";
    for (const unsigned char byte : random) {
        constexpr const char* digits = "0123456789abcdef";
        mark += digits[byte >> 4];
        mark += digits[byte & 15];
    }
    return mark;
}

/** Where the daemon's own user is at home: as its environment has it, else as the user database. */
std::string FindOwnHome()
{
    const char* home = getenv("HOME");
    return home != nullptr && *home != '\0' ? home : Accounts::Own().home;
}

/** A log that is removed again unless its command has been started. */
class NewLog
{
public:
    explicit NewLog(const std::string& name) : name_(name) {}
    NewLog(const NewLog&) = delete;
    NewLog& operator=(const NewLog&) = delete;
    ~NewLog()
    {
        if (!isKept_)
            unlink(name_.c_str());
    }
    void Keep() { isKept_ = true; }

private:
    const std::string& name_;
    bool isKept_ = false;
};

int ToExitCode(int waitStatus)
{
    return WIFSIGNALED(waitStatus) ? SignalledBase + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}
} // namespace

BaseProcess::~BaseProcess()
{
    ChildTable::Forget(child_);
}

int BaseProcess::Fail(std::string reason)
{
    lastError_ = std::move(reason);
    return 1;
}

int BaseProcess::StartBaseProcess(const QORUnicodeString& command, QORListPtrBaseSocket*, const int&,
                                  const int&)
{
    return Start(command, nullptr, nullptr);
}

int BaseProcess::StartBaseProcessUser(const QORUnicodeString& command, const QORUnicodeString& user,
                                      const QORUnicodeString& password, QORListPtrBaseSocket*, const int&)
{
    return StartAsUser(command, user, password, nullptr);
}

int BaseProcess::StartBaseProcessWithSocket(const QORUnicodeString& command, BaseSocket& socket,
                                            QORListPtrBaseSocket*, const int&, const int&, const int&)
{
    return Start(command, nullptr, &socket);
}

int BaseProcess::StartBaseProcessUserWithSocket(const QORUnicodeString& command, const QORUnicodeString& user,
                                                const QORUnicodeString& password, BaseSocket& socket,
                                                QORListPtrBaseSocket*, const int&, const int&)
{
    return StartAsUser(command, user, password, &socket);
}

/** As `account`, or as the process' own user when that is null; on the socket, or on the files. */
int BaseProcess::Start(const QORUnicodeString& command, const Account* account, const BaseSocket* socket)
{
    if (processId_ != 0)
        return Fail("Error command already started");
    if (command.View().size() > LongestCommand)
        return Fail("Error command line too long : " + std::to_string(command.View().size()) +
                    " bytes, at most " + std::to_string(LongestCommand));
    if (command.View().find('\0') != std::string_view::npos)
        return Fail("Error command line holds a NUL");
    if (socket != nullptr)
        return Launch(command, account, socket->GetBaseSocketNumber(), socket->GetBaseSocketNumber());

    const FileDescriptor input(open(inputFileName_.ConvertToChar(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    if (!input.IsOpen())
        return Fail("Error unable to open file...(" + std::string(inputFileName_.View()) +
                    ") : " + strerror(errno));
    const std::string log(outputFileName_.View());
    std::string reason;
    const FileDescriptor output(account == nullptr
                                    ? LogFile::Create(log, geteuid(), getegid(), reason)
                                    : LogFile::Create(log, account->userId, account->groupId, reason));
    if (!output.IsOpen())
        return Fail(reason);
    NewLog newLog(log);
    if (Launch(command, account, input.Number(), output.Number()) != 0)
        return 1;
    newLog.Keep();
    return 0;
}

int BaseProcess::Launch(const QORUnicodeString& command, const Account* account, int input, int output)
{
    const std::string mark = MakeMark();
    if (mark.empty())
        return Fail(std::string("Error unable to start command : ") + strerror(errno));
    const CommandEnvironment environment =
        account == nullptr ? CommandEnvironment(mark) : CommandEnvironment(mark, *account);
    const std::string home = account == nullptr ? FindOwnHome() : account->home;
    const char* const arguments[] = {"sh", "-c", command.ConvertToChar(), nullptr};
    // An ordinary user's process has the identity already, and no right to set it.
    ChildIdentity identity{};
    if (account != nullptr)
        identity = {account->userId, account->groupId, account->groups.data(), account->groups.size()};
    const bool takesIdentity = account != nullptr && geteuid() == 0;

    // All memory first: a command that runs must not be lost for want of it.
    std::string markOfTree = mark;
    ChildTable::Prepare();
    const pid_t processId = StartCommandChild(
        {arguments, environment.Entries(), input, output, home.c_str(), takesIdentity ? &identity : nullptr});
    if (processId < 0)
        return Fail(std::string("Error unable to start command : ") + strerror(errno));
    child_ = ChildTable::Enter(processId);
    processId_ = processId;
    userId_ = account == nullptr ? geteuid() : account->userId;
    tree_ = ProcessTree(child_, std::move(markOfTree));
    return 0;
}

void BaseProcess::NoteEnd(ChildState state, int waitStatus)
{
    ended_ = true;
    exitCode_ = state == ChildState::Ended ? ToExitCode(waitStatus) : UnseenEnd;
}

int BaseProcess::CheckForProcess(int& returnCode)
{
    if (processId_ != 0 && !ended_) {
        int waitStatus = 0;
        if (const long long end = ChildTable::TimeOfEnd(child_); end != 0)
            tree_.NoteRunning(end);
        const ChildState state = ChildTable::Ask(child_, waitStatus);
        if (state == ChildState::Running)
            return 0;
        NoteEnd(state, waitStatus);
    }
    returnCode = exitCode_;
    return 1;
}

int BaseProcess::WaitForProcess(int& returnCode, const int& timeoutSeconds)
{
    if (processId_ != 0 && !ended_) {
        int waitStatus = 0;
        const ChildState state =
            ChildTable::Wait(child_, waitStatus, static_cast<long long>(timeoutSeconds) * 1000);
        if (state == ChildState::Running)
            return 1;
        tree_.NoteRunning(Clock::SteadyMilliseconds());
        NoteEnd(state, waitStatus);
    }
    returnCode = exitCode_;
    return 0;
}

int BaseProcess::KillBaseProcess(const int& force)
{
    if (!ChildTable::IsRunning(child_))
        return 0;
    if (kill(processId_, force != 0 ? SIGKILL : SIGTERM) != 0)
        return Fail(std::string("Error unable to kill command : ") + strerror(errno));
    // A stopped command would not see the request before it goes on.
    kill(processId_, SIGCONT);
    return 0;
}

int BaseProcess::KillBaseProcessTree(const int& force)
{
    tree_.Signal(force != 0 ? SIGKILL : SIGTERM);
    return 0;
}

ProcessTree BaseProcess::TakeProcessTree()
{
    return std::move(tree_);
}

void BaseProcess::ResetBeforeDestruction()
{
    ChildTable::Forget(child_);
    child_ = ChildId();
    tree_ = ProcessTree();
    processId_ = 0;
    ended_ = false;
}

void BaseProcess::CleanZombiProcess()
{
    ChildTable::Reap();
}
