#include "tests/system/TestAccount.h"

#include <optional>

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/DaemonUnderTest.h"

TEST(TestAccount, IsAnAccountUntilItGoes)
{
    std::optional<TestAccount> account(std::in_place, std::vector<std::string>{"users", "games"});
    const std::string name = account->Name();
    const passwd* entry = getpwnam(name.c_str());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->pw_uid, account->UserId());
    EXPECT_EQ(access(account->Home().c_str(), F_OK), 0);
    const std::string home = account->Home();
    account.reset();
    EXPECT_EQ(getpwnam(name.c_str()), nullptr);
    EXPECT_NE(access(home.c_str(), F_OK), 0);
}

TEST(TestAccount, GoesAfterItsTestHasDied)
{
    int names[2];
    ASSERT_EQ(pipe(names), 0);
    const pid_t dying = fork();
    if (dying == 0) {
        const TestAccount account;
        const std::string& name = account.Name();
        _exit(write(names[1], name.data(), name.size()) < 0);
    }
    close(names[1]);
    char name[64] = "";
    EXPECT_GT(read(names[0], name, sizeof name - 1), 0);
    close(names[0]);
    EXPECT_EQ(waitpid(dying, nullptr, 0), dying);
    TestAccount::RemoveAbandoned();
    EXPECT_EQ(getpwnam(name), nullptr) << name;
}

TEST(TestAccount, CanRunADaemonOfItsOwn)
{
    const TestAccount account;
    DaemonUnderTest daemon({.user = account.Name()});
    EXPECT_EQ(Ask(daemon, Join({Newest, account.Name(), "", "id -un; pwd", "SOCKET", "NOWINDOW"})),
              Finished(account.Name() + "\n" + account.Home() + "\n", 0));
}
