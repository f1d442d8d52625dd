// The daemon's command line, one argument a line, up to where the daemon would begin to serve: whatever it
// says, what the daemon is started with can be served with.

#include <unistd.h>

#include "daemon/MainLoop.h"
#include "daemon/RuvelServer.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
int starts = 0;
constexpr int Served = 42;
} // namespace

// Stands in for RuvelServer::MainDaemonLoop: the build has the linker call this instead.
extern "C" int __wrap__ZN11RuvelServer14MainDaemonLoopERKiRK16QORUnicodeStringS1_S1_(
    RuvelServer*, const int& port, const QORUnicodeString& directory, const int&, const int&)
{
    ++starts;
    Require(port >= 2, "there is a port below the daemon's");
    Require(access(directory.ConvertToChar(), W_OK | X_OK) == 0, "logs can be written");
    return Served;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    SilenceStandardOutput();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines{"RuvelServer"};
    for (const std::string_view line : Split(text, '\n'))
        lines.emplace_back(line);
    std::vector<char*> arguments;
    for (std::string& line : lines)
        arguments.push_back(line.data());
    const int startsBefore = starts;
    const int result = MainLoop(static_cast<int>(arguments.size()), arguments.data());
    Require(result == (starts > startsBefore ? Served : 1), "the exit status is that of serving, or 1");
    return 0;
}
