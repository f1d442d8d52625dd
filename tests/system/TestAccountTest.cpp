#include "tests/system/TestAccount.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

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
