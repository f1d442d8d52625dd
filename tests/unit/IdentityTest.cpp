#include <algorithm>

#include <grp.h>
#include <linux/capability.h>
#include <sys/syscall.h>

#include "tests/unit/Commands.h"

namespace
{
constexpr int GroupCapacity = 64;

struct Saved {
    long userId = -2;
    long groupId = -2;
    long groups[GroupCapacity] = {};
    int groupCount = GroupCapacity;
};

int Impersonate(BaseProcess& process, const QORUnicodeString& user, Saved& saved, int mode = 1)
{
    return process.ImpersonateUser(user, "wrong", saved.userId, saved.groupId, saved.groups, saved.groupCount,
                                   mode);
}

int Restore(BaseProcess& process, Saved& saved)
{
    return process.RestoreUser(saved.userId, saved.groupId, saved.groups, saved.groupCount);
}

/** All of the identity that counts, to be compared as a whole. */
std::vector<gid_t> Identity()
{
    std::vector<gid_t> all(GroupCapacity);
    all.resize(static_cast<std::size_t>(getgroups(GroupCapacity, all.data())));
    std::sort(all.begin(), all.end());
    all.insert(all.begin(), {geteuid(), getegid()});
    return all;
}

/** The identity changes in a child only; its exit code tells how many expectations failed there. */
void InAChild(const std::function<void()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see the expectations that failed above";
}

TEST(Identity, ARefusedImpersonationChangesNothing)
{
    const std::vector<gid_t> before = Identity();
    const std::string other = geteuid() == 0 ? "nobody" : "root";
    BaseProcess process;
    Saved untouched;
    EXPECT_NE(Impersonate(process, "no-such-user-here", untouched), 0);
    EXPECT_NE(Impersonate(process, other, untouched, 0), 0) << "a wrong password was taken";
    EXPECT_EQ(process.BaseProcessGetLastError(), QORUnicodeString(BaseProcess::UserRefusedReason));
    if (geteuid() != 0) {
        EXPECT_NE(Impersonate(process, other, untouched), 0);
    }
    EXPECT_EQ(untouched.userId, -2);
    EXPECT_EQ(untouched.groupCount, GroupCapacity);
    EXPECT_EQ(Identity(), before);

    Saved saved;
    EXPECT_EQ(Impersonate(process, "DOM\\" + Accounts::Own().name, saved), 0);
    EXPECT_EQ(saved.userId, static_cast<long>(geteuid()));
    EXPECT_EQ(saved.groupCount, static_cast<int>(before.size()) - 2);
    EXPECT_EQ(Restore(process, saved), 0);
    EXPECT_EQ(Identity(), before);
}

TEST(Identity, ImpersonationAndTheWayBack)
{
    if (geteuid() != 0)
        return; // the refusals above are all that an ordinary user can see
    InAChild([] {
        const gid_t planted[] = {0, 7, 12};
        ASSERT_EQ(setgroups(3, planted), 0);
        const std::vector<gid_t> before = Identity();
        BaseProcess process;
        Account nobody;
        ASSERT_EQ(Accounts::Find("nobody", nobody), 0);
        std::vector<gid_t> expected = nobody.groups;
        std::sort(expected.begin(), expected.end());
        expected.insert(expected.begin(), {nobody.userId, nobody.groupId});
        Saved saved;
        ASSERT_EQ(Impersonate(process, "nobody", saved), 0);
        EXPECT_EQ(Identity(), expected);
        EXPECT_EQ(open("/etc/shadow", O_RDONLY | O_CLOEXEC), -1);
        ASSERT_EQ(Restore(process, saved), 0);
        EXPECT_EQ(Identity(), before);

        Saved tooFew;
        tooFew.groupCount = 2;
        ASSERT_EQ(Impersonate(process, "nobody", tooFew), 0);
        EXPECT_EQ(Identity(), expected);
        ASSERT_EQ(Restore(process, tooFew), 0);
        EXPECT_EQ(Identity(), (std::vector<gid_t>{0, before[1], 0, 7}));
    });
}

TEST(Identity, AFailureHalfWayIsTakenBack)
{
    if (geteuid() != 0)
        return;
    // One right less at a time: the groups cannot be set, or all but the user id can.
    for (const unsigned int missing : {CAP_SETGID, CAP_SETUID})
        InAChild([missing] {
            __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
            __user_cap_data_struct rights[2] = {};
            ASSERT_EQ(syscall(SYS_capget, &header, rights), 0);
            rights[0].effective &= ~(1U << missing);
            ASSERT_EQ(syscall(SYS_capset, &header, rights), 0);
            const std::vector<gid_t> before = Identity();
            BaseProcess process;
            Saved saved;
            EXPECT_NE(Impersonate(process, "nobody", saved), 0);
            EXPECT_EQ(saved.userId, -2);
            EXPECT_EQ(Identity(), before);
        });
}
} // namespace
