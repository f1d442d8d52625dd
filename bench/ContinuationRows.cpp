// How long it takes to go on with a transfer that was cut off at nine tenths, when what is there is verified.

#include <filesystem>
#include <stdexcept>

#include "bench/BareTransfer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Peers.h"
#include "bench/Subjects.h"

namespace fs = std::filesystem;

namespace
{
const Row Get = {
    "continue-get", "continue a get of 2 GiB at 90 %, verified", "s", {Sense::AtMost, Of::Value, 0.7}};
const Row Put = {
    "continue-put", "continue a put of 2 GiB at 90 %, verified", "s", {Sense::AtMost, Of::Value, 0.7}};

constexpr long long Size = 2LL << 30; // in quick runs too: the target is for this size
constexpr long long Part = Size / 10 * 9;
} // namespace

void MeasureContinuation(const Extent& extent, Results& results)
{
    const MemoryFolder folder;
    const std::string file = folder / "file", copy = folder / "copy", part = folder / ".copy.ruvelpart";
    BareTransfer::MakeFile(file, Size);
    fs::copy_file(file, copy);
    const BenchDaemon daemon;
    const Rsync rsync(folder.Path());
    const std::string control = ProgramPath("client/RuvelControl");
    const std::string server = "127.0.0.1:" + std::to_string(daemon.Port());

    const auto add = [&](const Row& row, const char* name, const std::string& begun, auto move) {
        fs::rename(copy, begun);
        fs::resize_file(begun, Part);
        fs::permissions(begun, fs::perms::owner_read | fs::perms::owner_write);
        const double begin = NowInMicroseconds();
        move();
        results.Add(row, name, (NowInMicroseconds() - begin) / 1e6);
        if (fs::file_size(copy) != Size)
            throw std::runtime_error("the copy is not whole");
    };
    const Arguments options = {"--append-verify"};
    for (int round = 0; round < extent.Rounds(5, 2); ++round) {
        add(Get, "rsync --append-verify", copy, [&] { rsync.Get("file", copy, options); });
        add(Get, Results::Own, part, [&] { Run({control, "get", "-H", server, file, copy}); });
        add(Put, "rsync --append-verify", copy, [&] { rsync.Put(file, "copy", options); });
        add(Put, Results::Own, part, [&] { Run({control, "put", "-H", server, file, copy}); });
    }
}
