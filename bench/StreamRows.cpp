// How fast a command's output reaches its client: on the client's own socket, and as a log.

#include <filesystem>
#include <stdexcept>

#include <unistd.h>

#include "bench/BareTransfer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Peers.h"
#include "bench/ProcessUse.h"
#include "bench/Subjects.h"

namespace fs = std::filesystem;

namespace
{
const Row Output = {
    "output", "a command's output on its client's socket", "MB/s", {Sense::AtLeast, Of::Ratio, 0.95}};
const Row Log = {"log", "delivery of a log", "MB/s", {Sense::AtLeast, Of::Ratio, 0.95}};
const Row LogCpu = {"log-cpu", "the server's processor time for that", "s", {Sense::AtMost, Of::Ratio, 1.05}};

constexpr const char* Direct = "the command writes to the socket";
constexpr const char* Loop = "loop of 16384-byte blocks";

class Stopwatch
{
public:
    double Seconds() const { return (NowInMicroseconds() - begin_) / 1e6; }
    /** Megabytes per second since the beginning. */
    double Speed(long long bytes, long long expected) const
    {
        if (bytes < expected)
            throw std::runtime_error("not everything arrived");
        return static_cast<double>(bytes) / 1e6 / Seconds();
    }

private:
    double begin_ = NowInMicroseconds();
};

/** The speed at which everything comes from a port, once the request, if any, has been sent. */
double DrainSpeed(int port, const std::string& request, long long expected)
{
    const Stopwatch watch;
    const FileDescriptor connection = ConnectTo(port);
    Send(connection, request);
    return watch.Speed(BareTransfer::Drain(connection), expected);
}

void AddOutputs(const std::string& file, long long size, const BenchDaemon& daemon, const Peer& socat,
                const Peer& forkingSocat, const OpenSsh& openSsh, Results& results)
{
    {
        const BareTransfer::Server cat(
            [&](const FileDescriptor& connection) { BareTransfer::BecomeCat(file, connection); });
        results.Add(Output, Direct, DrainSpeed(cat.Port(), "", size));
    }
    {
        const BareTransfer::Server copying(
            [&](const FileDescriptor& connection) { BareTransfer::CopyFromCat(file, connection); });
        results.Add(Output, "from a pipe, loop of 16384-byte blocks", DrainSpeed(copying.Port(), "", size));
    }
    results.Add(Output, Results::Own,
                DrainSpeed(daemon.Port(), LaunchRequest("SOCKET", "exec cat " + file), size));
    results.Add(Output, "socat, nofork", DrainSpeed(socat.Port(), "", size));
    results.Add(Output, "socat", DrainSpeed(forkingSocat.Port(), "", size));
    const Stopwatch watch;
    openSsh.RunMultiplexed("cat " + file);
    results.Add(Output, "OpenSSH, multiplexed", watch.Speed(size, size));
}

/** From the banner on, which comes when the command has written all of its log. */
void AddLogs(const std::string& file, long long size, const BenchDaemon& daemon, Results& results)
{
    {
        // As new as the daemon's log, and written alike.
        const std::string twin = file + "-twin";
        Child({"cat", file}, twin).WaitForEnd();
        BareTransfer::Server loop(
            [&](const FileDescriptor& connection) { BareTransfer::SendFile(twin, connection); });
        results.Add(Log, Loop, DrainSpeed(loop.Port(), "", size));
        results.Add(LogCpu, Loop, loop.WaitForEnd());
        fs::remove(twin);
    }
    const FileDescriptor connection = ConnectTo(daemon.Port());
    Send(connection, LaunchRequest("NOSOCKET", "exec cat " + file));
    long long bytes = static_cast<long long>(ReadUntil(connection, "(Unix)\n").size());
    const double cpuBefore = ProcessUse::Of(daemon.Id()).CpuMilliseconds();
    const Stopwatch watch;
    bytes += BareTransfer::Drain(connection);
    results.Add(Log, Results::Own, watch.Speed(bytes, size));
    results.Add(LogCpu, Results::Own, (ProcessUse::Of(daemon.Id()).CpuMilliseconds() - cpuBefore) / 1000);
}
} // namespace

void MeasureStreams(const Extent& extent, Results& results)
{
    const long long size = extent.FileSize();
    const MemoryFolder folder;
    const std::string file = folder / "file";
    BareTransfer::MakeFile(file, size);
    const BenchDaemon daemon;
    const Peer socat = MakeSocat("cat " + file, false);
    const Peer forkingSocat = MakeSocat("cat " + file, true);
    const OpenSsh openSsh;
    for (int round = 0; round < extent.Rounds(5, 3); ++round) {
        AddOutputs(file, size, daemon, socat, forkingSocat, openSsh, results);
        AddLogs(file, size, daemon, results);
    }
}
