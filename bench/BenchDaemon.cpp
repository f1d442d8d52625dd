#include "bench/BenchDaemon.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Conversation.h"

namespace fs = std::filesystem;

namespace
{
constexpr int Attempts = 10;
constexpr useconds_t LookPause = 2000; // between two looks at the daemon's trace
constexpr int Looks = 5000;

/** Below the range from which the system takes the ports of outgoing connections. */
int ChoosePort()
{
    static std::mt19937 random{std::random_device{}()};
    return std::uniform_int_distribution<int>(10000, 32000)(random);
}
} // namespace

BenchDaemon::BenchDaemon()
{
    char directory[] = "/tmp/ruvelbench-XXXXXXXX";
    if (mkdtemp(directory) == nullptr)
        ThrowSystemError("mkdtemp");
    directory_ = directory;
    // A port that is in use shows in the daemon's ending by itself.
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        port_ = ChoosePort();
        if (Start())
            return;
    }
    fs::remove_all(directory_);
    throw std::runtime_error("the daemon does not start");
}

BenchDaemon::~BenchDaemon()
{
    End();
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

bool BenchDaemon::Start()
{
    id_ = fork();
    if (id_ == 0)
        Become();
    if (id_ < 0)
        ThrowSystemError("fork");
    if (WaitUntilItServes())
        return true;
    End();
    return false;
}

void BenchDaemon::Become() const
{
    const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / RUVEL_SERVER_BINARY;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(open((directory_ + "/trace").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    execl(program.c_str(), "RuvelServer", "-noinstall", "-nocheck", "-port", std::to_string(port_).c_str(),
          "-logdirectory", directory_.c_str(), nullptr);
    _exit(127);
}

bool BenchDaemon::WaitUntilItServes() const
{
    for (int look = 0; look < Looks && waitpid(id_, nullptr, WNOHANG) == 0; ++look) {
        std::ifstream file(directory_ + "/trace");
        const std::string trace{std::istreambuf_iterator<char>(file), {}};
        if (trace.find("for data connection...(successfull)\n") != std::string::npos)
            return true;
        usleep(LookPause);
    }
    return false;
}

void BenchDaemon::End()
{
    // Fails when it has ended by itself: then it has been waited for already.
    if (kill(id_, SIGTERM) == 0)
        waitpid(id_, nullptr, 0);
}
