// Random trees of processes that hide and resist, ended in every way that a tree can be ended: no member
// survives, and nobody else is ever signalled. RUVEL_TREES sets how many trees there are.

#include <cstdlib>
#include <filesystem>
#include <list>
#include <random>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/DaemonUnderTest.h"
#include "tests/system/SystemFacts.h"

using testing::HasSubstr;

namespace
{
constexpr int TreesOfADaemon = 10;

std::string FileBesideThis(const std::string& name)
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

/** Those who have the file open, this process left out. */
std::vector<pid_t> FindHoldersOf(const std::string& path)
{
    std::vector<pid_t> holders = ListProcesses();
    std::erase_if(holders, [&](pid_t process) {
        std::error_code gone;
        std::filesystem::directory_iterator file("/proc/" + std::to_string(process) + "/fd", gone);
        const auto isPath = [&](const auto& entry) {
            return std::filesystem::read_symlink(entry, gone) == path;
        };
        return process == getpid() || std::none_of(begin(file), end(file), isPath);
    });
    return holders;
}

/** The reading end of the pipe that every member of one tree holds open. */
class TreeWitness
{
public:
    explicit TreeWitness(std::string path) : path_(std::move(path))
    {
        EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
        descriptor_ = FileDescriptor(open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    }

    const std::string& Path() const { return path_; }
    const std::set<int>& Members() const { return members_; }
    const std::set<int>& Signals() const { return signals_; }

    /** Reads what has been written; true when the last member has gone. */
    bool HasEnded()
    {
        int numbers[1024];
        ssize_t count = 0;
        while ((count = read(descriptor_.Number(), numbers, sizeof numbers)) > 0)
            for (size_t i = 0; i < static_cast<size_t>(count) / sizeof *numbers; ++i)
                (numbers[i] > 0 ? members_ : signals_).insert(numbers[i]);
        return count == 0 && !members_.empty();
    }

private:
    std::string path_;
    FileDescriptor descriptor_;
    std::set<int> members_; // every id that was ever one
    std::set<int> signals_; // that a still tree got, negative
};

/** A tree that bears witness of every signal that it gets. */
class StillTree
{
public:
    explicit StillTree(const std::string& pipe) : witness_(pipe) {}

    TreeWitness& Witness() { return witness_; }
    std::string Command() { return "exec " + FileBesideThis("TreeMaker") + " still " + witness_.Path(); }
    void ExpectUntouched()
    {
        EXPECT_TRUE(WaitUntil([this] { return !witness_.HasEnded() && witness_.Members().size() == 4; }));
        EXPECT_TRUE(witness_.Signals().empty()) << "signal " << *witness_.Signals().begin();
        for (const int member : witness_.Members())
            EXPECT_TRUE(IsAlive(member));
    }

private:
    TreeWitness witness_;
};

enum class End { KillTree, ForceKillTree, LifeTime, Shutdown };

/** A random tree, and the client that launched it. */
struct Tree {
    Tree(const std::string& pipe, End wanted, Client starter)
        : witness(pipe), end(wanted), client(std::move(starter))
    {
    }
    /** One whose life is over before its first process has written its id is told by its client. */
    bool HasEnded()
    {
        return witness.HasEnded() || (witness.Members().empty() && (isTold || client.HasArrived()));
    }

    TreeWitness witness;
    End end;
    Client client;
    bool isTold = false;
};

/** Ten trees of one daemon, beside two that must not notice. */
class Forest
{
public:
    explicit Forest(unsigned seed)
        : random_(seed), outside_(directory_.Path() + "/outside"), command_(directory_.Path() + "/command")
    {
        outsideProcess_ = fork();
        if (outsideProcess_ == 0) {
            execl("/bin/sh", "sh", "-c", outside_.Command().c_str(), nullptr);
            _exit(127);
        }
        daemon_ = std::make_unique<DaemonUnderTest>(
            DaemonOptions{.shortLadders = true,
                          .environment = {"LD_PRELOAD=" + FileBesideThis("SignalLog.so"),
                                          "RUVEL_SIGNAL_LOG=" + LogName()}});
    }
    Forest(const Forest&) = delete;
    Forest& operator=(const Forest&) = delete;
    ~Forest()
    {
        outside_.ExpectUntouched();
        for (const int member : outside_.Witness().Members())
            kill(member, SIGKILL);
        waitpid(outsideProcess_, nullptr, 0);
    }

