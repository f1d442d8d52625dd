// The whole daemon, in this process, from the first byte of a request to the answer. The first byte chooses
// the mode; what follows are clients' requests, one behind each '~'; one that begins with '+' goes on with
// the request of the client before it.
//
// Nothing that a request asks for is done: in place of every command and worker that the daemon forks there
// is a process of ours that ends at once, or sleeps until it is signalled. The clock is ours too and jumps to
// the next deadline when nothing else is to come, so that every time-out is seen.

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <random>
#include <vector>

#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/Poller.h"
#include "daemon/RuvelServer.h"
#include "support/ChildStart.h"
#include "support/Clock.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
// Bits of the first byte.
constexpr unsigned ChecksPasswords = 1;
constexpr unsigned IsInstalled = 2;
constexpr unsigned WorkersFail = 4;
constexpr unsigned CommandsStay = 8;

// So many turns are far more than any input needs: then the daemon turns in vain.
constexpr int MostTurns = 20000;
constexpr std::size_t MostClients = 24;

long long now = 1'000'000'000'000; // microseconds

struct Peer {
    int descriptor;
    bool ended = false;
};

/** One input, as it is played. */
struct Play {
    unsigned mode = 0;
    std::vector<std::string_view> requests;
    std::size_t next = 0;
    std::vector<Peer> peers;
    std::vector<pid_t> sleepers; // not yet seen to end
    int port = 0;
    int turns = 0;
    bool stopped = false;
};
Play* play = nullptr;

int Connect()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(play->port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "the daemon can be connected to");
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return descriptor;
}

