#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/DaemonUnderTest.h"
#include "tests/system/TestAccount.h"

using testing::AllOf;
using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace
{
const std::string Secret = "what only its owner may read";

int MakeFile(const std::string& name, mode_t mode, std::string_view content)
{
    const int descriptor = open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode);
    const bool written = write(descriptor, content.data(), content.size()) >= 0;
    return descriptor >= 0 && close(descriptor) == 0 && written ? 0 : -1;
}

/**
 * Two accounts, one hostile, and an installed daemon with the worst log directory there is: everybody may
 * write it, and without the sticky bit the system itself protects nobody there.
 */
class LogFileAttack : public testing::Test
{
protected:
    LogFileAttack()
    {
        mkdir(logs_.c_str(), 0);
        chmod(logs_.c_str(), 0777);
        for (const auto& [path, user, group] : secrets_) {
            EXPECT_EQ(MakeFile(path, 0600, Secret), 0);
            EXPECT_EQ(chown(path.c_str(), user, group), 0);
        }
        daemon_.emplace(DaemonOptions{.mode = {}, .logDirectory = logs_});
    }

    std::string LaunchAs(const TestAccount& account, const std::string& command,
                         const std::string& mode = "NOSOCKET") const
    {
        return Join({Newest, account.Name(), account.Password(), command, mode, "NOWINDOW", "0"});
    }
    /** The secrets are as they were, each under its one name. */
    void ExpectUntouched() const
    {
        for (const auto& [path, user, group] : secrets_) {
            struct stat facts {
            };
            ASSERT_EQ(stat(path.c_str(), &facts), 0);
            EXPECT_EQ(facts.st_uid, user);
            EXPECT_EQ(facts.st_gid, group);
            EXPECT_EQ(facts.st_mode, S_IFREG | 0600U);
            EXPECT_EQ(facts.st_nlink, 1U);
            EXPECT_EQ(ReadFile(path), Secret);
        }
    }
    void ExpectServing()
    {
        EXPECT_EQ(Ask(*daemon_, LaunchAs(victim_, "echo well")), Finished("well\n", 0));
        EXPECT_EQ(Ask(*daemon_, LaunchAs(victim_, "echo well", "SOCKET")), Finished("well\n", 0));
    }
    /** A command whose log is about to be delivered. */
    struct HeldCommand {
        Client client;
        std::string log;
    };
    /** Launches it so that it does not end before Release(). Nobody else's log is there. */
    HeldCommand Hold(const TestAccount& account, const std::string& command)
    {
        HeldCommand held{daemon_->Connect(), {}};
        held.client.Send(
            LaunchAs(account, command + "; until [ -e " + gate_ + " ]; do sleep 0.01; done; exit 7"));
        // With the command's first word in it the launch is over.
        EXPECT_TRUE(WaitUntil([&] {
            const std::vector<std::string> names = daemon_->LogFiles();
            held.log = logs_ + "/" + (names.size() == 1 ? names[0] : "");
            return names.size() == 1 && !ReadFile(held.log).empty();
        }));
        return held;
    }
    /** Lets it end: the whole answer. */
    std::string Release(HeldCommand& held)
    {
        std::ofstream{gate_}.put('x');
        std::string answer = held.client.ReadToEnd();
        EXPECT_TRUE(WaitUntil([&] { return daemon_->Descendants().empty(); }));
        unlink(gate_.c_str());
        return answer;
    }

