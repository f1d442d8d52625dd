#include "reports/FileSystemEntry.h"

namespace
{
std::optional<std::string> Copy(const char* text)
{
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

/** A host in the name, or the way that one file-sharing protocol writes its own. */
bool NamesRemoteHost(const std::string& devicePath, const std::string& type)
{
    return devicePath.find(':') != std::string::npos || (devicePath.starts_with("//") && type == "smbfs");
}
} // namespace

FileSystemEntry::FileSystemEntry(const mntent* entry)
{
    if (entry == nullptr)
        return;
    devicePath_ = Copy(entry->mnt_fsname);
    mountDirectory_ = Copy(entry->mnt_dir);
    type_ = Copy(entry->mnt_type);
    ignored_ = (entry->mnt_opts != nullptr && hasmntopt(entry, "ignore") != nullptr) || type_ == "autofs" ||
               type_ == "ignore";
    remote_ = NamesRemoteHost(devicePath_.value_or(""), type_.value_or(""));
}

const char* FileSystemEntry::GetDevicePathNameForStat() const
{
    return mountDirectory_ ? GetMountDirectory() : GetDevicePathName();
}

int FileSystemEntry::ComputeStat()
{
    InitOrResetStat();
    const char* path = GetDevicePathNameForStat();
    struct statvfs status;
    if (path == nullptr || statvfs(path, &status) != 0)
        return -1;
    counts_ = CountBlocks(status);
    return 0;
}

BlockCounts FileSystemEntry::CountBlocks(const struct statvfs& status)
{
    BlockCounts counts;
    counts.blockSize = static_cast<unsigned int>(status.f_frsize);
    counts.total = status.f_blocks;
    if (counts.total == ReportFields::Unknown)
        return counts;
    counts.available = status.f_bavail;
    counts.free = status.f_bfree;
    if (counts.free != ReportFields::Unknown && counts.free <= counts.total)
        counts.used = counts.total - counts.free;
    return counts;
}
