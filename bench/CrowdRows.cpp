// What clients that say nothing, read nothing or cannot be got rid of cost everybody else.

#include <stdexcept>
#include <vector>

#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Subjects.h"

namespace
{
const Row Crowd = {"crowd",
                   "`true` beside 300 silent clients, 20 that do not read a long listing and 20 that do not "
                   "read `yes`",
                   "ms",
                   {Target::Sense::AtMost, Target::Of::Ratio, 1.3}};
const Curve Silent = {"silent-clients", "`true` while others have connected and say nothing",
                      "silent clients", "ms"};

constexpr int SilentClients = 300;
constexpr int LongCommands = 64;
constexpr int LongCommandBytes = 65536;
constexpr int UnreadListings = 20;
constexpr int UnreadOutputs = 20; // of `yes`, on its client's socket
constexpr int SmallReceiveBuffer = 4096;

/** The crowd is there while the object is: its clients go with it. */
class Load
{
public:
    explicit Load(const BenchDaemon& daemon) : daemon_(daemon) {}

    void AddSilent(int count)
    {
        for (int i = 0; i < count; ++i) {
            clients_.push_back(ConnectTo(daemon_.Port()));
            // A listing is served behind those before it: no more wait to be accepted than there is room for.
            if (i % 32 == 31)
                TimeAnswer(daemon_.Port(), InfoRequest());
        }
    }
    void AddOthers()
    {
        for (int i = 0; i < LongCommands; ++i)
            Ask(LaunchRequest("NOSOCKET", LongCommand()) + "\n");
        for (int i = 0; i < UnreadOutputs; ++i)
            Ask(LaunchRequest("SOCKET", "exec yes"));
        ExpectCommands();
        for (int i = 0; i < UnreadListings; ++i)
            Ask(InfoRequest(), SmallReceiveBuffer);
        ExpectCommands();
    }
    int Count() const { return static_cast<int>(clients_.size()); }

private:
    static std::string LongCommand()
    {
        std::string command = "exec sleep 1000 #";
        command.resize(LongCommandBytes, 'x');
        return command;
    }

    void Ask(const std::string& request, int receiveBufferBytes = 0)
    {
        clients_.push_back(ConnectTo(daemon_.Port(), receiveBufferBytes));
        Send(clients_.back(), request);
    }

    void ExpectCommands() const
    {
        const FileDescriptor connection = ConnectTo(daemon_.Port());
        Send(connection, InfoRequest());
        const int expected = LongCommands + UnreadOutputs;
        if (ReadToEnd(connection).find("->Found " + std::to_string(expected) + " active command(s)") ==
            std::string::npos)
            throw std::runtime_error("not every command of the crowd is alive");
    }

    const BenchDaemon& daemon_;
    std::vector<FileDescriptor> clients_;
};

double MedianLaunch(const BenchDaemon& daemon, int launches)
{
    const std::string request = LaunchRequest("SOCKET", "true");
    std::vector<double> samples;
    for (int launch = 0; launch < launches; ++launch)
        samples.push_back(TimeLaunch(daemon.Port(), request).sinceRequest / 1000);
    return Percentile(samples, 0.5);
}
} // namespace

void MeasureCrowds(const Extent& extent, Results& results)
{
    const int rounds = extent.Rounds(5, 3);
    const int launches = extent.Rounds(60, 30);
    const BenchDaemon empty;
    {
        const BenchDaemon daemon;
        Load load(daemon);
        load.AddSilent(SilentClients);
        load.AddOthers();
        for (int round = 0; round < rounds; ++round) {
            results.Add(Crowd, "the same daemon without them", MedianLaunch(empty, launches));
            results.Add(Crowd, Results::Own, MedianLaunch(daemon, launches));
        }
    }
    const BenchDaemon daemon;
    Load load(daemon);
    for (const int count : {0, 100, 250, 500, 1000}) {
        load.AddSilent(count - load.Count());
        for (int round = 0; round < rounds; ++round) {
            results.Add(Silent, "the same daemon with none", count, MedianLaunch(empty, launches));
            results.Add(Silent, "RuvelServer", count, MedianLaunch(daemon, launches));
        }
    }
}
