// A command that becomes a tree of processes which hide and resist in random ways:
//     TreeMaker random SEED PIPE | TreeMaker still PIPE
// Every process of the tree holds the pipe open and has written its id into it, so that the pipe's reader
// knows who belonged to the tree, and sees the end of the stream when the last one has gone. The still tree
// resists nothing, stays as it is, and writes the negative number of every signal that it gets.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{
constexpr int MostDepth = 4;
constexpr int MostForked = 24;         // processes that one which forks as fast as it can has at a time
constexpr unsigned LifeLimit = 300;    // seconds: whatever goes wrong, nothing of this outlives it
constexpr useconds_t BriefLife = 2000; // microseconds, of what is forked as fast as one can
constexpr int StillMembers = 4;

int pipeEnd = -1;
char* const* ownArguments = nullptr;

/** Shared by the tree: at most one of its members multiplies or leaps, and not in every tree. */
struct Shared {
    int wild = 0;
};
Shared* shared = nullptr;

/** The first thing that every member does. */
void Join()
{
    alarm(LifeLimit);
    const int id = getpid();
    if (write(pipeEnd, &id, sizeof id) != sizeof id)
        _exit(1);
}

class Member
{
public:
    explicit Member(unsigned seed) : random_(seed) {}

    [[noreturn]] void Live(int depth, bool parentStays)
    {
        const unsigned children = depth < MostDepth ? static_cast<unsigned>(random_() % 4) : 0;
        for (unsigned left = children; left > 0; --left)
            Spawn(depth + 1);
        Harden();
        // Without the environment it can be told only by its parent or its session.
        if (parentStays && OneIn(10))
            ForgetEnvironment();
        if (OneIn(4) && __atomic_exchange_n(&shared->wild, 1, __ATOMIC_RELAXED) == 0) {
            // The first one is the command: with its end it would be over. A child without environment must
            // keep its parent.
            if (depth == 0 || children > 0 || OneIn(2))
                Multiply();
            Leap();
        }
        if (OneIn(6))
            raise(SIGSTOP);
        for (;;)
            pause();
    }

private:
    bool OneIn(unsigned count) { return random_() % count == 0; }

    /** Forks a member, perhaps over one in between that goes at once and leaves an orphan. */
    void Spawn(int depth)
    {
        const auto seed = static_cast<unsigned>(random_());
        const bool orphan = OneIn(4);
        const pid_t child = fork();
        if (child != 0)
            return;
        Join();
        if (orphan && fork() != 0)
            _exit(0);
        if (orphan)
            Join();
        Member(seed).Live(depth, !orphan);
    }

    void Harden()
    {
        if (OneIn(4))
            setsid();
        else if (OneIn(4))
            setpgid(0, 0);
        if (OneIn(3))
            for (const int signal : {SIGTERM, SIGINT, SIGQUIT})
                std::signal(signal, SIG_IGN);
    }

    void ForgetEnvironment()
    {
        fcntl(pipeEnd, F_SETFD, 0);
        char number[16];
        snprintf(number, sizeof number, "%d", pipeEnd);
        char* arguments[] = {ownArguments[0], const_cast<char*>("bare"), number, nullptr};
        char* nothing[] = {nullptr};
        execve("/proc/self/exe", arguments, nothing);
    }

    /** Forks as fast as it can. What it forks is short-lived. */
    [[noreturn]] void Multiply()
    {
        signal(SIGCHLD, SIG_IGN);
        for (int count = 0;; ++count) {
            if (count % MostForked == MostForked - 1)
                usleep(BriefLife);
            if (fork() == 0) {
                Join();
                usleep(BriefLife);
                _exit(0);
            }
        }
    }

    /** Never stays: each one leaves a successor, mostly of another session, and goes. */
    [[noreturn]] void Leap()
    {
        for (;;) {
            if (fork() != 0)
                _exit(0);
            Join();
            if (!OneIn(3))
                setsid();
        }
    }

    std::mt19937 random_;
};

[[noreturn]] void StandStill()
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    for (int member = 1; member < StillMembers; ++member) {
        if (fork() != 0)
            break;
        if (member % 2 == 0)
            setsid();
    }
    Join();
    for (;;) {
        const int signal = sigwaitinfo(&all, nullptr);
        const int told = -signal;
        if (signal != SIGCHLD && write(pipeEnd, &told, sizeof told) != sizeof told)
            _exit(1);
        if (signal == SIGTERM || signal == SIGALRM)
            _exit(0);
    }
}
} // namespace

int main(int count, char** arguments)
{
    ownArguments = arguments;
    const std::string_view what = count > 2 ? arguments[1] : "";
    if (what == "bare") {
        pipeEnd = atoi(arguments[2]);
        alarm(LifeLimit);
        for (;;)
            pause();
    }
    pipeEnd = count > 2 ? open(arguments[count - 1], O_WRONLY | O_CLOEXEC) : -1;
    if (pipeEnd < 0)
        return 1;
    if (what == "still")
        StandStill();
    shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto seed = static_cast<unsigned>(strtoul(arguments[2], nullptr, 10));
    // The kernel's word to a group that has stopped members and is left by others: it would end the command.
    signal(SIGHUP, SIG_IGN);
    shared->wild = seed % 2 == 0 ? 1 : 0;
    Join();
    Member(seed).Live(0, true);
}
