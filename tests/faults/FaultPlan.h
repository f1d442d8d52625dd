#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string_view>

#include <netdb.h>
#include <security/_pam_types.h>
#include <sys/types.h>

/**
 * What a test and the library that is loaded into its daemon share, in a file that both have mapped: which
 * calls are counted, and which one is to fail.
 */
namespace faults
{
/** A call, by the name of its symbol, and the errors that it is made to fail with, most likely first. */
struct Kind {
    std::string_view name;
    std::array<int, 3> errors;
};

/**
 * What the daemon calls and what can fail. Left out is what fails only when it is called wrongly (such as
 * sigprocmask or umask), what is called in the hope that it fails (setuid and seteuid, which prove that there
 * is no way back to root), and removing a segment, a semaphore or what epoll watches, which fails only when
 * it is not there.
 */
inline constexpr Kind Kinds[] = {
    {"accept4", {EMFILE, ENOBUFS, ECONNABORTED}},
    {"bind", {EADDRINUSE, EACCES, EADDRNOTAVAIL}},
    {"chdir", {EACCES, ENOENT, EIO}},
    {"clone", {EAGAIN, ENOMEM, ENOSYS}},
    {"close", {EIO, EINTR, ENOSPC}},
    {"close_range", {ENOSYS, ENOMEM, EMFILE}},
    {"connect", {ECONNREFUSED, EADDRNOTAVAIL, ENETUNREACH}},
    {"dup2", {EMFILE, EINTR, EBUSY}},
    {"epoll_create1", {EMFILE, ENFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC, EPERM}},
    {"execve", {ENOMEM, EACCES, ENOENT}},
    {"faccessat", {EACCES, ENOENT, EIO}},
    {"fchown", {EPERM, EIO, EDQUOT}},
    {"fcntl64", {EINVAL, EPERM, ENOLCK}},
    {"fork", {EAGAIN, ENOMEM, ENOSYS}},
    {"fstat64", {EIO, ENOMEM, EOVERFLOW}},
    {"fstatfs64", {EIO, ENOSYS, EINTR}},
    {"getaddrinfo", {EAI_AGAIN, EAI_MEMORY, EAI_NONAME}},
    {"getgroups", {EINVAL, EPERM, ENOMEM}},
    {"getifaddrs", {ENOMEM, EMFILE, EACCES}},
    {"getnameinfo", {EAI_AGAIN, EAI_NONAME, EAI_MEMORY}},
    {"getpeername", {ENOTCONN, ENOBUFS, EINVAL}},
    {"getpwnam_r", {EMFILE, EIO, ENOMEM}},
    {"getpwuid_r", {EMFILE, EIO, ENOMEM}},
    {"getrandom", {EAGAIN, ENOSYS, EINTR}},
    {"getrlimit64", {EPERM, EINVAL, ENOSYS}},
    {"getsockname", {ENOBUFS, ENOTCONN, EINVAL}},
    {"getsockopt", {ENOMEM, EINVAL, ENOPROTOOPT}},
    {"kill", {EPERM, ESRCH, EINVAL}},
    {"listen", {EADDRINUSE, EOPNOTSUPP, ENOBUFS}},
    {"lseek64", {ESPIPE, EIO, EOVERFLOW}},
    {"lstat64", {EIO, ENOENT, EACCES}},
    {"mmap64", {ENOMEM, EACCES, EAGAIN}},
    {"open64", {EMFILE, EACCES, EIO}},
    {"opendir", {EMFILE, ENOENT, EACCES}},
    {"operator new", {ENOMEM, ENOMEM, ENOMEM}},
    {"pam_acct_mgmt", {PAM_SYSTEM_ERR, PAM_BUF_ERR, PAM_ACCT_EXPIRED}},
    {"pam_authenticate", {PAM_AUTHINFO_UNAVAIL, PAM_ABORT, PAM_MAXTRIES}},
    {"pam_set_item", {PAM_BUF_ERR, PAM_SYSTEM_ERR, PAM_BAD_ITEM}},
    {"pam_start", {PAM_BUF_ERR, PAM_SYSTEM_ERR, PAM_ABORT}},
    {"pipe2", {EMFILE, ENFILE, ENOMEM}},
    {"poll", {ENOMEM, EINTR, EINVAL}},
    {"prctl", {EINVAL, EPERM, ENOSYS}},
    {"pread64", {EIO, EINTR, EISDIR}},
    {"pthread_create", {EAGAIN, EPERM, ENOMEM}},
    {"putenv", {ENOMEM, EINVAL, ENOMEM}},
    {"read", {EIO, EINTR, EISDIR}},
    {"readlink", {EACCES, ENOMEM, EIO}},
    {"recv", {ECONNRESET, ENOMEM, EINTR}},
    {"remove", {EIO, EROFS, EACCES}},
    {"semctl", {EINVAL, EPERM, EIDRM}},
    {"semget", {ENOSPC, ENOMEM, EACCES}},
    {"semtimedop", {EAGAIN, EIDRM, ENOMEM}},
    {"send", {ENOBUFS, EPIPE, EINTR}},
    {"setgroups", {EPERM, ENOMEM, EINVAL}},
    {"setmntent", {ENOENT, EMFILE, EACCES}},
    {"setpgid", {EPERM, EACCES, ESRCH}},
    {"setresgid", {EPERM, EINVAL, EAGAIN}},
    {"setresuid", {EAGAIN, EPERM, EINVAL}},
    {"setrlimit64", {EPERM, EINVAL, ENOSYS}},
    {"setsid", {EPERM, ENOMEM, ENOSYS}},
    {"setsockopt", {ENOBUFS, EINVAL, ENOPROTOOPT}},
    {"shmat", {ENOMEM, EMFILE, EACCES}},
    {"shmctl", {ENOMEM, EPERM, EOVERFLOW}},
    {"shmget", {ENOSPC, ENOMEM, ENFILE}},
    {"shutdown", {ENOTCONN, ENOBUFS, EINVAL}},
    {"signalfd", {EMFILE, ENFILE, ENOMEM}},
    {"socket", {EMFILE, ENOBUFS, EACCES}},
    {"stat64", {EACCES, EIO, ENOMEM}},
    {"statvfs64", {EIO, EACCES, ENOSYS}},
    {"syscall", {EMFILE, ENOSYS, EPERM}}, // pidfd_open, keyctl
    {"unlink", {EIO, EROFS, EACCES}},
    {"waitpid", {EINTR, ECHILD, EINVAL}},
    {"write", {ENOSPC, EIO, EINTR}},
    {"writev", {ENOSPC, EIO, EINTR}},
};
inline constexpr std::size_t KindCount = std::size(Kinds);

/** Where a call of this name stands in the table; what has no row does not compile. */
consteval std::size_t IndexOf(std::string_view name)
{
    for (std::size_t i = 0; i < KindCount; ++i)
        if (Kinds[i].name == name)
            return i;
    throw "a kind that is not in the table";
}

/** Child: workers, and what is to become a command up to its execution. */
enum class Place { Daemon, Child };
inline constexpr std::size_t PlaceCount = 2;

struct Plan {
    /** The library does nothing until this is set. */
    std::atomic<bool> isArmed;
    std::atomic<pid_t> daemon;
    /** Calls since the counts were last set to 0. */
    std::atomic<long> counts[PlaceCount][KindCount];

    // The call that fails: the number-th, from 1, of its kind at its place; none when the number is 0.
    std::atomic<Place> place;
    std::atomic<std::size_t> kind;
    std::atomic<long> number;
    std::atomic<int> error;
    std::atomic<bool> hasFailed;

    /** Reads and writes take a part of what they are given, and what can be interrupted is. */
    std::atomic<bool> isStuttering;
    /** Added to the wall clock, seconds. */
    std::atomic<long> wallClockShift;
};
static_assert(std::atomic<long>::is_always_lock_free && std::atomic<Place>::is_always_lock_free);

/** The environment entry that tells the library the plan's file. */
inline constexpr const char* PlanVariable = "RUVEL_FAULT_PLAN";
} // namespace faults
