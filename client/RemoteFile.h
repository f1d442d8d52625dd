#pragma once

#include <string>

#include "client/Failure.h"
#include "client/Server.h"

/** A file on the server's machine, as a script of ours found it. */
struct RemoteFile {
    enum Kind {
        Missing,
        Regular,
        Special // a device, a pipe: nothing that could be compared, resumed or replaced
    };
    Kind kind = Missing;
    /** In full, links followed. */
    std::string path;
    /** Where a put writes before it takes the target's place; ours alone. Empty where that was not asked for.
     */
    std::string partPath;
    // Of a regular file.
    /** Permissions in octal. */
    std::string mode;
    /** Seconds since the epoch, with their decimals. */
    std::string modified;
    long long size = 0;
};

/**
 * Finds what a put to `target` would write: the file of that name, or `baseName` in the folder of that name.
 * With `wantsPart` the file to write first is made beside it, empty and closed to others, unless an earlier
 * attempt has left one. Its name is fixed for a target.
 */
Failure FindPutTarget(const Server& server, const std::string& target, const std::string& baseName,
                      bool wantsPart, RemoteFile& file);

/** Finds the file that a get reads; one that is missing, or a folder, is a failure. */
Failure FindGetSource(const Server& server, const std::string& source, RemoteFile& file);

/**
 * Gives the file mode and time (either may be empty: as it is) and, where it has a part, lets this take the
 * target's place, provided that it still has the size.
 */
Failure FinishPut(const Server& server, const RemoteFile& file, long long size, const std::string& mode,
                  const std::string& modified);
