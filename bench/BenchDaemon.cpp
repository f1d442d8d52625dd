#include "bench/BenchDaemon.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

#include "bench/Conversation.h"
#include "bench/Peers.h"

namespace fs = std::filesystem;

namespace
{
constexpr int Attempts = 10;
constexpr useconds_t LookPause = 200; // between two tries to be served
constexpr int Looks = 50000;
} // namespace

BenchDaemon::BenchDaemon(Mode mode)
{
    for (int attempt = 0; attempt < Attempts; ++attempt)
        if (Start(mode))
            return;
    throw std::runtime_error("the daemon does not start");
}

bool BenchDaemon::Start(Mode mode)
{
    port_ = ChoosePort();
    Arguments arguments{ProgramPath("daemon/RuvelServer"), "-port", std::to_string(port_), "-logdirectory",
                        directory_.Path()};
    if (mode == Mode::SingleUser)
        arguments.insert(arguments.end(), {"-noinstall", "-nocheck"});
    const double begin = NowInMicroseconds();
    process_.emplace(arguments, directory_ / "trace");
    const bool serves = WaitUntilItServes();
    startMilliseconds_ = (NowInMicroseconds() - begin) / 1000;
    return serves;
}

/** A port that is in use shows in the daemon's ending by itself. */
bool BenchDaemon::WaitUntilItServes()
{
    for (int look = 0; look < Looks && !process_->HasEnded(); ++look) {
        if (IsAccepting(port_)) {
            const FileDescriptor connection = ConnectTo(port_);
            Send(connection, InfoRequest());
            ReadToEnd(connection);
            return !process_->HasEnded();
        }
        usleep(LookPause);
    }
    return false;
}

std::string ProgramPath(const std::string& name)
{
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / name;
}
