// What servers cost that nobody asks for anything, and how soon they serve.

#include <unistd.h>

#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Peers.h"
#include "bench/ProcessUse.h"
#include "bench/Subjects.h"

namespace
{
const Row Idle = {"idle", "idle: context switches per second", "1/s", {Sense::AtMost, Of::Value, 0}};
const Row Listening = {
    "listening", "memory of a server that only listens, PSS", "KiB", {Sense::AtMost, Of::Value, 1700}};
const Row Start = {
    "start", "from the start of the process to the first answer", "ms", {Sense::AtMost, Of::Value, 20}};

constexpr unsigned SettlingSeconds = 6; // the first clients have left for good
} // namespace

void MeasureStanding(const Extent& extent, Results& results)
{
    for (int round = 0; round < extent.Rounds(20, 5); ++round)
        results.Add(Start, Results::Own, BenchDaemon().StartMilliseconds());

    const MemoryFolder folder;
    const BenchDaemon daemon;
    const Peer socat = MakeSocat("true", false);
    const Rsync rsync(folder.Path());
    const Vsftpd vsftpd(folder.Path());
    const OpenSsh openSsh;
    const struct {
        const char* name;
        pid_t id;
    } servers[] = {{Results::Own, daemon.Id()},
                   {"socat", socat.Id()},
                   {"rsync", rsync.Id()},
                   {"vsftpd", vsftpd.Id()},
                   {"OpenSSH", openSsh.Id()}};
    sleep(SettlingSeconds);
    const auto seconds = static_cast<unsigned>(extent.Rounds(30, 10));
    std::vector<long> before;
    for (const auto& server : servers)
        before.push_back(ProcessUse::Of(server.id).contextSwitches);
    sleep(seconds);
    for (std::size_t i = 0; i < std::size(servers); ++i) {
        const long switches = ProcessUse::Of(servers[i].id).contextSwitches - before[i];
        results.Add(Idle, servers[i].name, static_cast<double>(switches) / seconds);
        results.Add(Listening, servers[i].name, ProportionalMemory(servers[i].id));
    }
}
