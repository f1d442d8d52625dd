// Only what runs between a command's fork and its exec, possibly in memory that is still the parent's:
// async-signal-safe calls, no allocation, no change to anything but this process' own attributes.

#include "support/CommandChild.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "support/ChildStart.h"
#include "support/ProcessSetup.h"

namespace
{
constexpr const char* Shell = "/bin/sh";
constexpr int CannotRun = 126; // as a shell has it: the program is there, but cannot be run
constexpr int NotFound = 127;

iovec Piece(const char* text)
{
    return iovec{const_cast<char*>(text), strlen(text)};
}

[[noreturn]] void GiveUp(const char* what, int error, int errorStream = STDERR_FILENO)
{
    const char* reason = strerrordesc_np(error); // strerror() may allocate
    const iovec line[] = {Piece("Error unable to start command, "), Piece(what), Piece(" : "),
                          Piece(reason == nullptr ? "unknown error" : reason), Piece("\n")};
    [[maybe_unused]] const ssize_t written = writev(errorStream, line, sizeof line / sizeof *line);
    _exit(error == ENOENT ? NotFound : CannotRun);
}

void TakeStandardDescriptors(const CommandChild& child)
{
    if (dup2(child.outputAndError, STDERR_FILENO) < 0)
        GiveUp("standard streams", errno, child.outputAndError);
    if (dup2(child.outputAndError, STDOUT_FILENO) < 0 || dup2(child.input, STDIN_FILENO) < 0)
        GiveUp("standard streams", errno);
}

void TakeIdentity(const ChildIdentity& identity)
{
    ProcessSetup::LeaveKeyring();
    // Groups first: once the user id is gone, so is the right to change them.
    if (setgroups(identity.groupCount, identity.groups) != 0)
        GiveUp("supplementary groups", errno);
    if (setresgid(identity.groupId, identity.groupId, identity.groupId) != 0)
        GiveUp("group id", errno);
    if (setresuid(identity.userId, identity.userId, identity.userId) != 0)
        GiveUp("user id", errno);
    // The calls have said so, but what runs next is a stranger's: root must not be a way back.
    if (identity.userId != 0 && (setuid(0) == 0 || seteuid(0) == 0))
        GiveUp("user id", EPERM);
}

[[noreturn]] void RunCommandChild(void* pointer)
{
    const CommandChild& child = *static_cast<const CommandChild*>(pointer);
    // A session of its own, without a controlling terminal: the parent's terminal signals nobody here.
    setsid();
    // Streams first, so that what fails from here on can be told.
    TakeStandardDescriptors(child);
    ProcessSetup::CloseAllDescriptorsBut(-1);
    // While still the parent's user, who may do all of this.
    ProcessSetup::RestoreInChild(true);
    umask(022);
    if (child.identity != nullptr)
        TakeIdentity(*child.identity);
    // As the user, who may not be allowed where the parent is.
    if (chdir(child.home) != 0 && chdir("/") != 0)
        GiveUp("home directory", errno);
    execve(Shell, const_cast<char* const*>(child.arguments), const_cast<char* const*>(child.environment));
    GiveUp(Shell, errno);
}

bool KeepsUserId(const CommandChild& child)
{
    return child.identity == nullptr || child.identity->userId == getuid();
}
} // namespace

pid_t StartCommandChild(const CommandChild& child)
{
    // Everything waits until the child has its own dispositions (or the parent its own memory again).
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    // Never borrowed for another user: between the child's change of user id and its exec that user may
    // already stop it, and the parent sleeps until the exec.
    const auto memory = KeepsUserId(child) ? ChildStart::Memory::Borrowed : ChildStart::Memory::Copied;
    const ChildStart::Handover handover(memory, child.input, child.outputAndError);
    CommandChild handed = child;
    handed.input = handover.First();
    handed.outputAndError = handover.Second();
    const pid_t processId = handover.Start(RunCommandChild, &handed);
    const int error = errno;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return processId;
}
