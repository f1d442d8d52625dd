#include "bench/Child.h"

#include <csignal>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Conversation.h"

namespace fs = std::filesystem;

namespace
{
constexpr int LeaveMilliseconds = 5000; // for a peer to end when it is asked to

double Seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

[[noreturn]] void Become(const std::vector<std::string>& arguments, const std::string& output)
{
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    const int descriptor = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(descriptor, STDOUT_FILENO);
    dup2(descriptor, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    std::vector<char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    execvp(pointers[0], pointers.data());
    _exit(127);
}
} // namespace

MemoryFolder::MemoryFolder()
{
    char path[] = "/dev/shm/ruvelbench-XXXXXXXX";
    if (mkdtemp(path) == nullptr)
        ThrowSystemError("mkdtemp");
    path_ = path;
}

MemoryFolder::~MemoryFolder()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

Child::Child(const std::vector<std::string>& arguments, const std::string& output)
    : Child([&] { Become(arguments, output); })
{
    name_ = arguments.front();
}

Child::Child(const std::function<void()>& run) : name_("a server")
{
    id_ = fork();
    if (id_ < 0)
        ThrowSystemError("fork");
    if (id_ > 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    try {
        run();
    } catch (const std::exception&) {
        _exit(1);
    }
    _exit(0);
}

Child::~Child()
{
    if (id_ < 0 || kill(id_, SIGTERM) != 0)
        return;
    for (int waited = 0; waited < LeaveMilliseconds && !HasEnded(); ++waited)
        usleep(1000);
    if (id_ < 0)
        return;
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
}

bool Child::HasEnded()
{
    if (id_ > 0 && waitpid(id_, nullptr, WNOHANG) == id_)
        id_ = -1;
    return id_ < 0;
}

double Child::WaitForEnd()
{
    int status = 0;
    rusage use{};
    const pid_t ended = wait4(id_, &status, 0, &use);
    id_ = -1;
    if (ended < 0 || status != 0)
        throw std::runtime_error(name_ + " failed");
    return Seconds(use.ru_utime) + Seconds(use.ru_stime);
}

void Run(const std::vector<std::string>& arguments)
{
    Child(arguments).WaitForEnd();
}
