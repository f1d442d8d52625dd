// How long a launch takes that does nothing, next to what the system alone needs for it: one at a time, and
// from many clients at once.

#include <deque>
#include <stdexcept>
#include <vector>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "bench/BareServer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Peers.h"
#include "bench/ProcessUse.h"
#include "bench/Subjects.h"

namespace
{
const Row Launch = {
    "launch", "`true` in SOCKET mode, one at a time, median", "ms", {Sense::AtMost, Of::Ratio, 1.2}};
const Row LaunchTail = {
    "launch-p99", "the same, 99th percentile to the floor's median", "ms", {Sense::AtMost, Of::Ratio, 2}};
const Row Nosocket = {"nosocket",
                      "`true` in NOSOCKET mode: its log is delivered by a worker",
                      "ms",
                      {Sense::AtMost, Of::Ratio, 2}};
const Row Burst = {
    "burst", "`true` in SOCKET mode for 32 clients at once", "launches/s", {Sense::AtLeast, Of::Ratio, 0.9}};
const Row Cpu = {"cpu",
                 "the server's processor time for one of these, the command's included",
                 "ms",
                 {Sense::AtMost, Of::Ratio, 1.09, "bare server"}};

constexpr const char* Floor = "vfork, exec, wait";
constexpr const char* Bare = "bare server";
constexpr int Clients = 32;
constexpr int MultiplexedLaunches = 20; // fewer of what takes longer
constexpr int FreshLaunches = 2;

/** Milliseconds of each launch. */
template <class LaunchOnce>
std::vector<double> Sample(int launches, LaunchOnce launchOnce)
{
    std::vector<double> samples;
    for (int launch = 0; launch < launches; ++launch)
        samples.push_back(launchOnce() / 1000);
    return samples;
}

template <class Act>
double TimeOf(Act act)
{
    const double begin = NowInMicroseconds();
    act();
    return NowInMicroseconds() - begin;
}

/** Keeps as many clients busy as there are to be at once; launches per second. */
double MeasureBurst(int port, const std::string& request, int launches)
{
    std::deque<FileDescriptor> clients;
    std::vector<pollfd> polled;
    int begun = 0, ended = 0;
    const auto begin = [&](std::size_t at) {
        clients[at] = ConnectTo(port);
        if (!request.empty())
            Send(clients[at], request);
        polled[at] = {clients[at].Number(), POLLIN, 0};
        ++begun;
    };
    const double start = NowInMicroseconds();
    for (std::size_t at = 0; at < Clients; ++at) {
        clients.emplace_back();
        polled.emplace_back();
        begin(at);
    }
    while (ended < launches) {
        poll(polled.data(), polled.size(), -1);
        for (std::size_t at = 0; at < Clients; ++at) {
            char answer[4096];
            if (polled[at].revents == 0 || recv(polled[at].fd, answer, sizeof answer, 0) > 0)
                continue;
            polled[at] = {-1, 0, 0};
            clients[at] = FileDescriptor();
            if (++ended, begun < launches)
                begin(at);
        }
    }
    return launches / (NowInMicroseconds() - start) * 1e6;
}

double MeasureFloorBurst(int launches)
{
    int begun = 0;
    const double start = NowInMicroseconds();
    for (; begun < Clients; ++begun)
        StartTrue(-1);
    for (int ended = 0; ended < launches; ++ended) {
        wait(nullptr);
        if (begun++ < launches)
            StartTrue(-1);
    }
    return launches / (NowInMicroseconds() - start) * 1e6;
}

/** Everybody who takes part. */
struct Contest {
    Contest() : socat(MakeSocat("/bin/sh -c true", false)), forkingSocat(MakeSocat("/bin/sh -c true", true))
    {
        request = LaunchRequest("SOCKET", "true");
        logRequest = LaunchRequest("NOSOCKET", "true");
    }

    BenchDaemon daemon;
    BareServer bare;
    Peer socat, forkingSocat;
    OpenSsh openSsh;
    std::string request, logRequest;
};

void AddSingleLaunches(const Contest& contest, int launches, Results& results)
{
    const auto add = [&](const char* name, const std::vector<double>& samples) {
        results.Add(Launch, name, Percentile(samples, 0.5));
        // So few have no tail to speak of.
        if (samples.size() > MultiplexedLaunches)
            results.Add(LaunchTail, name, Percentile(samples, 0.99));
    };
    const auto floor = Sample(launches, [] { return TimeOf([] { waitpid(StartTrue(-1), nullptr, 0); }); });
    results.Add(Launch, Floor, Percentile(floor, 0.5));
    results.Add(LaunchTail, Floor, Percentile(floor, 0.5));
    results.Add(Nosocket, Floor, Percentile(floor, 0.5));
    add(Bare,
        Sample(launches, [&] { return TimeLaunch(contest.bare.Port(), contest.request).sinceRequest; }));
    add(Results::Own,
        Sample(launches, [&] { return TimeLaunch(contest.daemon.Port(), contest.request).sinceRequest; }));
    const auto logs =
        Sample(launches, [&] { return TimeLaunch(contest.daemon.Port(), contest.logRequest).sinceRequest; });
    results.Add(Nosocket, Results::Own, Percentile(logs, 0.5));
    add("socat, nofork", Sample(launches, [&] { return TimeAnswer(contest.socat.Port(), ""); }));
    add("socat", Sample(launches, [&] { return TimeAnswer(contest.forkingSocat.Port(), ""); }));
    add("OpenSSH, multiplexed",
        Sample(MultiplexedLaunches, [&] { return TimeOf([&] { contest.openSsh.RunMultiplexed("true"); }); }));
    add("OpenSSH, fresh",
        Sample(FreshLaunches, [&] { return TimeOf([&] { contest.openSsh.RunFresh("true"); }); }));
}

void AddBursts(const Contest& contest, int launches, Results& results)
{
    results.Add(Burst, Floor, MeasureFloorBurst(launches));
    const auto add = [&](const char* name, pid_t server, int port, const std::string& request) {
        const double before = ProcessUse::Of(server).CpuMilliseconds();
        results.Add(Burst, name, MeasureBurst(port, request, launches));
        const double after = ProcessUse::Of(server).CpuMilliseconds();
        results.Add(Cpu, name, (after - before) / launches);
    };
    add(Bare, contest.bare.Id(), contest.bare.Port(), contest.request);
    add(Results::Own, contest.daemon.Id(), contest.daemon.Port(), contest.request);
    add("socat, nofork", contest.socat.Id(), contest.socat.Port(), "");
    add("socat", contest.forkingSocat.Id(), contest.forkingSocat.Port(), "");
}
} // namespace

void MeasureLaunches(const Extent& extent, Results& results)
{
    const Contest contest;
    const int rounds = extent.Rounds(11, 3);
    for (int round = 0; round < rounds; ++round) {
        AddSingleLaunches(contest, extent.Rounds(120, 60), results);
        AddBursts(contest, extent.Rounds(400, 200), results);
    }
}
