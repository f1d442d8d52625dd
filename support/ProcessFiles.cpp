#include "support/ProcessFiles.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/FileDescriptor.h"

namespace
{
constexpr std::size_t LongestStatus = 1024;
constexpr std::size_t FirstBlock = 4096;
constexpr std::size_t LongestChildrenList = 4194304; // ids, as text: more than a machine has processes
// Far more than an ordinary environment; a hostile one is not read to its end.
constexpr std::size_t LongestEnvironment = 262144;

/** At most `limit` bytes. False when an error came before the end. */
bool ReadAll(const FileDescriptor& file, std::size_t limit, std::string& content)
{
    std::size_t length = 0;
    bool isWhole = true;
    for (;;) {
        content.resize(std::min(limit, std::max(FirstBlock, length * 2)));
        const ssize_t count = read(file.Number(), content.data() + length, content.size() - length);
        isWhole = count >= 0 || errno == EINTR;
        if (count == 0 || !isWhole)
            break;
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    content.resize(length);
    return isWhole;
}

FileDescriptor OpenFile(const std::string& name)
{
    return FileDescriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
}

/** Empty when it cannot be read. */
std::string ReadFile(const std::string& name, std::size_t limit)
{
    const FileDescriptor file = OpenFile(name);
    std::string content;
    if (file.IsOpen())
        ReadAll(file, limit, content);
    return content;
}

std::string FolderOf(pid_t processId)
{
    return "/proc/" + std::to_string(processId);
}

std::string FolderOf(pid_t processId, pid_t thread)
{
    return FolderOf(processId) + "/task/" + std::to_string(thread);
}

/** The names in a folder that are ids. */
std::vector<pid_t> ListIds(const std::string& folder)
{
    std::vector<pid_t> ids;
    DIR* const directory = opendir(folder.c_str());
    if (directory == nullptr)
        return ids;
    while (const dirent* entry = readdir(directory)) {
        const std::string_view name = entry->d_name;
        pid_t id = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), id).ec == std::errc())
            ids.push_back(id);
    }
    closedir(directory);
    return ids;
}

std::vector<pid_t> ListThreads(pid_t processId)
{
    const std::string folder = FolderOf(processId) + "/task";
    struct stat status = {};
    // The folder's links count its sub-folders and two more. Most processes have one thread, whose id is
    // their own: that spares reading the folder.
    if (stat(folder.c_str(), &status) == 0 && status.st_nlink == 3)
        return {processId};
    return ListIds(folder);
}

/** One read usually gets all of it. Empty when it is not to be had as a whole. */
std::string ReadStatusLine(const std::string& folder)
{
    const FileDescriptor file = OpenFile(folder + "/stat");
    char line[LongestStatus];
    std::size_t length = 0;
    while (file.IsOpen() && (length == 0 || line[length - 1] != '\n')) {
        const ssize_t count = read(file.Number(), line + length, sizeof line - length);
        if (count == 0 || (count < 0 && errno != EINTR))
            return {};
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return {line, length};
}

bool ParseStatus(const std::string& line, ProcessStatus& status)
{
    // The second field is the program's name in parentheses, which may hold blanks and parentheses too.
    const std::size_t nameEnd = line.rfind(')');
    if (nameEnd == std::string::npos)
        return false;
    constexpr const char* fields = ") %c %d %*d %d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %d "
                                   "%*d %llu";
    return sscanf(line.c_str() + nameEnd, fields, &status.state, &status.parent, &status.session,
                  &status.threads, &status.startTime) == 5;
}

/** Alive, and with a memory that holds no environment yet. */
bool IsBetweenPrograms(pid_t processId)
{
    constexpr int environmentEnd = 51; // the field's number
    const std::string line = ReadStatusLine(FolderOf(processId));
    ProcessStatus status;
    if (!ParseStatus(line, status) || status.HasEnded())
        return false;
    std::size_t position = line.rfind(')') + 1; // in front of the third field
    for (int field = 3; field < environmentEnd && position != std::string::npos; ++field)
        position = line.find(' ', position + 1);
    return position != std::string::npos && line.compare(position, 3, " 0 ") == 0;
}

bool ReadEnvironmentFile(pid_t processId, std::string& content)
{
    content.clear();
    const FileDescriptor file = OpenFile(FolderOf(processId) + "/environ");
    return file.IsOpen() && ReadAll(file, LongestEnvironment, content);
}
} // namespace

namespace ProcessFiles
{
unsigned long long ToTicks(long long milliseconds)
{
    static const long long ticksPerSecond = sysconf(_SC_CLK_TCK);
    return static_cast<unsigned long long>(milliseconds * ticksPerSecond / 1000);
}

bool ReadStatus(pid_t processId, ProcessStatus& status)
{
    return ParseStatus(ReadStatusLine(FolderOf(processId)), status);
}

bool IsStill(pid_t processId)
{
    ProcessStatus status;
    if (!ReadStatus(processId, status))
        return true;
    if (status.threads <= 1)
        return status.IsStill();
    const std::vector<pid_t> threads = ListIds(FolderOf(processId) + "/task");
    return std::all_of(threads.begin(), threads.end(), [&](pid_t thread) {
        return !ParseStatus(ReadStatusLine(FolderOf(processId, thread)), status) || status.IsStill();
    });
}

Reading ReadEnvironment(pid_t processId, std::string& entries)
{
    bool isWhole = ReadEnvironmentFile(processId, entries);
    if (isWhole && entries.empty()) {
        if (IsBetweenPrograms(processId))
            return Reading::NotYet;
        // It may have been, and the new program have its environment by now.
        isWhole = ReadEnvironmentFile(processId, entries);
    }
    // Every entry ends with a NUL; a NUL in front of the first makes all of them look alike.
    entries.insert(0, 1, '\0');
    return isWhole ? Reading::Whole : Reading::Partial;
}
} // namespace ProcessFiles

ChildrenReader::ChildrenReader(Source source)
    : byList_(source == Source::Automatic &&
              access((FolderOf(getpid(), getpid()) + "/children").c_str(), R_OK) == 0)
{
}

std::vector<pid_t> ChildrenReader::ListChildren(pid_t parent)
{
    std::vector<pid_t> children;
    if (byList_) {
        // Each thread has the children that it made itself.
        for (const pid_t thread : ListThreads(parent)) {
            const std::string list = ReadFile(FolderOf(parent, thread) + "/children", LongestChildrenList);
            const char* next = list.data();
            const char* const end = next + list.size();
            for (pid_t id = 0; next < end; ++next) { // ids, a blank behind each
                const auto [stop, error] = std::from_chars(next, end, id);
                if (error != std::errc())
                    break;
                children.push_back(id);
                next = stop;
            }
        }
        return children;
    }
    if (!allRead_)
        ReadAllProcesses();
    const auto first = std::lower_bound(parentAndChild_.begin(), parentAndChild_.end(), std::pair(parent, 0));
    for (auto entry = first; entry != parentAndChild_.end() && entry->first == parent; ++entry)
        children.push_back(entry->second);
    return children;
}

void ChildrenReader::ReadAllProcesses()
{
    allRead_ = true;
    ProcessStatus status;
    for (const pid_t processId : ListIds("/proc"))
        if (ProcessFiles::ReadStatus(processId, status))
            parentAndChild_.emplace_back(status.parent, processId);
    std::sort(parentAndChild_.begin(), parentAndChild_.end());
}
