// What a thousand bad clients of all kinds cost everybody else: the time of others' launches and listings at
// its 50th and 99th percentile, without and with them, and how long a turn of the daemon's loop takes, as
// the system's trace points tell it from outside. The bad clients are niced, so that not they are measured.
// Their number can be given.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/ProcessUse.h"
#include "bench/Results.h"

namespace
{
constexpr int SmallReceiveBuffer = 4096;
constexpr int MegaByte = 1024 * 1024;
constexpr int Samples = 2000;
constexpr int TracedSeconds = 10;

std::string Kill(const std::string& word, int number)
{
    std::string request = InfoRequest();
    request.replace(request.rfind("INFO"), 4, word);
    return request + "|" + std::to_string(number);
}

std::string LongRequest()
{
    return LaunchRequest("SOCKET", "true #" + std::string(MegaByte - 200, 'x')) + "\n";
}

void CloseWithReset(FileDescriptor& connection)
{
    const linger atOnce = {1, 0};
    setsockopt(connection.Number(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    connection = FileDescriptor();
}

/** The clients that stay, and what the others do once a second. */
class Crowd
{
public:
    Crowd(int port, int size) : port_(port), size_(size) {}

    void Gather()
    {
        // In SOCKET and NOSOCKET mode, more than any buffer holds.
        Add(size_ / 20, LaunchRequest("SOCKET", "exec head -c 100000000 /dev/zero"), SmallReceiveBuffer);
        Add(size_ / 20, LaunchRequest("NOSOCKET", "exec head -c 8000000 /dev/zero"), SmallReceiveBuffer);
        Add(size_ / 40, LaunchRequest("NOSOCKET", "trap '' TERM; while :; do sleep 1000; done"));
        Add(size_ / 20, InfoRequest(), SmallReceiveBuffer);
        // Of those that ignore it: what the measure without the crowd launched has had the numbers before.
        for (int number = 0; number < size_ / 40; ++number)
            Add(1, Kill("KILL", Samples + size_ / 10 + number));
        // Whose log nobody takes: the port is closed.
        std::string passive = LaunchRequest("NOSOCKET", "true");
        passive.replace(passive.rfind('|'), std::string::npos, "|127.0.0.1|1|0");
        Add(size_ / 40, passive);
        Add(size_ / 10, LaunchRequest("SOCKET", std::string(2000, 'x')).substr(0, 1000)); // the half of one
        for (int i = 0; i < size_ / 10; ++i)
            slow_.push_back(ConnectTo(port_));
        Add(size_ - static_cast<int>(clients_.size() + slow_.size()), ""); // silent
    }

    /** All of them once a second, spread over it: they do not know of each other. */
    [[noreturn]] void Misbehave()
    {
        const std::size_t steps = static_cast<std::size_t>(std::max(size_ / 40, 1));
        for (std::size_t step = 0;; step = (step + 1) % steps) {
            for (std::size_t i = step; i < slow_.size(); i += steps)
                send(slow_[i].Number(), "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            LeaveEarly(step);
            if (step == 0)
                SendLongRequest();
            usleep(1'000'000 / static_cast<useconds_t>(steps));
        }
    }

private:
    void Add(int count, const std::string& request, int receiveBufferBytes = 0)
    {
        for (int i = 0; i < count; ++i) {
            clients_.push_back(ConnectTo(port_, receiveBufferBytes));
            if (!request.empty())
                Send(clients_.back(), request);
            if (i % 16 == 15)
                TimeAnswer(port_, InfoRequest()); // no more wait to be accepted than there is room for
        }
    }

    void LeaveEarly(std::size_t step) const
    {
        try {
            FileDescriptor gone = ConnectTo(port_);
            Send(gone, LaunchRequest(step % 2 == 0 ? "SOCKET" : "NOSOCKET", "seq 1 1000"));
            if (step % 3 != 0)
                CloseWithReset(gone); // in the middle; the rest close right after their request
        } catch (const std::exception&) {
            return; // as long as the daemon has no room for such as these
        }
    }

    void SendLongRequest() const
    {
        try {
            const FileDescriptor client = ConnectTo(port_);
            Send(client, LongRequest());
        } catch (const std::exception&) {
            return;
        }
    }

    int port_;
    int size_;
    std::vector<FileDescriptor> clients_;
    std::vector<FileDescriptor> slow_;
};

/** The crowd in a process of its own, which ends with the object. */
class CrowdProcess
{
public:
    CrowdProcess(int port, int size)
    {
        int ends[2];
        if (pipe(ends) != 0)
            ThrowSystemError("pipe");
        id_ = fork();
        if (id_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setpriority(PRIO_PROCESS, 0, 19);
            close(ends[0]);
            Run(port, size, ends[1]);
        }
        close(ends[1]);
        char ready = 0;
        const bool isThere = read(ends[0], &ready, 1) == 1;
        close(ends[0]);
        if (!isThere)
            throw std::runtime_error("the bad clients did not all come in");
    }
    CrowdProcess(const CrowdProcess&) = delete;
    CrowdProcess& operator=(const CrowdProcess&) = delete;
    ~CrowdProcess()
    {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
    pid_t Id() const { return id_; }

private:
    [[noreturn]] static void Run(int port, int size, int ready)
    {
        try {
            Crowd crowd(port, size);
            crowd.Gather();
            if (write(ready, "", 1) == 1)
                crowd.Misbehave();
        } catch (const std::exception& failure) {
            fprintf(stderr, "bad clients: %s\n", failure.what());
        }
        _exit(1);
    }

    pid_t id_;
};

struct Measured {
    double launch50, launch99, info50, info99; // ms
};

Measured Measure(const char* what, const BenchDaemon& daemon)
{
    const std::string launch = LaunchRequest("SOCKET", "true");
    std::vector<double> launches, listings;
    for (int i = 0; i < Samples; ++i) {
        launches.push_back(TimeLaunch(daemon.Port(), launch).sinceConnect / 1000);
        listings.push_back(TimeAnswer(daemon.Port(), InfoRequest()) / 1000);
    }
    const Measured measured = {Percentile(launches, 0.5), Percentile(launches, 0.99),
                               Percentile(listings, 0.5), Percentile(listings, 0.99)};
    printf("%-22s `true` p50 %6.2f p99 %6.2f ms   INFO p50 %6.2f p99 %6.2f ms\n", what, measured.launch50,
           measured.launch99, measured.info50, measured.info99);
    fflush(stdout);
    return measured;
}

/** Milliseconds between the end of a wait and the beginning of the next, of every turn in perf's records. */
std::vector<double> ReadTurns(const std::string& file)
{
    std::vector<double> turns;
    FILE* const lines = popen(("perf script -F time,event -i " + file + " 2>/dev/null").c_str(), "r");
    double lastEnd = 0, time = 0;
    for (char event[64]; lines != nullptr && fscanf(lines, "%lf: %63s", &time, event) == 2;) {
        const bool isBegin = strstr(event, "sys_enter_poll") != nullptr;
        if (isBegin && lastEnd != 0)
            turns.push_back((time - lastEnd) * 1000);
        lastEnd = isBegin ? 0 : time;
    }
    if (lines != nullptr)
        pclose(lines);
    return turns;
}

void MeasureTurns(const BenchDaemon& daemon)
{
    char file[] = "/tmp/ruvel-turns-XXXXXX";
    close(mkstemp(file));
    const pid_t tracer = fork();
    if (tracer == 0) {
        execlp("perf", "perf", "record", "-q", "--no-inherit", "-e", "syscalls:sys_enter_poll", "-e",
               "syscalls:sys_exit_poll", "-o", file, "-p", std::to_string(daemon.Id()).c_str(), nullptr);
        _exit(127);
    }
    const double end = NowInMicroseconds() + 1e6 * TracedSeconds;
    while (NowInMicroseconds() < end) {
        TimeLaunch(daemon.Port(), LaunchRequest("SOCKET", "true"));
        TimeAnswer(daemon.Port(), InfoRequest());
    }
    kill(tracer, SIGINT);
    waitpid(tracer, nullptr, 0);
    const std::vector<double> turns = ReadTurns(file);
    unlink(file);
    if (turns.empty())
        return void(printf("turns: not measured, as there is no perf or it may not trace\n"));
    printf("%zu turns: p50 %.3f p99 %.3f p99.9 %.3f longest %.3f ms\n", turns.size(), Percentile(turns, 0.5),
           Percentile(turns, 0.99), Percentile(turns, 0.999), Percentile(turns, 1));
}

/** What would outlive the daemon: commands that ignore their end, and workers whose client never comes. */
void EndChildrenOf(pid_t daemon)
{
    const std::string id = std::to_string(daemon);
    const double end = NowInMicroseconds() + 5e6;
    for (bool any = true; any && NowInMicroseconds() < end; usleep(20'000)) {
        any = false;
        std::ifstream children("/proc/" + id + "/task/" + id + "/children");
        for (pid_t child = 0; children >> child; any = true)
            kill(child, SIGKILL);
    }
}

void RaiseDescriptorLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}
} // namespace

int main(int argc, char** argv)
{
    const int size = argc > 1 ? atoi(argv[1]) : 1000;
    RaiseDescriptorLimit();
    try {
        const BenchDaemon daemon;
        const Measured alone = Measure("alone", daemon);
        const CrowdProcess crowd(daemon.Port(), size);
        const double usedBefore = ProcessUse::Of(crowd.Id()).CpuMilliseconds();
        const double begin = NowInMicroseconds();
        const Measured beside = Measure((std::to_string(size) + " bad clients").c_str(), daemon);
        const double used = ProcessUse::Of(crowd.Id()).CpuMilliseconds() - usedBefore;
        const double milliseconds = (NowInMicroseconds() - begin) / 1000;
        printf(
            "p99 above alone: `true` %+.2f ms, INFO %+.2f ms (at most 10); the bad clients used %.1f %% of "
            "a processor\n",
            beside.launch99 - alone.launch99, beside.info99 - alone.info99, 100 * used / milliseconds);
        MeasureTurns(daemon);
        EndChildrenOf(daemon.Id());
    } catch (const std::exception& failure) {
        fprintf(stderr, "BadClients: %s\n", failure.what());
        return 1;
    }
    return 0;
}
