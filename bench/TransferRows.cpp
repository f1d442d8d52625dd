// How fast a file is moved from and to a memory file system, what that costs the server's processor, and how
// the time grows with the file.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <sys/mman.h>

#include "bench/BareTransfer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Peers.h"
#include "bench/ProcessUse.h"
#include "bench/Subjects.h"
#include "bench/SystemFacts.h"

namespace fs = std::filesystem;

namespace
{
const Row Get = {"get", "get of a file", "MB/s", {Sense::AtLeast, Of::Ratio, 0.95}};
const Row Put = {"put", "put of a file", "MB/s", {Sense::AtLeast, Of::Ratio, 0.95}};
const Row GetCpu = {
    "get-cpu", "the server's processor time for that get", "s", {Sense::AtMost, Of::Ratio, 1.05}};
const Row PutCpu = {
    "put-cpu", "the server's processor time for that put", "s", {Sense::AtMost, Of::Ratio, 1, "vsftpd"}};
const Curve Sizes = {"file-sizes", "moving a file, from the request to the return line", "MiB", "ms"};

constexpr const char* Loop = "loop of 16384-byte blocks";
constexpr long long Mebibyte = 1 << 20;
/** Memory that is left for everybody else while files are moved. */
constexpr long long MostElsewhere = 768 * Mebibyte;

/**
 * Memory in hand, every page of it. A virtual machine gives what is free for some seconds back to its host,
 * and to fetch it again takes several times as long as a move. While all memory but so much is held, all
 * moves get the same; and what was held and given back a moment ago none of them has to fetch.
 */
class HeldMemory
{
public:
    static HeldMemory AllBut(long long bytesLeft)
    {
        constexpr long long kibibyte = 1024;
        return HeldMemory(static_cast<long long>(ReadNumber("/proc/meminfo", "MemAvailable")) * kibibyte -
                          bytesLeft);
    }

    explicit HeldMemory(long long bytes) : bytes_(std::max(0LL, bytes))
    {
        if (bytes_ > 0)
            memory_ = mmap(nullptr, static_cast<std::size_t>(bytes_), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_POPULATE, -1, 0);
    }
    HeldMemory(const HeldMemory&) = delete;
    HeldMemory& operator=(const HeldMemory&) = delete;
    ~HeldMemory()
    {
        if (memory_ != MAP_FAILED)
            munmap(memory_, static_cast<std::size_t>(bytes_));
    }

private:
    long long bytes_;
    void* memory_ = MAP_FAILED;
};

/** The file, the name of its copy, and everybody who moves it. */
struct Contest {
    explicit Contest(long long fileSize) : size(fileSize), rsync(folder.Path()), vsftpd(folder.Path())
    {
        BareTransfer::MakeFile(file, size);
    }

    long long size;
    MemoryFolder folder;
    std::string file = folder / "file", copy = folder / "copy";
    BenchDaemon daemon;
    Rsync rsync;
    Vsftpd vsftpd;
    OpenSsh openSsh;
};

/** The port in "WRITE|port|..." or "READ|port|...". */
int DataPortOf(const std::string& answer)
{
    return std::atoi(answer.c_str() + answer.find('|') + 1);
}

/** A whole transfer with a client as bare as the loop's. */
void MoveByDaemon(const BenchDaemon& daemon, bool isGet, const std::string& remote, const std::string& source)
{
    const FileDescriptor control = ConnectTo(daemon.Port());
    Send(control, "RuvelControl V1.9|" + OwnUser() + "||" + (isGet ? "TRANSFERGET" : "TRANSFERPUT") +
                      "|BINARY|" + remote + "|0");
    {
        const FileDescriptor data = ConnectTo(DataPortOf(ReadUntil(control, "(Unix)\n")));
        if (isGet)
            BareTransfer::Drain(data);
        else
            BareTransfer::SendFile(source, data);
    }
    ReadUntil(control, "->ProcessReturnCode = 0\n");
}

void MoveByLoop(BareTransfer::Server& server, bool isGet, const std::string& source)
{
    const FileDescriptor data = ConnectTo(server.Port());
    if (isGet)
        BareTransfer::Drain(data);
    else
        BareTransfer::SendFile(source, data);
}

/** One direction of a round: times each move, and what it costs the server. */
class Direction
{
public:
    Direction(const Contest& contest, bool isGet, Results& results)
        : contest_(contest), isGet_(isGet), results_(results)
    {
    }

