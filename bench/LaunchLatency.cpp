// How long a launch takes that does nothing, next to what the system alone needs for it; and what a daemon
// costs that has nothing to do.

#include <cstdio>
#include <exception>

#include <sys/wait.h>
#include <unistd.h>

#include "bench/BareServer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Figures.h"
#include "bench/ProcessUse.h"

namespace
{
constexpr int Rounds = 20;
constexpr int LaunchesPerRound = 100;
constexpr int Launches = Rounds * LaunchesPerRound;
constexpr int IdleSeconds = 30;

/** A server's launches and what it used for them. */
struct Served {
    Figures sinceRequest, sinceConnect;
    double cpuMicroseconds = 0;
    long contextSwitches = 0;

    void AddRound(pid_t server, int port, const std::string& request)
    {
        const ProcessUse before = ProcessUse::Of(server);
        sinceRequest.BeginRound();
        sinceConnect.BeginRound();
        for (int launch = 0; launch < LaunchesPerRound; ++launch) {
            const LaunchTimes times = TimeLaunch(port, request);
            sinceRequest.Add(times.sinceRequest);
            sinceConnect.Add(times.sinceConnect);
        }
        const ProcessUse after = ProcessUse::Of(server);
        cpuMicroseconds += after.cpuMicroseconds - before.cpuMicroseconds;
        contextSwitches += after.contextSwitches - before.contextSwitches;
    }
};

void AddFloorRound(Figures& floor)
{
    floor.BeginRound();
    for (int launch = 0; launch < LaunchesPerRound; ++launch) {
        const double begin = NowInMicroseconds();
        waitpid(StartTrue(-1), nullptr, 0);
        floor.Add(NowInMicroseconds() - begin);
    }
}

void PrintUse(const char* name, const Served& served)
{
    std::printf("%-48s %9.1f us of its own processor time, %.2f context switches per launch\n", name,
                served.cpuMicroseconds / Launches, static_cast<double>(served.contextSwitches) / Launches);
}

void MeasureLaunches(const BenchDaemon& daemon)
{
    const BareServer bare;
    const std::string request = LaunchRequest("SOCKET", "true");
    Figures floor;
    Served byBare, byDaemon;
    for (int round = 0; round < Rounds; ++round) {
        AddFloorRound(floor);
        byDaemon.AddRound(daemon.Id(), daemon.Port(), request);
        byBare.AddRound(bare.Id(), bare.Port(), request);
    }
    std::printf("%d rounds of %d launches of `true` by each, microseconds\n", Rounds, LaunchesPerRound);
    PrintTable("", {{"vfork, exec of sh -c true, waitpid", floor},
                    {"bare server, request to return line", byBare.sinceRequest},
                    {"RuvelServer, request to return line", byDaemon.sinceRequest},
                    {"bare server, connect to return line", byBare.sinceConnect},
                    {"RuvelServer, connect to return line", byDaemon.sinceConnect}});
    PrintUse("bare server", byBare);
    PrintUse("RuvelServer", byDaemon);
}

void MeasureIdleness(const BenchDaemon& daemon)
{
    sleep(1); // the last client has left
    const ProcessUse before = ProcessUse::Of(daemon.Id());
    sleep(IdleSeconds);
    const ProcessUse after = ProcessUse::Of(daemon.Id());
    std::printf("\nidle daemon: %ld context switches and %.1f us of processor time in %d s\n",
                after.contextSwitches - before.contextSwitches,
                after.cpuMicroseconds - before.cpuMicroseconds, IdleSeconds);
}
} // namespace

int main()
{
    try {
        const BenchDaemon daemon;
        MeasureLaunches(daemon);
        MeasureIdleness(daemon);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "LaunchLatency: %s\n", failure.what());
        return 1;
    }
    return 0;
}
