#include "support/LogFile.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr mode_t OnlyForItsUser = 0600;
// A link is not followed; a pipe without another end and a terminal open at once and do no harm.
constexpr int Guarded = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

int Fail(const char* reason, const std::string& name, std::string& error)
{
    error = "Error unable to open log file...(" + name + ") : " + reason;
    return -1;
}

/** Null when the file is what a log must be, else what it is instead. */
const char* FindFault(const struct stat& status, uid_t owner)
{
    if (!S_ISREG(status.st_mode))
        return "Not a regular file";
    if (status.st_nlink != 1) // 0: it has been replaced since
        return "File has another name";
    if (status.st_uid != owner)
        return "File of another user";
    return nullptr;
}

const char* FindFault(int descriptor, uid_t owner, struct stat& status)
{
    return fstat(descriptor, &status) == 0 ? FindFault(status, owner) : strerror(errno);
}

/**
 * Opens a file that did not exist before: whoever may have made or moved one there could hold it open, and
 * read on when it is given to somebody else. One that is as a log must be makes room for the new one.
 */
int OpenNew(const std::string& name)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_APPEND | Guarded;
    const int descriptor = open(name.c_str(), flags, OnlyForItsUser);
    if (descriptor >= 0 || errno != EEXIST)
        return descriptor;
    struct stat status = {};
    if (lstat(name.c_str(), &status) != 0 || FindFault(status, geteuid()) != nullptr ||
        unlink(name.c_str()) != 0) {
        errno = EEXIST;
        return -1;
    }
    return open(name.c_str(), flags, OnlyForItsUser);
}

/** 0 when the new file is what it must be and has become the user's; else nonzero and the reason. */
int HandOver(int descriptor, uid_t userId, gid_t groupId, const char*& reason)
{
    struct stat status = {};
    reason = FindFault(descriptor, geteuid(), status);
    if (reason != nullptr)
        return 1;
    const bool isTheirs = status.st_uid == userId && status.st_gid == groupId;
    // The command shares the description and would find its streams not blocking, so that goes; O_APPEND
    // stays, because standard output and standard error share it too.
    if ((isTheirs || fchown(descriptor, userId, groupId) == 0) && fcntl(descriptor, F_SETFL, O_APPEND) == 0)
        return 0;
    reason = strerror(errno);
    return 1;
}
} // namespace

namespace LogFile
{
int Create(const std::string& name, uid_t userId, gid_t groupId, std::string& error)
{
    if (name.find('\0') != std::string::npos)
        return Fail(strerror(EINVAL), name, error);
    const int descriptor = OpenNew(name);
    if (descriptor < 0)
        return Fail(strerror(errno), name, error);
    const char* reason = nullptr;
    if (HandOver(descriptor, userId, groupId, reason) == 0)
        return descriptor;
    unlink(name.c_str());
    close(descriptor);
    return Fail(reason, name, error);
}

int OpenForReading(const std::string& name, uid_t userId, std::string& error)
{
    if (name.find('\0') != std::string::npos)
        return Fail(strerror(EINVAL), name, error);
    const int descriptor = open(name.c_str(), O_RDONLY | Guarded);
    if (descriptor < 0)
        return Fail(strerror(errno), name, error);
    struct stat status = {};
    if (const char* reason = FindFault(descriptor, userId, status)) {
        close(descriptor);
        return Fail(reason, name, error);
    }
    return descriptor;
}
} // namespace LogFile