/** Leaves no port behind that would have to wait before it is used again. */
void CloseAtOnce(Peer& peer)
{
    const linger atOnce = {1, 0};
    setsockopt(peer.descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(peer.descriptor);
    peer.descriptor = -1;
    peer.ended = true;
}

void SendNext()
{
    std::string_view request = play->requests[play->next++];
    const bool goesOn = request.starts_with('+') && !play->peers.empty() && !play->peers.back().ended;
    if (goesOn)
        request.remove_prefix(1);
    else
        play->peers.push_back({Connect()});
    // The daemon may have answered and gone already.
    [[maybe_unused]] const ssize_t sent =
        send(play->peers.back().descriptor, request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

/** Reads what has arrived; true when there was anything. */
bool ReadAnswers()
{
    bool any = false;
    for (Peer& peer : play->peers) {
        char buffer[65536];
        ssize_t count = 0;
        while (!peer.ended && (count = recv(peer.descriptor, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0) {
            any = true;
            if (count == 0)
                CloseAtOnce(peer);
        }
        if (!peer.ended && errno != EAGAIN)
            CloseAtOnce(peer);
    }
    return any;
}

bool AreAllAnswered()
{
    for (const Peer& peer : play->peers)
        if (!peer.ended)
            return false;
    return true;
}

/** Reads to every client's end. On a busy machine it comes a moment after the daemon has closed: true in
 * time. */
bool ReadToEnds()
{
    while (!AreAllAnswered()) {
        std::vector<pollfd> waiting;
        for (const Peer& peer : play->peers)
            if (!peer.ended)
                waiting.push_back({peer.descriptor, POLLIN, 0});
        constexpr int patience = 5000; // milliseconds
        if (poll(waiting.data(), waiting.size(), patience) == 0)
            return false;
        ReadAnswers();
    }
    return true;
}

void SignalSelf()
{
    play->stopped = true;
    raise(SIGTERM); // blocked: the daemon reads it from its descriptor
}
} // namespace

extern "C" __attribute__((returns_twice)) pid_t __real_vfork();

namespace
{
/** What every child of the daemon's is instead. */
pid_t StartHarmlessChild()
{
    const bool stays = (play->mode & CommandsStay) != 0;
    const pid_t child = __real_vfork();
    if (child == 0) {
        if (!stays)
            _exit((play->mode & WorkersFail) != 0 ? 1 : 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl("/bin/sleep", "sleep", "1000", nullptr);
        _exit(1);
    }
    siginfo_t end;
    if (child > 0 && stays)
        play->sleepers.push_back(child);
    else if (child > 0)
        waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT); // so that every run goes the same
    return child;
}
} // namespace

// The daemon's own way to start its children. The linker takes this one and not the library's.
void ChildStart::Prepare() {}

ChildStart::Handover::Handover(Memory memory, int first, int second)
    : memory_(memory), first_(first), second_(second)
{
}

ChildStart::Handover::~Handover() = default;

pid_t ChildStart::Handover::Start(void (*)(void*), void*) const
{
    static_cast<void>(memory_);
    return StartHarmlessChild();
}

// And should it ever find another: no input may have anything run.
extern "C" pid_t __wrap_fork()
{
    Require(false, "no child is started but by ChildStart");
    return -1;
}

extern "C" pid_t __wrap_vfork()
{
    return __wrap_fork();
}

extern "C" int __wrap_clone(int (*)(void*), void*, int, void*, ...)
{
    return __wrap_fork();
}

extern "C" int __wrap_execve(const char*, char* const*, char* const*)
{
    return __wrap_fork();
}

extern "C" int __real_kill(pid_t process, int signal);
extern "C" int __wrap_kill(pid_t process, int signal)
{
    // One that has ended and has not been reaped is its own too.
    siginfo_t state;
    Require(process > 0 &&
                waitid(P_PID, static_cast<id_t>(process), &state, WEXITED | WNOHANG | WNOWAIT) == 0,
            "nobody but the daemon's own children is signalled");
    return __real_kill(process, signal);
}

// Stands in for Poller::Wait: before the daemon waits, its clients have their turn.
extern "C" void __real__ZN6Poller4WaitEx(Poller* poller, long long milliseconds);
extern "C" void __wrap__ZN6Poller4WaitEx(Poller* poller, long long milliseconds)
{
    Require(++play->turns < MostTurns, "the daemon comes to an end");
    bool active = ReadAnswers();
    if (play->next < play->requests.size()) {
        SendNext();
        active = true;
    } else if (!play->stopped && AreAllAnswered()) {
        SignalSelf();
        active = true;
    }
    __real__ZN6Poller4WaitEx(poller, active ? 0 : (play->sleepers.empty() ? 0 : 1));
    if (active || milliseconds == 0)
        return;
    // Nothing is under way: the next thing to happen is a deadline, or that everybody has been idle for long
    // enough.
    if (milliseconds > 0)
        now += milliseconds * 1000;
    else if (!play->stopped)
        SignalSelf();
}

// The daemon's clock.
long long Clock::SteadyMicroseconds()
{
    return now;
}

long long Clock::SteadyMilliseconds()
{
    return now / 1000;
}

long long Clock::EpochMilliseconds()
{
    return now / 1000;
}

namespace
{
int CountDescriptors()
{
    int count = 0;
    DIR* directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr)
        ++count;
    closedir(directory);
    return count;
}

int Serve(RuvelServer& server, int port)
{
    play->port = port;
    return server.MainDaemonLoop(port, OwnDirectory().c_str(), 0, 1);
}

void EndSleepers()
{
    for (const pid_t sleeper : play->sleepers)
        if (waitpid(sleeper, nullptr, WNOHANG) == 0) {
            __real_kill(sleeper, SIGKILL);
            waitpid(sleeper, nullptr, 0);
        }
}
} // namespace

/** The engine has a thread of its own, which must not take the daemon's signals. */
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    sigset_t daemons;
    sigemptyset(&daemons);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&daemons, signal);
    return sigprocmask(SIG_BLOCK, &daemons, nullptr);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static int port = 12000 + static_cast<int>(std::random_device{}() % 16000);
    SilenceStandardOutput();
    GoOnAfterAlarms();
    OwnDirectory();
    const auto [choice, text] = TakeChoice(data, size);
    Play current;
    current.mode = choice;
    current.requests = Split(text, '~');
    if (current.requests.size() > MostClients)
        return 0;
    play = &current;
    const int descriptors = CountDescriptors();
    {
        RuvelServer server;
        if ((choice & IsInstalled) == 0) {
            server.SetSingleUser();
            if ((choice & ChecksPasswords) == 0)
                server.SetNoPasswordCheck();
        }
        // Somebody else may have the port, or the one below it.
        while (Serve(server, port) != 0) {
            Require(current.next == 0 && current.turns == 0, "a daemon that serves ends well");
            port = 12000 + static_cast<int>(std::random_device{}() % 16000);
        }
    }
    Require(ReadToEnds(), "every client has been let go");
    EndSleepers();
    prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); // or the search for leaks cannot be made
    Require(CountDescriptors() == descriptors, "no descriptor is left open");
    Require(std::filesystem::is_empty(OwnDirectory()), "no log file is left");
    return 0;
}
