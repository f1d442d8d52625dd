#pragma once

#include <string>
#include <string_view>

#include "client/Failure.h"
#include "client/FileSums.h"
#include "support/FileDescriptor.h"

/**
 * Where a get writes: standard output, the target itself, or a part beside the target, which takes its place
 * once it is whole. The part's name is fixed for a target, so that a later get goes on with it; only one get
 * at a time writes to it.
 */
class GetTarget
{
public:
    GetTarget() = default;
    GetTarget(const GetTarget&) = delete;
    GetTarget& operator=(const GetTarget&) = delete;
    /** Leaves no file behind that was made, or only opened, for nothing. */
    ~GetTarget();

    /** Standard output, of which nothing can be taken back. */
    Failure OpenStandardOutput();
    /** The file of that name, or `baseName` in the folder of that name. What an earlier get has left is kept.
     */
    Failure OpenFile(const std::string& target, const std::string& baseName, bool isInPlace);

    const std::string& Path() const { return path_; }
    /** Of what is there so far. */
    FileFacts Facts() const { return sums_.Facts(); }

    Failure Write(std::string_view bytes);
    /** Throws away what is there; a failure when it has gone to standard output. */
    Failure StartOver();
    /** Sets mode (octal) and time (seconds since the epoch) where given, and lets the part take its place. */
    Failure Finish(const std::string& mode, const std::string& modified);

private:
    Failure FindPath(const std::string& target, const std::string& baseName);
    Failure OpenPart();
    Failure TakeWhatIsThere();

    FileDescriptor file_;
    bool isStandardOutput_ = false;
    bool isRegular_ = false;
    std::string path_;
    /** Empty when there is none. */
    std::string partPath_;
    /** To be removed if nothing gets written; empty when there is none. */
    std::string emptyPath_;
    FileSums sums_;
};

/** The name of a target's part, in the same folder. */
std::string PartPathOf(const std::string& path);
