#pragma once

#include <string>
#include <vector>

#include "tests/system/DaemonUnderTest.h"

// What a command has inherited from the daemon, told by the command itself, and what that should be.

/**
 * Surroundings that a daemon may be started in and that none of its commands may notice: for the rest of
 * this process signals are blocked and ignored, the umask is tight, few files may be open, there is a
 * controlling terminal and, for root, protection from the out-of-memory killer.
 */
void TakeOddSurroundings();

/** A command that tells all that its shell was started with, and exits with 5. The daemon's log directory
 * is the default one. */
std::string TellInheritance(const DaemonUnderTest& daemon);

/** Whom a command runs as, and what depends on that. */
struct ExpectedOwner {
    /** User, groups and rights, a line each, as the system words them. */
    std::string identity;
    std::string home;
    /** Entries, without the log directory and the mark, which every command gets. */
    std::vector<std::string> environment = {};
};

/** The tests' own user, to whom the daemon passes on its own environment. */
ExpectedOwner ExpectOwnUser(const DaemonUnderTest& daemon);
/** What a login of this account has. */
ExpectedOwner ExpectLogin(const std::string& user);

/** The whole answer to TellInheritance() in SOCKET or NOSOCKET mode, once it has gone through Blur(). */
std::string ExpectInheritance(DaemonUnderTest& daemon, const ExpectedOwner& owner, std::string_view mode);
/** Puts fixed words for the parts that are random: the mark and the log file's name. */
std::string Blur(const std::string& answer);