    void BecomeAttacker() const
    {
        EXPECT_EQ(setgroups(0, nullptr), 0);
        EXPECT_EQ(setgid(attacker_.GroupId()), 0);
        EXPECT_EQ(setuid(attacker_.UserId()), 0);
    }
    /** Runs `act`, under the hostile account unless only root can do it. */
    void Act(bool asRoot, const std::function<void()>& act) const
    {
        const pid_t child = fork();
        if (child == 0) {
            if (!asRoot)
                BecomeAttacker();
            act();
            _exit(testing::Test::HasFailure());
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "see the expectations that failed above";
    }

    const TestAccount attacker_;
    const TestAccount victim_;
    const TestDirectory directory_;
    const std::string logs_ = directory_.Path() + "/logs";
    struct OwnedFile {
        std::string path;
        uid_t user;
        gid_t group;
    };
    const std::string secret_ = directory_.Path() + "/secret";
    const std::string rootsSecret_ = directory_.Path() + "/roots-secret";
    const std::vector<OwnedFile> secrets_ = {{secret_, victim_.UserId(), victim_.GroupId()},
                                             {rootsSecret_, 0, 0}};
    const std::string gate_ = directory_.Path() + "/gate";
    std::optional<DaemonUnderTest> daemon_;
};

/** 0 when it is there. */
using Put = std::function<int(const std::string& name)>;

/** What somebody may put in the place of a log, given a file that is not theirs. */
struct Thing {
    const char* what;
    Put put;
    bool byRoot = false; // what an ordinary user cannot make, on this machine or at all
};

std::vector<Thing> MakeThings(const std::string& secret, const std::string& rootsSecret)
{
    return {
        {"a link to a file", [=](auto& name) { return symlink(secret.c_str(), name.c_str()); }},
        {"a link to root's file", [=](auto& name) { return symlink(rootsSecret.c_str(), name.c_str()); }},
        {"a link to what is not there",
         [=](auto& name) { return symlink((secret + "-2").c_str(), name.c_str()); }},
        {"a pipe", [](auto& name) { return mkfifo(name.c_str(), 0666); }},
        {"a folder", [](auto& name) { return mkdir(name.c_str(), 0777); }},
        {"another's file by a further name", [=](auto& name) { return link(secret.c_str(), name.c_str()); },
         true},
        {"an endless device", [](auto& name) { return mknod(name.c_str(), S_IFCHR | 0666, makedev(1, 5)); },
         true},
        {"a device without a driver",
         [](auto& name) { return mknod(name.c_str(), S_IFBLK | 0666, makedev(255, 255)); }, true},
    };
}
} // namespace

/** The names are no secret: a log's is made of the time and the command's number. */
TEST_F(LogFileAttack, PlantedNamesAreLeftAloneAndHinderNobody)
{
    constexpr long long Span = 2000; // of the names that are planted, in milliseconds
    const auto now = [] {
        using namespace std::chrono;
        return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    };
    std::vector<Thing> things = MakeThings(secret_, rootsSecret_);
    things.push_back({"a file", [](auto& name) { return MakeFile(name, 0666, {}); }});
    int number = 0;      // of the next command
    long long lead = 50; // how long planting takes
    for (const Thing& thing : things) {
        bool isHit = false;
        // On a busy machine the planting, or the launch, may come too late: then it is tried again.
        for (int attempt = 0; attempt < 10 && !isHit; ++attempt, ++number) {
            const long long before = now(), begin = before + lead;
            Act(thing.byRoot, [&] {
                umask(0);
                for (long long time = begin; time < begin + Span; ++time)
                    EXPECT_EQ(thing.put(logs_ + "/" + std::to_string(time / 1000) + "-" +
                                        std::to_string(time % 1000) + "-" + std::to_string(number) +
                                        "-RuvelServer.log"),
                              0)
                        << thing.what;
            });
            lead = std::max(lead, 2 * (now() - before));
            WaitUntil([&] { return now() >= begin; });
            const std::string answer = Ask(*daemon_, LaunchAs(victim_, "cat " + secret_));
            isHit = now() < begin + Span;
            EXPECT_EQ(answer, Finished(Secret, 0)) << thing.what;
            EXPECT_TRUE(WaitUntil([&] { return daemon_->LogFiles().size() == Span; })) << thing.what;
            for (const std::string& name : daemon_->LogFiles())
                EXPECT_EQ(remove((logs_ + "/" + name).c_str()), 0);
        }
        EXPECT_TRUE(isHit) << thing.what;
        ExpectUntouched();
        EXPECT_NE(access((secret_ + "-2").c_str(), F_OK), 0) << thing.what;
    }
    ExpectServing();
}

TEST_F(LogFileAttack, WhatReplacesALogIsNotDelivered)
{
    std::vector<Thing> things = MakeThings(secret_, rootsSecret_);
    things.push_back({"nothing", [](auto&) { return 0; }});
    things.push_back({"a folder with something in it", [](auto& name) {
                          return mkdir(name.c_str(), 0777) + mkdir((name + "/more").c_str(), 0777);
                      }});
    things.push_back({"an own file by two names", [](auto& name) {
                          return MakeFile(name, 0600, {}) + link(name.c_str(), (name + "-2").c_str());
                      }});
    things.push_back({"another's file by its only name",
                      [this](auto& name) {
                          return MakeFile(name, 0600, Secret) +
                                 lchown(name.c_str(), victim_.UserId(), victim_.GroupId());
                      },
                      true});
    things.push_back({"root's file", [](auto& name) { return MakeFile(name, 0644, Secret); }, true});
    for (const Thing& thing : things) {
        HeldCommand command = Hold(attacker_, "echo mine");
        Act(thing.byRoot, [&] {
            EXPECT_EQ(unlink(command.log.c_str()), 0);
            EXPECT_EQ(thing.put(command.log), 0) << thing.what;
        });
        EXPECT_THAT(Release(command),
                    MatchesRegex("->RuvelServer [^\n]+\n->Error unable to check log command file : [^\n]+\n"
                                 "->ProcessReturnCode = 7\n"))
            << thing.what;
        ExpectUntouched();
        // The daemon has removed what it can; a folder with something in it is still there.
        std::filesystem::remove_all(command.log);
        std::filesystem::remove(command.log + "-2");
    }
    ExpectServing();
}

