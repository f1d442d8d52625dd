// How fast a file is moved from and to a memory file system over loopback, and what that costs the
// processor, next to a bare loop that moves the same file in the same blocks.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "bench/BareTransfer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Figures.h"
#include "bench/ProcessUse.h"

namespace fs = std::filesystem;
using BareTransfer::Server;

namespace
{
constexpr int Rounds = 5;
constexpr long long FileSize = 2LL << 30;
constexpr double Mebibyte = 1 << 20;
constexpr double Gibibyte = 1 << 30;

/** A file in memory with a room beside it for its copy; both go with the object. */
class MemoryFile
{
public:
    MemoryFile()
    {
        char directory[] = "/dev/shm/ruvelbench-XXXXXXXX";
        if (mkdtemp(directory) == nullptr)
            ThrowSystemError("mkdtemp");
        directory_ = directory;
        std::vector<char> piece(static_cast<std::size_t>(Mebibyte));
        for (std::size_t i = 0; i < piece.size(); ++i)
            piece[i] = static_cast<char>(i * 2654435761U >> 13);
        std::ofstream file(Path(), std::ios::binary);
        for (long long bytes = 0; bytes < FileSize; bytes += static_cast<long long>(piece.size()))
            file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
        file.close();
        if (!file) {
            fs::remove_all(directory_);
            throw std::runtime_error("no room for the file in /dev/shm");
        }
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile()
    {
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }

    std::string Path() const { return directory_ + "/file"; }
    std::string CopyPath() const { return directory_ + "/copy"; }

private:
    std::string directory_;
};

/** One direction, by one server. */
struct Measured {
    Figures mebibytesPerSecond, cpuMillisecondsPerGibibyte;

    void Add(double beganAt, long long bytes, double cpuSeconds)
    {
        if (bytes != FileSize)
            throw std::runtime_error("the file did not arrive whole");
        const double seconds = (NowInMicroseconds() - beganAt) / 1e6;
        mebibytesPerSecond.BeginRound();
        mebibytesPerSecond.Add(static_cast<double>(bytes) / Mebibyte / seconds);
        cpuMillisecondsPerGibibyte.BeginRound();
        cpuMillisecondsPerGibibyte.Add(1000 * cpuSeconds / (static_cast<double>(bytes) / Gibibyte));
    }
};

/** The client's side: the same towards both servers. */
long long MoveBytes(Server::Task serversTask, const std::string& path, int port)
{
    const FileDescriptor connection = ConnectTo(port);
    return serversTask == Server::Task::Send ? BareTransfer::Drain(connection)
                                             : BareTransfer::SendFile(path, connection);
}

void AddBareRound(Measured& measured, Server::Task task, const MemoryFile& file)
{
    fs::remove(file.CopyPath());
    const double begin = NowInMicroseconds();
    Server server(task, task == Server::Task::Send ? file.Path() : file.CopyPath());
    const long long bytes = MoveBytes(task, file.Path(), server.Port());
    const double cpuSeconds = server.WaitForEnd();
    measured.Add(begin, bytes, cpuSeconds);
}

/** The port in "WRITE|port|..." or "READ|port|...". */
int DataPortOf(const std::string& answer)
{
    return std::atoi(answer.c_str() + answer.find('|') + 1);
}

void AddDaemonRound(Measured& measured, Server::Task task, const MemoryFile& file, const BenchDaemon& daemon)
{
    fs::remove(file.CopyPath());
    const bool isGet = task == Server::Task::Send;
    const double cpuBefore = ProcessUse::Of(daemon.Id()).endedChildrensCpuSeconds;
    const double begin = NowInMicroseconds();
    const FileDescriptor control = ConnectTo(daemon.Port());
    Send(control, "RuvelControl V1.9|" + OwnUser() + "||" + (isGet ? "TRANSFERGET" : "TRANSFERPUT") +
                      "|BINARY|" + (isGet ? file.Path() : file.CopyPath()) + "|0");
    const std::string answer = ReadUntil(control, "(Unix)\n");
    const long long bytes = MoveBytes(task, file.Path(), DataPortOf(answer));
    ReadUntil(control, "->ProcessReturnCode = 0\n");
    const double cpuAfter = ProcessUse::Of(daemon.Id()).endedChildrensCpuSeconds;
    measured.Add(begin, bytes, cpuAfter - cpuBefore);
    if (!isGet && fs::file_size(file.CopyPath()) != static_cast<std::uintmax_t>(FileSize))
        throw std::runtime_error("the copy is not whole");
}

void Measure()
{
    const MemoryFile file;
    const BenchDaemon daemon;
    Measured bareGet, get, barePut, put;
    for (int round = 0; round < Rounds; ++round) {
        AddBareRound(bareGet, Server::Task::Send, file);
        AddDaemonRound(get, Server::Task::Send, file, daemon);
        AddBareRound(barePut, Server::Task::Receive, file);
        AddDaemonRound(put, Server::Task::Receive, file, daemon);
    }
    std::printf("%d rounds of %.0f GiB each\n\n", Rounds, static_cast<double>(FileSize) / Gibibyte);
    PrintTable("get, MiB/s",
               {{"bare loop", bareGet.mebibytesPerSecond}, {"RuvelServer", get.mebibytesPerSecond}});
    PrintTable("put, MiB/s",
               {{"bare loop", barePut.mebibytesPerSecond}, {"RuvelServer", put.mebibytesPerSecond}});
    PrintTable(
        "get, processor milliseconds of the serving process per GiB",
        {{"bare loop", bareGet.cpuMillisecondsPerGibibyte}, {"RuvelServer", get.cpuMillisecondsPerGibibyte}});
    PrintTable(
        "put, processor milliseconds of the serving process per GiB",
        {{"bare loop", barePut.cpuMillisecondsPerGibibyte}, {"RuvelServer", put.cpuMillisecondsPerGibibyte}});
}
} // namespace

int main()
{
    try {
        Measure();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "TransferSpeed: %s\n", failure.what());
        return 1;
    }
    return 0;
}
