// The part of BaseProcess that is about users: whose password is right, and whose identity to take on.

#include "support/BaseProcess.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <grp.h>
#include <unistd.h>

#include "support/PasswordCheck.h"
#include "support/ProcessSetup.h"

namespace
{
/** An effective identity as the system calls take it. */
struct Identity {
    uid_t userId;
    gid_t groupId;
    std::vector<gid_t> groups;
};

/** Down from root: the user id goes last, because it carries the right to change the others. */
int TakeOn(const Identity& identity)
{
    if (setgroups(identity.groups.size(), identity.groups.data()) != 0 ||
        setresgid(static_cast<gid_t>(-1), identity.groupId, static_cast<gid_t>(-1)) != 0)
        return -1;
    return setresuid(static_cast<uid_t>(-1), identity.userId, static_cast<uid_t>(-1));
}

/** Up again: the user id comes first. */
int GoBackTo(const Identity& identity)
{
    if (setresuid(static_cast<uid_t>(-1), identity.userId, static_cast<uid_t>(-1)) != 0 ||
        setresgid(static_cast<gid_t>(-1), identity.groupId, static_cast<gid_t>(-1)) != 0)
        return -1;
    return setgroups(identity.groups.size(), identity.groups.data());
}

/** The identity of now; nonzero, with errno set, when it cannot be told. */
int ReadCurrent(Identity& identity)
{
    identity.userId = geteuid();
    identity.groupId = getegid();
    const int count = getgroups(0, nullptr);
    if (count < 0)
        return -1;
    identity.groups.resize(static_cast<std::size_t>(count));
    return getgroups(count, identity.groups.data()) == count ? 0 : -1;
}
} // namespace

int BaseProcess::IsSameUser(const QORUnicodeString& user, QORUnicodeString& currentUser)
{
    currentUser = Accounts::Own().name;
    return Accounts::WithoutDomain(user) == currentUser;
}

int BaseProcess::VerifyUser(const QORUnicodeString& user, const QORUnicodeString& password)
{
    if (PasswordCheck::IsAccepted(Accounts::WithoutDomain(user).View(), password.View()))
        return 0;
    return Fail(UserRefusedReason);
}

int BaseProcess::StartAsUser(const QORUnicodeString& command, const QORUnicodeString& user,
                             const QORUnicodeString& password, const BaseSocket* socket)
{
    QORUnicodeString own;
    if (geteuid() != 0 && IsSameUser(user, own) == 0)
        return Fail("Error only root can start a command as another user");
    if (!userVerified_ && VerifyUser(user, password) != 0)
        return 1;
    Account account;
    if (Accounts::Find(user, account) != 0)
        return Fail(UserRefusedReason); // gone since it was checked
    return Start(command, &account, socket);
}

int BaseProcess::ImpersonateUser(const QORUnicodeString& user, const QORUnicodeString& password,
                                 long& savedUserId, long& savedGroupId, long* savedGroups,
                                 int& savedGroupCount, const int& mode)
{
    if (mode == 0 && VerifyUser(user, password) != 0)
        return 1;
    Account account;
    if (Accounts::Find(user, account) != 0)
        return Fail(UserRefusedReason);
    Identity before{};
    if (ReadCurrent(before) != 0)
        return Fail(std::string("Error unable to save identity : ") + strerror(errno));
    if (account.userId != before.userId) {
        ProcessSetup::LeaveKeyring();
        if (TakeOn({account.userId, account.groupId, account.groups}) != 0) {
            const std::string reason = strerror(errno);
            // Still as privileged as before, so what was changed can be changed back.
            GoBackTo(before);
            return Fail("Error unable to take on identity of user (" + account.name + ") : " + reason);
        }
        ProcessSetup::KeepMemoryPrivate(); // a change of identity leaves that to the system's settings
    }
    savedUserId = before.userId;
    savedGroupId = before.groupId;
    savedGroupCount = std::min(savedGroupCount, static_cast<int>(before.groups.size()));
    std::copy_n(before.groups.begin(), savedGroupCount, savedGroups);
    return 0;
}

int BaseProcess::RestoreUser(long& savedUserId, long& savedGroupId, long* savedGroups, int& savedGroupCount)
{
    const Identity before{static_cast<uid_t>(savedUserId), static_cast<gid_t>(savedGroupId),
                          std::vector<gid_t>(savedGroups, savedGroups + savedGroupCount)};
    if (geteuid() == before.userId) // nothing was switched
        return 0;
    if (GoBackTo(before) != 0)
        return Fail(std::string("Error unable to go back to own identity : ") + strerror(errno));
    return 0;
}