/** Between a look at a name and its opening there must be no moment for anybody. */
TEST_F(LogFileAttack, ALogThatChangesAllTheTimeTellsNothing)
{
    constexpr int Attempts = 20;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        HeldCommand command = Hold(attacker_, "echo mine");
        const std::string link = command.log + ".link";
        const pid_t flipping = fork();
        if (flipping == 0) {
            BecomeAttacker();
            if (symlink(secret_.c_str(), link.c_str()) == 0)
                while (renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, command.log.c_str(), RENAME_EXCHANGE) == 0)
                    ;
            _exit(0);
        }
        struct stat facts {
        };
        EXPECT_TRUE(WaitUntil([&] { return lstat(link.c_str(), &facts) == 0; }));
        EXPECT_THAT(Release(command), AllOf(Not(HasSubstr(Secret)),
                                            AnyOf(HasSubstr("\nmine\n"), HasSubstr("unable to check"))));
        kill(flipping, SIGKILL);
        waitpid(flipping, nullptr, 0);
        std::filesystem::remove(link);
        std::filesystem::remove(command.log);
    }
    ExpectUntouched();
    ExpectServing();
}

TEST_F(LogFileAttack, NobodyReadsOrForgesAnothersLog)
{
    HeldCommand command = Hold(victim_, "cat " + secret_);
    const std::string& log = command.log;
    EXPECT_EQ(Ask(*daemon_,
                  LaunchAs(attacker_, "cat " + log + "; rm -f " + log + "; echo forged >" + log, "SOCKET")),
              Finished("cat: " + log + ": Permission denied\n", 0));
    EXPECT_THAT(Release(command),
                AllOf(HasSubstr("unable to check log command file"), Not(HasSubstr("forged"))));
    ExpectServing();
}

/** A directory of its own kind of trouble, mounted where only this process and the daemon see it. */
TEST(LogDirectory, FullUnwritableOrGoneItRefusesAndGoesOn)
{
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    const TestAccount account;
    const TestDirectory directory;
    const std::string logs = directory.Path() + "/logs";
    mkdir(logs.c_str(), 0755);
    const auto mountLogs = [&](unsigned long flags, const char* options) {
        ASSERT_EQ(mount("none", logs.c_str(), "tmpfs", flags, options), 0) << options;
    };
    const auto launch = [&](const std::string& command, const std::string& mode = "NOSOCKET") {
        return Join({Newest, account.Name(), account.Password(), command, mode, "NOWINDOW", "0"});
    };
    DaemonUnderTest daemon({.mode = {}, .logDirectory = logs});
    const auto expectRefusal = [&](const std::string& reason) {
        EXPECT_THAT(Ask(daemon, launch("echo lost")),
                    MatchesRegex("->RuvelServer [^\n]+\n->Error unable to open log file[^\n]+ : " + reason +
                                 "\n->ProcessReturnCode = NoThing\n"));
        EXPECT_EQ(Ask(daemon, launch("echo well", "SOCKET")), Finished("well\n", 0));
    };

    mountLogs(0, "size=64k");
    // What does not fit is the command's loss, not the rest.
    EXPECT_THAT(Ask(daemon, launch("seq 1 100000; exit 4")),
                AllOf(StartsWith(Finished("1\n2\n3\n", 0).substr(0, Finished("1\n2\n3\n", 0).find("->P"))),
                      EndsWith(ReturnLine(4))));
    umount(logs.c_str());
    mountLogs(0, "nr_inodes=1");
    expectRefusal("No space left on device");
    umount(logs.c_str());
    mountLogs(MS_RDONLY, "");
    expectRefusal("Read-only file system");
    umount(logs.c_str());
    rmdir(logs.c_str());
    expectRefusal("No such file or directory");
    std::ofstream{logs}.put('x');
    expectRefusal("Not a directory");
    unlink(logs.c_str());
    mkdir(logs.c_str(), 0755);
    EXPECT_EQ(Ask(daemon, launch("echo well; exit 6")), Finished("well\n", 6));
}
