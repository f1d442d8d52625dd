// What thousands of live commands cost everybody else and the daemon itself: a loaded daemon and an empty one
// take turns, on the same machine with the same number of processes.

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "bench/BareServer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/ProcessUse.h"
#include "bench/Subjects.h"

namespace
{
const Row Launch = {
    "live-launch", "`true` in SOCKET mode while 10,000 commands live", "ms", {Sense::AtMost, Of::Ratio, 1.3}};
const Row Nosocket = {"live-nosocket",
                      "`true` in NOSOCKET mode while 10,000 commands live",
                      "ms",
                      {Sense::AtMost, Of::Ratio, 1.3}};
const Row Info = {"live-info", "INFO with 10,000 lines", "ms", {Sense::AtMost, Of::Value, 30}};
const Row Memory = {"live-memory",
                    "the daemon's memory for each of 10,000 live commands, PSS",
                    "KiB",
                    {Sense::AtMost, Of::Value, 4}};
const Curve Commands = {"live-commands", "`true` while others live", "live commands", "ms"};
const Curve InfoLines = {"info-lines", "INFO", "live commands", "ms"};
const Curve MemoryCurve = {"memory", "the daemon's memory, PSS", "live commands", "KiB"};
const Curve Ends = {"ends", "the end of all at once, until all are told", "live commands", "ms"};

constexpr int Most = 10000;
constexpr int Steps[] = {0, 1000, 2500, 5000, Most};
constexpr const char* Empty = "the same daemon with none";
constexpr useconds_t LookPause = 1000;

/** Commands that sleep on their clients' sockets. */
class LiveCommands
{
public:
    explicit LiveCommands(const BenchDaemon& daemon) : daemon_(daemon) {}
    LiveCommands(const LiveCommands&) = delete;
    LiveCommands& operator=(const LiveCommands&) = delete;
    ~LiveCommands()
    {
        try {
            End();
        } catch (const std::exception&) {
            // The daemon ends what is left.
        }
    }

    void GrowTo(int count)
    {
        const std::string request = LaunchRequest("SOCKET", "exec sleep 10000");
        while (Count() < count) {
            clients_.push_back(ConnectTo(daemon_.Port()));
            Send(clients_.back(), request);
            ReadUntil(clients_.back(), "(Unix)\n");
        }
        if (static_cast<int>(ListProcesses().size()) != count)
            throw std::runtime_error("not every command is alive");
    }
    /** Ends every command by its id; milliseconds until each client has got its return line. */
    double End()
    {
        const std::vector<pid_t> processes = ListProcesses();
        const double begin = NowInMicroseconds();
        for (const pid_t process : processes)
            kill(process, SIGKILL);
        for (const FileDescriptor& client : clients_)
            ReadToEnd(client);
        clients_.clear();
        return (NowInMicroseconds() - begin) / 1000;
    }

private:
    int Count() const { return static_cast<int>(clients_.size()); }

    std::vector<pid_t> ListProcesses() const
    {
        const FileDescriptor connection = ConnectTo(daemon_.Port());
        Send(connection, InfoRequest());
        const std::string listing = ReadToEnd(connection);
        std::vector<pid_t> processes;
        constexpr std::string_view lead = "PID(";
        for (std::size_t at = 0; (at = listing.find(lead, at)) != std::string::npos; at += lead.size())
            processes.push_back(std::atoi(listing.c_str() + at + lead.size()));
        return processes;
    }

    const BenchDaemon& daemon_;
    std::vector<FileDescriptor> clients_;
};

double MedianLaunch(const BenchDaemon& daemon, const char* mode, int launches)
{
    const std::string request = LaunchRequest(mode, "true");
    std::vector<double> samples;
    for (int launch = 0; launch < launches; ++launch)
        samples.push_back(TimeLaunch(daemon.Port(), request).sinceRequest / 1000);
    return Percentile(samples, 0.5);
}

double MedianFloor(int launches)
{
    std::vector<double> samples;
    for (int launch = 0; launch < launches; ++launch) {
        const double begin = NowInMicroseconds();
        waitpid(StartTrue(-1), nullptr, 0);
        samples.push_back((NowInMicroseconds() - begin) / 1000);
    }
    return Percentile(samples, 0.5);
}

void AddRound(const BenchDaemon& loaded, const BenchDaemon& empty, int count, int launches, Results& results)
{
    results.Add(Commands, "a plain vfork, by the process with all the clients", count, MedianFloor(launches));
    for (const auto& [mode, row] : {std::pair{"SOCKET", &Launch}, std::pair{"NOSOCKET", &Nosocket}}) {
        const double without = MedianLaunch(empty, mode, launches);
        const double with = MedianLaunch(loaded, mode, launches);
        results.Add(Commands, mode, count, with);
        results.Add(Commands, std::string(mode) + ", " + Empty, count, without);
        if (count != Most)
            continue;
        results.Add(*row, Empty, without);
        results.Add(*row, Results::Own, with);
    }
    const double info = TimeAnswer(loaded.Port(), InfoRequest()) / 1000;
    results.Add(InfoLines, "INFO", count, info);
    if (count == Most)
        results.Add(Info, Results::Own, info);
}
} // namespace

void MeasureLiveCommands(const Extent& extent, Results& results)
{
    const BenchDaemon loaded, empty;
    LiveCommands live(loaded);
    // What the first launches and listings leave behind is no command's.
    MedianLaunch(loaded, "NOSOCKET", 20);
    const double before = ProportionalMemory(loaded.Id());
    for (const int count : Steps) {
        live.GrowTo(count);
        const double memory = ProportionalMemory(loaded.Id());
        results.Add(MemoryCurve, "RuvelServer", count, memory);
        if (count == Most)
            results.Add(Memory, Results::Own, (memory - before) / count);
        for (int round = 0; round < extent.Rounds(5, 3); ++round)
            AddRound(loaded, empty, count, extent.Rounds(60, 30), results);
    }
    results.Add(Ends, "RuvelServer", Most, live.End());
    for (const int count : {1000, 2500, 5000}) {
        live.GrowTo(count);
        results.Add(Ends, "RuvelServer", count, live.End());
    }
}
