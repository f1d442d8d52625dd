#include "support/ProcessSetup.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <linux/keyctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/ChildStart.h"

namespace
{
constexpr const char* OomScoreFile = "/proc/self/oom_score_adj";

// What children get back. Plain data: read by a child that shares its parent's memory.
bool isSupervisor = false;
bool limitChanged = false;
rlimit oldLimit{};
bool oomScoreLowered = false;

/** A process started with a standard descriptor closed would have its first socket take that number, and
 * write its trace into it. */
int OpenStandardDescriptors()
{
    for (;;) {
        const int descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (descriptor < 0)
            return -1;
        if (descriptor > STDERR_FILENO) {
            close(descriptor);
            return 0;
        }
        fcntl(descriptor, F_SETFD, 0);
    }
}

bool IsIgnored(int signal)
{
    struct sigaction current = {};
    return sigaction(signal, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
           current.sa_handler == SIG_IGN;
}

/** Only an ignored signal can come through an exec; handlers cannot, and this system installs none. */
void StopIgnoring(int signal)
{
    if (!IsIgnored(signal))
        return;
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    sigaction(signal, &byDefault, nullptr);
}

void RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    oldLimit = limit;
    limit.rlim_cur = limit.rlim_max;
    limitChanged = setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void NoteOomScore()
{
    const int descriptor = open(OomScoreFile, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    char first = '\0';
    oomScoreLowered = read(descriptor, &first, 1) == 1 && first == '-';
    close(descriptor);
}
} // namespace

namespace ProcessSetup
{
int BecomeSupervisor()
{
    if (OpenStandardDescriptors() != 0 || prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0)
        return -1;
    ChildStart::Prepare();
    const bool hangUpIgnored = IsIgnored(SIGHUP);
    for (int signal = 1; signal < NSIG; ++signal)
        if (signal != SIGHUP)
            StopIgnoring(signal);
    // A command that stops and continues itself all day must not wake its supervisor each time.
    struct sigaction onlyEnds = {};
    onlyEnds.sa_handler = SIG_DFL;
    onlyEnds.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &onlyEnds, nullptr);

    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGCHLD);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGINT);
    if (!hangUpIgnored)
        sigaddset(&awaited, SIGHUP);
    sigset_t blocked = awaited;
    sigaddset(&blocked, SIGPIPE);
    if (sigprocmask(SIG_SETMASK, &blocked, nullptr) != 0)
        return -1;

    isSupervisor = true;
    RaiseDescriptorLimit();
    NoteOomScore();
    umask(022);
    return signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK);
}

void KeepMemoryPrivate()
{
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void RestoreInChild(bool forCommand)
{
    // A supervisor ignores nothing but, perhaps, this one: sixty calls saved for each child.
    for (int signal = isSupervisor ? SIGHUP : 1; signal < (isSupervisor ? SIGHUP + 1 : NSIG); ++signal)
        StopIgnoring(signal);
    if (forCommand && limitChanged)
        setrlimit(RLIMIT_NOFILE, &oldLimit);
    if (forCommand && oomScoreLowered) {
        const int descriptor = open(OomScoreFile, O_WRONLY | O_CLOEXEC);
        if (descriptor >= 0) {
            // Best effort: a kernel that refuses leaves the command as well protected as its supervisor.
            [[maybe_unused]] const ssize_t written = write(descriptor, "0", 1);
            close(descriptor);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void LeaveKeyring()
{
    syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr);
}

int CloseAllDescriptorsBut(int kept)
{
    constexpr unsigned int first = STDERR_FILENO + 1;
    if (kept < static_cast<int>(first))
        return close_range(first, ~0U, 0);
    const auto keptDescriptor = static_cast<unsigned int>(kept);
    if (keptDescriptor > first && close_range(first, keptDescriptor - 1, 0) != 0)
        return -1;
    return close_range(keptDescriptor + 1, ~0U, 0);
}

bool ClosesAllAtOnce()
{
    // Nobody has the last number there is.
    static const bool answer = close_range(~0U, ~0U, 0) == 0;
    return answer;
}
} // namespace ProcessSetup
