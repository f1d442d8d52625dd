#pragma once

#include <string>

#include <sys/types.h>

/**
 * A command's log file, in a directory that the command's user, and perhaps every user, can write: each
 * name there may be anybody's link, pipe, device or second name for another file.
 *
 * Both calls open the name once, without following a link and without waiting, and check what they got on
 * the descriptor itself. They return a close-on-exec descriptor that the caller owns, or -1 with a one-line
 * reason.
 */
namespace LogFile
{
/** A new, empty file for appending, mode 0600, owned by this user and group. One of that name that is
 * regular, this process' own and has no other name is replaced, anything else fails. Removed on failure. */
int Create(const std::string& name, uid_t userId, gid_t groupId, std::string& error);
/** For reading back: it must be regular, have one name, and still be this user's. */
int OpenForReading(const std::string& name, uid_t userId, std::string& error);
} // namespace LogFile
