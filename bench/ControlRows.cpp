// What our own client adds: to a command that does nothing, and to the bytes of one that writes many.

#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "bench/BareTransfer.h"
#include "bench/BenchDaemon.h"
#include "bench/Conversation.h"
#include "bench/Peers.h"
#include "bench/Subjects.h"

namespace
{
constexpr const char* Multiplexed = "OpenSSH, multiplexed";
constexpr const char* Merged = "RuvelControl, --merge";

const Row RunTrue = {"run",
                     "`RuvelControl run -- true`, from the start of the client to its end",
                     "ms",
                     {Sense::AtMost, Of::Ratio, 10}};
const Row RunCpu = {"run-cpu", "the client's processor time for that", "ms", {Sense::AtMost, Of::Value, 3}};
const Row RunOutput = {
    "run-output", "`RuvelControl run -- cat` of a file", "MB/s", {Sense::AtLeast, Of::Ratio, 0.7}};

/** Runs the client; the processor time that it took, in seconds. */
double RunControl(const BenchDaemon& daemon, Arguments arguments)
{
    const std::string program = ProgramPath("client/RuvelControl");
    const std::string host = "127.0.0.1:" + std::to_string(daemon.Port());
    arguments.insert(arguments.begin(), {program, "run", "--batch", "-H", host});
    std::vector<char*> vector;
    for (std::string& argument : arguments)
        vector.push_back(argument.data());
    vector.push_back(nullptr);
    Child client([&] {
        // Two devices that take everything: with one for both there would be no error stream apart.
        dup2(open("/dev/null", O_RDWR), STDIN_FILENO);
        dup2(STDIN_FILENO, STDOUT_FILENO);
        dup2(open("/dev/zero", O_WRONLY), STDERR_FILENO);
        execv(program.c_str(), vector.data());
        throw std::runtime_error("the client cannot be started");
    });
    return client.WaitForEnd();
}

void AddRuns(const BenchDaemon& daemon, const OpenSsh& openSsh, Results& results)
{
    const std::string request = LaunchRequest("SOCKET", "true");
    results.Add(RunTrue, "the bare exchange", TimeLaunch(daemon.Port(), request).sinceConnect / 1000);
    const auto add = [&](const char* name, auto run) {
        const double begin = NowInMicroseconds();
        run();
        results.Add(RunTrue, name, (NowInMicroseconds() - begin) / 1000);
    };
    double cpu = 0;
    add(Results::Own, [&] { cpu = RunControl(daemon, {"--", "true"}); });
    results.Add(RunCpu, Results::Own, cpu * 1000);
    add(Merged, [&] { cpu = RunControl(daemon, {"--merge", "--", "true"}); });
    results.Add(RunCpu, Merged, cpu * 1000);
    add(Multiplexed, [&] { openSsh.RunMultiplexed("true"); });
}

void AddOutputs(const BenchDaemon& daemon, const OpenSsh& openSsh, const std::string& file, long long size,
                Results& results)
{
    const auto add = [&](const char* name, auto move) {
        const double begin = NowInMicroseconds();
        move();
        results.Add(RunOutput, name, static_cast<double>(size) / (NowInMicroseconds() - begin));
    };
    {
        const BareTransfer::Server cat(
            [&](const FileDescriptor& connection) { BareTransfer::BecomeCat(file, connection); });
        add("a socket, read and thrown away", [&] {
            if (BareTransfer::Drain(ConnectTo(cat.Port())) != size)
                throw std::runtime_error("not everything arrived");
        });
    }
    add(Results::Own, [&] { RunControl(daemon, {"--", "cat", file}); });
    add(Merged, [&] { RunControl(daemon, {"--merge", "--", "cat", file}); });
    add(Multiplexed, [&] { openSsh.RunMultiplexed("cat " + file); });
}
} // namespace

void MeasureControl(const Extent& extent, Results& results)
{
    const BenchDaemon daemon;
    const OpenSsh openSsh;
    const MemoryFolder folder;
    const std::string file = folder / "file";
    BareTransfer::MakeFile(file, extent.FileSize());
    for (int round = 0; round < extent.Rounds(50, 20); ++round)
        AddRuns(daemon, openSsh, results);
    for (int round = 0; round < extent.Rounds(5, 3); ++round)
        AddOutputs(daemon, openSsh, file, extent.FileSize(), results);
}