    template <class Move>
    void AddSpeed(const char* name, Move move)
    {
        HeldMemory(contest_.size + MostElsewhere / 2);
        const double begin = NowInMicroseconds();
        move();
        const double seconds = (NowInMicroseconds() - begin) / 1e6;
        results_.Add(isGet_ ? Get : Put, name, static_cast<double>(contest_.size) / 1e6 / seconds);
        CheckCopy();
    }
    template <class Move>
    void AddSpeedAndCpu(const char* name, pid_t server, Move move)
    {
        const double before = ProcessUse::OfAlone(server).CpuMilliseconds();
        AddSpeed(name, move);
        AddCpu(name, (ProcessUse::OfAlone(server).CpuMilliseconds() - before) / 1000);
    }
    void AddCpu(const char* name, double seconds) { results_.Add(isGet_ ? GetCpu : PutCpu, name, seconds); }

private:
    /** Where there is a copy it is whole, and makes room for the next. */
    void CheckCopy() const
    {
        if (!fs::exists(contest_.copy)) {
            if (!isGet_)
                throw std::runtime_error("nothing arrived");
            return;
        }
        if (fs::file_size(contest_.copy) != static_cast<std::uintmax_t>(contest_.size))
            throw std::runtime_error("the copy is not whole");
        fs::remove(contest_.copy);
    }

    const Contest& contest_;
    bool isGet_;
    Results& results_;
};

void AddLoop(const Contest& contest, bool isGet, Direction& direction)
{
    BareTransfer::Server loop([&](const FileDescriptor& connection) {
        if (isGet)
            BareTransfer::SendFile(contest.file, connection);
        else
            BareTransfer::ReceiveFile(connection, contest.copy);
    });
    double cpu = 0;
    direction.AddSpeed(Loop, [&] {
        MoveByLoop(loop, isGet, contest.file);
        cpu = loop.WaitForEnd();
    });
    direction.AddCpu(Loop, cpu);
}

void AddRound(const Contest& contest, bool isGet, Results& results)
{
    Direction direction(contest, isGet, results);
    AddLoop(contest, isGet, direction);
    direction.AddSpeedAndCpu(Results::Own, contest.daemon.Id(), [&] {
        MoveByDaemon(contest.daemon, isGet, isGet ? contest.file : contest.copy, contest.file);
    });
    direction.AddSpeedAndCpu("vsftpd", contest.vsftpd.Id(), [&] {
        if ((isGet ? contest.vsftpd.Get("file") : contest.vsftpd.Put(contest.file, "copy")) != contest.size)
            throw std::runtime_error("vsftpd did not move everything");
    });
    direction.AddSpeedAndCpu("rsync", contest.rsync.Id(), [&] {
        const Arguments options = {"--whole-file", "--inplace"};
        if (isGet)
            contest.rsync.Get("file", contest.copy, options);
        else
            contest.rsync.Put(contest.file, "copy", options);
    });
    direction.AddSpeed("scp", [&] {
        contest.openSsh.Copy(isGet ? "peer:" + contest.file : contest.file,
                             isGet ? contest.copy : "peer:" + contest.copy);
    });
}

void AddSizes(const Contest& contest, const Extent& extent, Results& results)
{
    for (long long size = Mebibyte; size <= 2 * extent.FileSize(); size *= 4) {
        BareTransfer::MakeFile(contest.file, size);
        for (int round = 0; round < 3; ++round)
            for (const bool isGet : {true, false}) {
                const auto add = [&](const char* series, auto move) {
                    const double begin = NowInMicroseconds();
                    move();
                    results.Add(Sizes, series, static_cast<double>(size / Mebibyte),
                                (NowInMicroseconds() - begin) / 1000);
                    fs::remove(contest.copy);
                };
                add(isGet ? "get" : "put", [&] {
                    MoveByDaemon(contest.daemon, isGet, isGet ? contest.file : contest.copy, contest.file);
                });
            }
    }
}
} // namespace

void MeasureTransfers(const Extent& extent, Results& results)
{
    const Contest contest(extent.FileSize());
    {
        const HeldMemory rest = HeldMemory::AllBut(extent.FileSize() + MostElsewhere);
        for (int round = 0; round < extent.Rounds(5, 3); ++round) {
            AddRound(contest, true, results);
            AddRound(contest, false, results);
        }
    }
    AddSizes(contest, extent, results);
}
