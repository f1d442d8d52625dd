// What is left when processes are killed at random moments: workers, commands, and the daemon itself.
// RUVEL_CRASHES sets how often.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <list>
#include <memory>
#include <random>
#include <set>

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <unistd.h>

#include "tests/system/SystemFacts.h"
#include "tests/system/TransferClient.h"

namespace
{
int CountOfCrashes(int otherwise)
{
    const char* number = getenv("RUVEL_CRASHES");
    return number == nullptr ? otherwise : atoi(number);
}

/** Clients of every kind who ask at once, and what their commands and transfers leave to be looked at. */
class Askers
{
public:
    Askers(const std::string& directory, Dialogue& dialogue, std::mt19937& random)
        : directory_(directory), dialogue_(dialogue), random_(random)
    {
        std::ofstream(directory_ + "/file") << MakeContent(3000000);
    }

    void Ask(int port, int count)
    {
        for (int i = 0; i < count; ++i) {
            clients_.emplace_back(port, dialogue_, 4096);
            clients_.back().Send(NextRequest());
        }
    }

    /** Everybody is told how it ended, or finds the connection closed. */
    void ReadAnswers()
    {
        for (Client& client : clients_)
            client.ReadUntilOrEnd();
        clients_.clear();
    }

    /** Each command writes a line when it begins, with a number of its own. */
    void ExpectNoneRunTwice() const
    {
        std::ifstream lines(directory_ + "/begun");
        std::set<std::string> seen;
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(seen.insert(line).second) << line << " was run twice";
    }

private:
    std::string NextRequest()
    {
        const std::string begin = "echo " + std::to_string(++number_) + " >> " + directory_ + "/begun; ";
        switch (random_() % 7) {
        case 0:
            return Launch("SOCKET", begin + "sleep 0.01; seq 1 1000; exit 3");
        case 1:
            return Launch("NOSOCKET", begin + "seq 1 100000");
        case 2:
            return Launch("NOSOCKET", begin + "exec sleep 1000", "2");
        case 3:
            return Join({Newest, OwnUser(), "secret", "TRANSFERGET", "BINARY", directory_ + "/file", "2"});
        case 4:
            return Join({Newest, OwnUser(), "secret", "TRANSFERPUT", "BINARY",
                         directory_ + "/put" + std::to_string(number_), "2"});
        case 5:
            return Keyword("ALLINFO");
        default:
            return Join({Newest, OwnUser(), "secret", "KILL", std::to_string(random_() % 5)});
        }
    }

    std::string directory_;
    Dialogue& dialogue_;
    std::mt19937& random_;
    std::list<Client> clients_;
    int number_ = 0;
};

/** A moment later, at random. */
void LetPass(std::mt19937& random, unsigned mostMicroseconds)
{
    usleep(static_cast<useconds_t>(random() % mostMicroseconds));
}
} // namespace

TEST(Crash, OfWorkersAndCommandsIsTheirClientsLossOnly)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const TestDirectory directory;
    // With passwords, which nobody here has, so that workers who check them are among those that are killed.
    for (const bool checksPasswords : {false, true}) {
        DaemonUnderTest daemon(checksPasswords ? DaemonOptions{.mode = {"-noinstall"}} : DaemonOptions{});
        const pid_t id = daemon.Process().Id();
        // One that checks passwords lets nobody but root look into it.
        const bool canLook = !checksPasswords || geteuid() == 0;
        const size_t descriptors = canLook ? CountDescriptorsOf(id) : 0;
        Askers askers(directory.Path(), daemon.Conversation(), random);
        for (int round = CountOfCrashes(3); round > 0 && !HasFailure(); --round) {
            askers.Ask(daemon.Port(), 12);
            for (int kills = 0; kills < 12; ++kills) {
                LetPass(random, 5000);
                const std::vector<pid_t> processes = daemon.Descendants();
                if (!processes.empty())
                    kill(processes[random() % processes.size()], SIGKILL);
            }
            askers.ReadAnswers();
        }
        EXPECT_TRUE(WaitUntil([&] { return !canLook || CountDescriptorsOf(id) == descriptors; }));
        EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty() && FindZombiesOf(id).empty(); }));
        EXPECT_TRUE(WaitUntil([&] { return CountSystemVObjectsOf(id) == 0 && daemon.LogFiles().empty(); }));
        askers.ExpectNoneRunTwice();
        if (!checksPasswords) {
            EXPECT_EQ(Ask(daemon, Launch("SOCKET", "exit 3")), Finished("", 3));
        }
        std::filesystem::remove(directory.Path() + "/begun");
    }
}

/** A daemon that is killed and started again on the same port. */
class Restarting
{
public:
    Restarting() : port_(FindFreePort()) {}
    ~Restarting()
    {
        for (const pid_t left : FindProcessesWith(directory_.Path()))
            if (left != getpid())
                kill(left, SIGKILL);
    }

    int Port() const { return port_; }
    const std::string& Directory() const { return directory_.Path(); }
    ServerProcess& Process() { return *process_; }

    /** Started and answered; milliseconds until then. */
    double Start(Dialogue& dialogue)
    {
        const auto begin = std::chrono::steady_clock::now();
        const std::string own = Directory() + "/" + std::to_string(++starts_);
        std::filesystem::create_directory(own);
        process_ = std::make_unique<ServerProcess>(
            own, std::vector<std::string>{"-noinstall", "-nocheck", "-port", std::to_string(port_),
                                          "-logdirectory", Directory()});
        EXPECT_TRUE(process_->WaitForTrace("Check port (" + std::to_string(port_ - 1) +
                                           ") for data connection...(successfull)\n"))
            << process_->Trace();
        Client client(port_, dialogue);
        client.Send(Launch("SOCKET", "exit 3"));
        EXPECT_EQ(client.ReadToEnd(), Finished("", 3));
        const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - begin;
        return taken.count();
    }

    /** The semaphores that it has left. */
    std::vector<int> Kill()
    {
        process_->Signal(SIGSTOP);
        std::vector<pid_t> processes = FindProcessesWith(Directory());
        processes.push_back(process_->Id());
        const std::vector<int> semaphores = FindSemaphoresOf(processes);
        process_->Signal(SIGKILL);
        process_->WaitForEnd();
        return semaphores;
    }

private:
    TestDirectory directory_;
    int port_;
    int starts_ = 0;
    std::unique_ptr<ServerProcess> process_;
};

TEST(Crash, OfTheDaemonLeavesNothingToTheNext)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Dialogue dialogue;
    std::vector<pid_t> killed;
    size_t semaphores = 0;
    double longest = 0;
    {
        Restarting daemon;
        Askers askers(daemon.Directory(), dialogue, random);
        daemon.Start(dialogue);
        for (int round = CountOfCrashes(3); round > 0 && !HasFailure(); --round) {
            askers.Ask(daemon.Port(), 12);
            LetPass(random, 60000);
            killed.push_back(daemon.Process().Id());
            const std::vector<int> left = daemon.Kill();
            semaphores += left.size();
            longest = std::max(longest, daemon.Start(dialogue));
            for (const int set : left)
                EXPECT_EQ(semctl(set, 0, GETPID), -1) << "a semaphore of the killed daemon";
        }
        daemon.Process().Signal(SIGTERM);
        EXPECT_EQ(daemon.Process().WaitForEnd(), 0);
        askers.ExpectNoneRunTwice();
    }
    for (const pid_t daemon : killed)
        EXPECT_TRUE(WaitUntil([&] { return CountSystemVObjectsOf(daemon) == 0; }));
    std::cout << killed.size() << " kills left " << semaphores << " semaphores; served again after "
              << longest << " ms at most\n";
}
