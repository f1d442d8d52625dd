#include "tests/system/TestAccount.h"

#include <csignal>
#include <cstdio>
#include <random>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/ServerProcess.h"
#include "tests/system/Waiting.h"

namespace
{
constexpr const char* Prefix = "ruveltest-";
constexpr const char* Comment = "test account of ";
constexpr int DatabaseBusy = 1;

std::string MakeRandomText(size_t length)
{
    const std::string letters = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device random;
    std::uniform_int_distribution<size_t> choice(0, letters.size() - 1);
    std::string text;
    while (text.size() < length)
        text += letters[choice(random)];
    return text;
}

/** Runs a tool of the user database, its input given, again while another test is changing that. */
int Change(const std::string& command, const std::string& input = {})
{
    int status = DatabaseBusy;
    WaitUntil([&] {
        FILE* const tool = popen(command.c_str(), "we");
        if (tool == nullptr)
            throw std::runtime_error("unable to run " + command);
        fputs(input.c_str(), tool);
        const int ended = pclose(tool);
        status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
        return status != DatabaseBusy;
    });
    return status;
}

void MustChange(const std::string& command, const std::string& input = {})
{
    const int status = Change(command, input);
    if (status != 0)
        throw std::runtime_error(command + " ended with " + std::to_string(status));
}

/** Tells a process from a later one with the same id; empty when there is none. */
std::string StartTimeOf(const std::string& process)
{
    const std::string line = ReadFile("/proc/" + process + "/stat");
    std::istringstream rest(line.substr(std::min(line.size(), line.rfind(')') + 1)));
    std::string field;
    for (int i = 0; i < 20; ++i)
        rest >> field;
    return rest ? field : std::string();
}

void EndProcessesOf(uid_t user)
{
    WaitUntil([&] {
        bool found = false;
        for (const std::string& name : ListDirectory("/proc")) {
            struct stat facts {
            };
            if (name.find_first_not_of("0123456789") == std::string::npos &&
                stat(("/proc/" + name).c_str(), &facts) == 0 && facts.st_uid == user) {
                found = true;
                kill(std::stoi(name), SIGKILL);
            }
        }
        return !found;
    });
}

void Remove(const std::string& name, uid_t user)
{
    EndProcessesOf(user);
    Change("/usr/sbin/userdel --force --remove " + name);
}
} // namespace

TestAccount::TestAccount(const std::vector<std::string>& groups, Check check)
    : name_(Prefix + MakeRandomText(8)), password_(MakeRandomText(60)), home_("/home/" + name_)
{
    RemoveAbandoned();
    const std::string maker = std::to_string(getpid());
    std::string command = "/usr/sbin/useradd --create-home --home-dir " + home_ +
                          " --shell /bin/sh --no-log-init --key SUB_UID_COUNT=0 --key SUB_GID_COUNT=0"
                          " --comment '" +
                          Comment + maker + " " + StartTimeOf(maker) + "'";
    for (const std::string& group : groups)
        command += (&group == &groups.front() ? " --groups " : ",") + group;
    MustChange(command + " " + name_);
    // Nobody guesses a random password, so that a costly check of it would protect nothing.
    MustChange(std::string("/usr/sbin/chpasswd") +
                   (check == Check::Cheap ? " --crypt-method SHA256 --sha-rounds 1000" : ""),
               name_ + ":" + password_ + "\n");
    const passwd* entry = getpwnam(name_.c_str());
    if (!entry)
        throw std::runtime_error("the account " + name_ + " is not there");
    userId_ = entry->pw_uid;
    groupId_ = entry->pw_gid;
}

TestAccount::~TestAccount()
{
    Remove(name_, userId_);
    EXPECT_EQ(getpwnam(name_.c_str()), nullptr) << "the account " << name_ << " could not be removed";
}

void TestAccount::Lock()
{
    MustChange("/usr/sbin/usermod --lock " + name_);
}

void TestAccount::Expire()
{
    MustChange("/usr/sbin/usermod --expiredate 1980-01-01 " + name_);
}

void TestAccount::RemoveAbandoned()
{
    struct Found {
        std::string name;
        uid_t user;
    };
    std::vector<Found> abandoned;
    setpwent();
    while (const passwd* entry = getpwent()) {
        const std::string name = entry->pw_name, comment = entry->pw_gecos;
        if (!name.starts_with(Prefix) || !comment.starts_with(Comment))
            continue;
        std::istringstream fields(comment.substr(std::string(Comment).size()));
        std::string maker, startTime;
        fields >> maker >> startTime;
        if (StartTimeOf(maker) != startTime)
            abandoned.push_back({name, entry->pw_uid});
    }
    endpwent();
    for (const Found& found : abandoned)
        Remove(found.name, found.user);
}
