#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

/**
 * A real account of this machine with a random name and password, for tests that run as root. Its
 * destructor ends what the account still runs and removes it with its home; should the test die before, the
 * next one that makes an account does so, knowing by the account's comment that its maker is gone.
 */
class TestAccount
{
public:
    /** What a check of the password costs: next to nothing, or what it costs for this machine's users. */
    enum class Check { Cheap, Usual };

    /** With these existing groups as supplementary groups. */
    explicit TestAccount(const std::vector<std::string>& groups = {}, Check check = Check::Cheap);
    TestAccount(const TestAccount&) = delete;
    TestAccount& operator=(const TestAccount&) = delete;
    ~TestAccount();

    const std::string& Name() const { return name_; }
    const std::string& Password() const { return password_; }
    const std::string& Home() const { return home_; }
    uid_t UserId() const { return userId_; }
    gid_t GroupId() const { return groupId_; }

    /** Makes the password unusable without changing it. */
    void Lock();
    /** Lets the account's validity end long ago. */
    void Expire();

    /** Removes the accounts of tests that have died. */
    static void RemoveAbandoned();

private:
    std::string name_;
    std::string password_;
    std::string home_;
    uid_t userId_ = 0;
    gid_t groupId_ = 0;
};
