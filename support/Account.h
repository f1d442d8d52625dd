#pragma once

#include <string>
#include <vector>

#include "support/QORUnicodeString.h"

#include <sys/types.h>

/** One account of the system's user database, with all that a login of it takes on. */
struct Account {
    std::string name;
    uid_t userId = 0;
    gid_t groupId = 0;
    std::vector<gid_t> groups; // supplementary groups, the primary one among them
    std::string home;
    std::string shell;
};

namespace Accounts
{
/** What follows the first backslash of a name (DOM\user gives user), or the whole name. */
QORUnicodeString WithoutDomain(const QORUnicodeString& name);
/** Looks the account up (its domain is dropped first): 0, or nonzero when there is none. May wait for a
 * directory service where the system uses one. */
int Find(const QORUnicodeString& name, Account& account);
/** The account that this process runs under; its name is the user id in decimal when it has none. */
Account Own();
} // namespace Accounts