    void Grow()
    {
        Client starter = daemon_->Connect();
        starter.Send(Launch("NOSOCKET", command_.Command()));
        starters_.push_back(std::move(starter));
        command_.ExpectUntouched(); // it is number 0
        for (int number = 1; number <= TreesOfADaemon; ++number)
            Plant(number);
        // Ended at any moment of their growth.
        const Deadline moment(std::chrono::milliseconds(random_() % 100));
        WaitUntil([&] { return !AllHaveEnded(true) && moment.HasPassed(); });
    }

    void EndAll()
    {
        int number = 0;
        for (const Tree& tree : trees_) {
            ++number;
            if (tree.end == End::KillTree || tree.end == End::ForceKillTree)
                Demand(tree.end == End::KillTree ? "KILLTREE" : "FORCEKILLTREE", number);
        }
        EXPECT_TRUE(WaitUntil([this] { return AllHaveEnded(false); })) << WhoIsLeft();
        for (Tree& tree : trees_) {
            if (tree.end != End::Shutdown) {
                EXPECT_THAT(tree.client.ReadToEnd(), HasSubstr("->ProcessReturnCode = "));
                tree.isTold = true;
            }
        }
        command_.ExpectUntouched();
        daemon_.reset(); // a shutdown
        EXPECT_TRUE(WaitUntil([this] { return AllHaveEnded(true) && command_.Witness().HasEnded(); }))
            << WhoIsLeft();
        ExpectNobodyElseSignalled();
    }

private:
    std::string LogName() const { return directory_.Path() + "/signals"; }

    void Plant(int number)
    {
        const auto end = static_cast<End>(random_() % 4);
        Tree& tree =
            trees_.emplace_back(directory_.Path() + "/" + std::to_string(number), end, daemon_->Connect());
        tree.client.Send(Launch(random_() % 2 == 0 && end != End::LifeTime ? "SOCKET" : "NOSOCKET",
                                "exec " + FileBesideThis("TreeMaker") + " random " +
                                    std::to_string(random_()) + " " + tree.witness.Path(),
                                end == End::LifeTime ? "1" : "0"));
        EXPECT_TRUE(WaitUntil([&] { return tree.HasEnded() || !tree.witness.Members().empty(); }));
    }

    void Demand(const std::string& word, int number)
    {
        Client client = daemon_->Connect();
        client.Send(Join({Newest, OwnUser(), "secret", word, std::to_string(number)}));
        starters_.push_back(std::move(client));
    }

    /** Asks every one of them, so that none waits for its pipe to be read. */
    bool AllHaveEnded(bool shutdownToo)
    {
        bool all = true;
        for (Tree& tree : trees_)
            all = (tree.HasEnded() || (tree.end == End::Shutdown && !shutdownToo)) && all;
        return all;
    }

    std::string WhoIsLeft()
    {
        std::string text;
        for (Tree& tree : trees_) {
            if (tree.HasEnded())
                continue;
            text += "end " + std::to_string(static_cast<int>(tree.end)) + ":";
            for (const pid_t holder : FindHoldersOf(tree.witness.Path()))
                text += "\n    " + ReadFile("/proc/" + std::to_string(holder) + "/stat");
            text += "\n";
        }
        return text;
    }

    void ExpectNobodyElseSignalled()
    {
        std::set<int> processes = command_.Witness().Members();
        for (Tree& tree : trees_)
            processes.insert(tree.witness.Members().begin(), tree.witness.Members().end());
        ExpectOnlyAmong(processes);
    }

    /** One that was stopped before it could write its id is told by its program. */
    void ExpectOnlyAmong(const std::set<int>& processes) const
    {
        std::istringstream lines(ReadFile(LogName()));
        int process = 0, signal = 0, count = 0;
        for (std::string name; lines >> process >> signal && std::getline(lines, name); ++count)
            EXPECT_TRUE(processes.contains(process) || name == " TreeMaker")
                << "signal " << signal << " to " << process << name;
        EXPECT_GT(count, 0);
    }

    std::mt19937 random_;
    TestDirectory directory_;
    StillTree outside_; // no command of the daemon's
    pid_t outsideProcess_ = -1;
    StillTree command_; // a command that nobody ends before the shutdown
    std::unique_ptr<DaemonUnderTest> daemon_;
    std::list<Client> starters_;
    std::list<Tree> trees_;
};
} // namespace

TEST(Trees, NoMemberSurvivesAndNobodyElseIsSignalled)
{
    const char* number = getenv("RUVEL_TREES");
    const int trees = number == nullptr ? 2 * TreesOfADaemon : atoi(number);
    std::random_device source;
    for (int done = 0; done < trees && !HasFailure(); done += TreesOfADaemon) {
        const unsigned seed = source();
        SCOPED_TRACE("seed " + std::to_string(seed));
        Forest forest(seed);
        forest.Grow();
        forest.EndAll();
    }
}
