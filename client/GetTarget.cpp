#include "client/GetTarget.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/Output.h"

namespace
{
constexpr mode_t OwnerOnly = 0600;
constexpr mode_t UsualMode = 0666;
constexpr mode_t KeptModes = 0777;
constexpr std::string_view PartEnding = ".ruvelpart";
/** Room for lead and ending in what a file system takes for a name. */
constexpr std::size_t LongestName = NAME_MAX - 16;

bool IsFolder(const std::string& path)
{
    struct stat facts = {};
    return stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

/** "1700000000.25", with up to nine decimals. */
timespec ReadTime(const std::string& text)
{
    const std::size_t point = text.find('.');
    std::string decimals = point == std::string::npos ? "" : text.substr(point + 1, 9);
    decimals.resize(9, '0');
    return {std::strtoll(text.c_str(), nullptr, 10), std::strtol(decimals.c_str(), nullptr, 10)};
}
} // namespace

std::string PartPathOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
    std::string name = path.substr(begin);
    if (name.size() > LongestName) {
        CheckSum sum;
        sum.Update(name.data(), static_cast<unsigned>(name.size()));
        name = std::to_string(sum.GetValue());
    }
    return path.substr(0, begin).append(".").append(name).append(PartEnding);
}

GetTarget::~GetTarget()
{
    struct stat facts = {};
    if (!emptyPath_.empty() && fstat(file_.Number(), &facts) == 0 && facts.st_size == 0)
        unlink(emptyPath_.c_str());
}

Failure GetTarget::OpenStandardOutput()
{
    isStandardOutput_ = true;
    path_ = "-";
    file_ = FileDescriptor(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return file_.IsOpen() ? Failure{} : SystemFailure("standard output cannot be written", errno);
}

Failure GetTarget::OpenFile(const std::string& target, const std::string& baseName, bool isInPlace)
{
    if (Failure failure = FindPath(target, baseName))
        return failure;
    struct stat facts = {};
    const bool isThere = stat(path_.c_str(), &facts) == 0;
    // A device or a pipe is written to and never replaced.
    const bool isSpecial = isThere && !S_ISREG(facts.st_mode);
    if (!isSpecial && !isInPlace)
        return OpenPart();
    file_ = FileDescriptor(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, UsualMode));
    if (!file_.IsOpen())
        return SystemFailure(path_ + " cannot be written", errno);
    isRegular_ = !isSpecial;
    emptyPath_ = isThere ? "" : path_;
    return isRegular_ ? TakeWhatIsThere() : Failure{};
}

/** Follows links, so that it is the file they lead to that is replaced. */
Failure GetTarget::FindPath(const std::string& target, const std::string& baseName)
{
    path_ = target;
    if (IsFolder(path_))
        path_ += (path_.ends_with('/') ? "" : "/") + baseName;
    if (IsFolder(path_))
        return {path_ + " is a folder"};
    if (path_.ends_with('/'))
        return {"there is no folder " + path_};
    struct stat facts = {};
    if (lstat(path_.c_str(), &facts) != 0 || !S_ISLNK(facts.st_mode))
        return {};
    const std::unique_ptr<char, decltype(&free)> real(realpath(path_.c_str(), nullptr), &free);
    if (real == nullptr)
        return SystemFailure(path_ + " is a link that leads nowhere", errno);
    path_ = real.get();
    return {};
}

/** The part must be ours alone: whoever else can write in the folder may have put something of that name
 * there. */
Failure GetTarget::OpenPart()
{
    partPath_ = PartPathOf(path_);
    file_ = FileDescriptor(
        open(partPath_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, OwnerOnly));
    struct stat facts = {};
    if (!file_.IsOpen() || fstat(file_.Number(), &facts) != 0)
        return SystemFailure(partPath_ + " cannot be written (--in-place does without)", errno);
    if (!S_ISREG(facts.st_mode) || facts.st_uid != geteuid() || facts.st_nlink != 1)
        return {partPath_ + " does not belong to this transfer: remove it"};
    if (flock(file_.Number(), LOCK_EX | LOCK_NB) != 0)
        return {path_ + " is being written by another transfer: wait for its end"};
    struct stat named = {};
    if (lstat(partPath_.c_str(), &named) != 0 || named.st_ino != facts.st_ino || named.st_dev != facts.st_dev)
        return {path_ + " has just been written by another transfer: try again"};
    emptyPath_ = partPath_;
    if (fchmod(file_.Number(), OwnerOnly) != 0)
        return SystemFailure(partPath_ + " cannot be closed to others", errno);
    isRegular_ = true;
    return TakeWhatIsThere();
}

Failure GetTarget::TakeWhatIsThere()
{
    const off_t size = lseek(file_.Number(), 0, SEEK_END);
    if (size < 0)
        return SystemFailure("what is there cannot be measured", errno);
    if (const int error = sums_.AddBeginning(file_.Number(), size))
        return SystemFailure("what is there cannot be read", error);
    return {};
}

Failure GetTarget::Write(std::string_view bytes)
{
    sums_.Add(bytes);
    if (const int error = WriteAll(file_.Number(), bytes))
        return SystemFailure(
            (isStandardOutput_ ? std::string("standard output") : path_) + " cannot be written", error);
    return {};
}

Failure GetTarget::StartOver()
{
    if (sums_.Facts().size == 0)
        return {};
    if (!isRegular_)
        return {"what was written does not agree with the file: it has changed meanwhile, get it again"};
    sums_ = FileSums();
    if (ftruncate(file_.Number(), 0) != 0 || lseek(file_.Number(), 0, SEEK_SET) < 0)
        return SystemFailure("what is there cannot be thrown away", errno);
    return {};
}

Failure GetTarget::Finish(const std::string& mode, const std::string& modified)
{
    if (!isRegular_)
        return {};
    if (!mode.empty() &&
        fchmod(file_.Number(), static_cast<mode_t>(std::strtoul(mode.c_str(), nullptr, 8)) & KeptModes) != 0)
        return SystemFailure("the mode cannot be set", errno);
    const timespec times[] = {{0, UTIME_OMIT},
                              modified.empty() ? timespec{0, UTIME_OMIT} : ReadTime(modified)};
    if (futimens(file_.Number(), times) != 0)
        return SystemFailure("the time cannot be set", errno);
    if (partPath_.empty()) {
        emptyPath_.clear();
        return {};
    }
    // What is on the disk must not be a name without its bytes after a loss of power.
    if (fdatasync(file_.Number()) != 0)
        return SystemFailure(partPath_ + " cannot be kept", errno);
    if (rename(partPath_.c_str(), path_.c_str()) != 0)
        return SystemFailure(path_ + " cannot be replaced", errno);
    emptyPath_.clear();
    return {};
}
