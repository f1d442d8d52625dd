#pragma once

#include <optional>
#include <string>

#include "reports/ReportFields.h"

#include <mntent.h>
#include <sys/statvfs.h>

/** Counters of one file system, in blocks of `blockSize` bytes; all ones in a member: unknown. */
struct BlockCounts {
    static constexpr unsigned int UnknownBlockSize = ~0U;

    unsigned long long total = ReportFields::Unknown;
    unsigned long long free = ReportFields::Unknown;
    unsigned long long available = ReportFields::Unknown; // free for unprivileged users
    unsigned long long used = ReportFields::Unknown;
    unsigned int blockSize = UnknownBlockSize;
};

/**
 * One mounted file system: what the mount table says of it, and how full it was when last asked.
 * A FileSystem owns it. A record or a text that is missing gives null names.
 */
class FileSystemEntry
{
public:
    explicit FileSystemEntry(const mntent* entry);

    /** Forgets the counters. */
    void InitOrResetStat() { counts_ = BlockCounts(); }
    /** The device, or host:path of a network mount. */
    const char* GetDevicePathName() const { return Text(devicePath_); }
    /** The path that stands for it on this machine: its mount directory, else its device. */
    const char* GetDevicePathNameForStat() const;
    const char* GetMountDirectory() const { return Text(mountDirectory_); }
    const char* GetType() const { return Text(type_); }
    /** Not meant for listings: mounted with the option "ignore", or an automounter's own. */
    bool IsIgnored() const { return ignored_; }
    bool IsRemote() const { return remote_; }
    const BlockCounts& GetBlockCounts() const { return counts_; }

    /** Asks the system for the counters: 0, or -1 (and they are unknown). A hung mount holds it up. */
    int ComputeStat();
    static BlockCounts CountBlocks(const struct statvfs& status);

private:
    static const char* Text(const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; }

    std::optional<std::string> devicePath_;
    std::optional<std::string> mountDirectory_;
    std::optional<std::string> type_;
    bool ignored_ = true;
    bool remote_ = true;
    BlockCounts counts_;
};
