// What clients that say nothing, read nothing or cannot be got rid of cost everybody else: the latency of a
// launch before, under and after such a load, and what the daemon uses while it bears it.

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <vector>

#include <unistd.h>

#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Figures.h"
#include "bench/ProcessUse.h"

namespace
{
constexpr int SilentClients = 300;
constexpr int LongCommands = 64;
constexpr int LongCommandBytes = 65536;
constexpr int UnreadListings = 20;
constexpr int UnreadOutputs = 20; // of `yes`, on its client's socket
constexpr int SmallReceiveBuffer = 4096;
constexpr int Rounds = 10;
constexpr int LaunchesPerRound = 50;
constexpr int BearingSeconds = 5;

/** The load is there while the object is: its clients go with it. */
class Load
{
public:
    explicit Load(const BenchDaemon& daemon)
    {
        for (int i = 0; i < SilentClients; ++i)
            clients_.push_back(ConnectTo(daemon.Port()));
        for (int i = 0; i < LongCommands; ++i)
            Ask(daemon, LaunchRequest("NOSOCKET", LongCommand()) + "\n");
        for (int i = 0; i < UnreadOutputs; ++i)
            Ask(daemon, LaunchRequest("SOCKET", "exec yes"));
        // In the order of their coming: when this listing is there, all of the above is served.
        ExpectCommands(daemon);
        for (int i = 0; i < UnreadListings; ++i)
            Ask(daemon, InfoRequest(), SmallReceiveBuffer);
        ExpectCommands(daemon);
    }

private:
    static std::string LongCommand()
    {
        std::string command = "exec sleep 1000 #";
        command.resize(LongCommandBytes, 'x');
        return command;
    }

    void Ask(const BenchDaemon& daemon, const std::string& request, int receiveBufferBytes = 0)
    {
        clients_.push_back(ConnectTo(daemon.Port(), receiveBufferBytes));
        Send(clients_.back(), request);
    }

    static void ExpectCommands(const BenchDaemon& daemon)
    {
        const FileDescriptor connection = ConnectTo(daemon.Port());
        Send(connection, InfoRequest());
        const std::string listing = ReadToEnd(connection);
        const int expected = LongCommands + UnreadOutputs;
        if (listing.find("->Found " + std::to_string(expected) + " active command(s)") == std::string::npos)
            throw std::runtime_error("not every command of the load is alive");
    }

    std::vector<FileDescriptor> clients_;
};

Figures MeasureLaunches(const BenchDaemon& daemon)
{
    const std::string request = LaunchRequest("SOCKET", "true");
    Figures figures;
    for (int round = 0; round < Rounds; ++round) {
        figures.BeginRound();
        for (int launch = 0; launch < LaunchesPerRound; ++launch)
            figures.Add(TimeLaunch(daemon.Port(), request).sinceRequest);
    }
    return figures;
}

void PrintBearing(const BenchDaemon& daemon)
{
    const ProcessUse before = ProcessUse::Of(daemon.Id());
    sleep(BearingSeconds);
    const ProcessUse after = ProcessUse::Of(daemon.Id());
    std::printf("under the load and asked for nothing: %ld context switches and %.1f us of processor time in "
                "%d s; %ld KiB resident\n",
                after.contextSwitches - before.contextSwitches,
                after.cpuMicroseconds - before.cpuMicroseconds, BearingSeconds, after.residentKilobytes);
}

void Measure()
{
    const BenchDaemon daemon;
    const Figures unloaded = MeasureLaunches(daemon);
    const long residentBefore = ProcessUse::Of(daemon.Id()).residentKilobytes;
    Figures loaded;
    {
        const Load load(daemon);
        loaded = MeasureLaunches(daemon);
        PrintBearing(daemon);
    }
    const Figures after = MeasureLaunches(daemon);
    std::printf("resident before the load: %ld KiB, after its clients have gone: %ld KiB\n\n", residentBefore,
                ProcessUse::Of(daemon.Id()).residentKilobytes);
    std::printf("%d silent clients, %d that do not read a listing of %d commands of %d bytes, %d that do not "
                "read the output of `yes`; %d launches of `true` each time, request to return line\n",
                SilentClients, UnreadListings, LongCommands, LongCommandBytes, UnreadOutputs,
                Rounds * LaunchesPerRound);
    PrintTable("microseconds", {{"without the load", unloaded}, {"under it", loaded}, {"after it", after}});
    std::printf("difference of the medians: %.3f ms\n", (loaded.Median() - unloaded.Median()) / 1000);
}
} // namespace

int main()
{
    try {
        Measure();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "LoadedLatency: %s\n", failure.what());
        return 1;
    }
    return 0;
}
