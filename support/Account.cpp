#include "support/Account.h"

#include <cerrno>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace
{
constexpr std::size_t FirstRecordBuffer = 1024;      // enough for any ordinary entry
constexpr std::size_t LargestRecordBuffer = 1048576; // a directory service may have long ones

std::vector<gid_t> ReadGroups(const std::string& name, gid_t primary)
{
    std::vector<gid_t> groups(32);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(name.c_str(), primary, groups.data(), &count) < 0)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

/** Runs one of the re-entrant look-ups with as large a buffer as it asks for. 0 when there is an entry. */
template <class Lookup>
int ReadEntry(Lookup lookup, Account& account)
{
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(FirstRecordBuffer);
    int error;
    while ((error = lookup(&entry, buffer, &found)) == ERANGE && buffer.size() < LargestRecordBuffer)
        buffer.resize(buffer.size() * 2);
    if (error != 0 || found == nullptr)
        return 1;
    account.name = entry.pw_name;
    account.userId = entry.pw_uid;
    account.groupId = entry.pw_gid;
    account.home = entry.pw_dir;
    account.shell = entry.pw_shell;
    account.groups = ReadGroups(account.name, account.groupId);
    return 0;
}
} // namespace

namespace Accounts
{
QORUnicodeString WithoutDomain(const QORUnicodeString& name)
{
    const std::string_view whole = name.View();
    const std::size_t backslash = whole.find('\\');
    return backslash == std::string_view::npos ? name : QORUnicodeString(whole.substr(backslash + 1));
}

int Find(const QORUnicodeString& name, Account& account)
{
    const std::string bare(WithoutDomain(name).View());
    // The database takes a C string: what follows a NUL would not be looked at.
    if (bare.empty() || bare.find('\0') != std::string::npos)
        return 1;
    return ReadEntry(
        [&](passwd* entry, std::vector<char>& buffer, passwd** found) {
            return getpwnam_r(bare.c_str(), entry, buffer.data(), buffer.size(), found);
        },
        account);
}

Account Own()
{
    // Asked for by every request that names a user: the database is read once.
    static Account own;
    static bool known = false;
    const uid_t userId = geteuid();
    if (known && own.userId == userId)
        return own;
    known = ReadEntry(
                [&](passwd* entry, std::vector<char>& buffer, passwd** found) {
                    return getpwuid_r(userId, entry, buffer.data(), buffer.size(), found);
                },
                own) == 0;
    if (!known)
        own = Account{std::to_string(userId), userId, getegid(), {getegid()}, "/", "/bin/sh"};
    return own;
}
} // namespace Accounts
