#include "tests/system/ServerProcess.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/Waiting.h"

namespace fs = std::filesystem;

ServerProcess::ServerProcess(const std::string& directory, const std::vector<std::string>& arguments,
                             const std::string& user, const std::string& program,
                             const std::vector<std::string>& environment)
    : directory_(directory)
{
    // Opened before the identity changes, as the other user need not be able to enter the build folder.
    const fs::path file = fs::read_symlink("/proc/self/exe").parent_path() / RUVEL_SERVER_FOLDER / program;
    const FileDescriptor descriptor(open(file.c_str(), O_PATH | O_CLOEXEC));
    if (!descriptor.IsOpen())
        throw std::runtime_error(file.string() + ": " + strerror(errno));
    id_ = fork();
    if (id_ == 0)
        Become(arguments, user, environment, file, descriptor.Number());
    if (id_ < 0)
        throw std::runtime_error("unable to fork");
}

void ServerProcess::Become(const std::vector<std::string>& arguments, const std::string& user,
                           const std::vector<std::string>& environment, const std::string& file,
                           int program) const
{
    const int flags = O_WRONLY | O_CREAT | O_APPEND;
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(open((directory_ + "/trace").c_str(), flags, 0600), STDOUT_FILENO);
    dup2(open((directory_ + "/errors").c_str(), flags, 0600), STDERR_FILENO);
    // What a caller may have left open is no business of the daemon's.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    // By this entry whatever descends from this daemon is recognised.
    setenv("RUVEL_TEST_DIRECTORY", directory_.c_str(), 1);
    for (const std::string& entry : environment)
        putenv(const_cast<char*>(entry.c_str()));
    if (!user.empty()) {
        const passwd* account = getpwnam(user.c_str());
        if (!account || initgroups(account->pw_name, account->pw_gid) != 0 || setgid(account->pw_gid) != 0 ||
            setuid(account->pw_uid) != 0) {
            _exit(126);
        }
        setenv("HOME", account->pw_dir, 1);
        setenv("USER", account->pw_name, 1);
        setenv("LOGNAME", account->pw_name, 1);
    }
    // Should the test die, the daemon ends as it does on request. Taking on a user undoes this, so it is
    // last.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    std::vector<char*> vector{const_cast<char*>("RuvelServer")};
    for (const std::string& argument : arguments)
        vector.push_back(const_cast<char*>(argument.c_str()));
    vector.push_back(nullptr);
    ExecuteUnderTool(file, vector);
    fexecve(program, vector.data(), environ);
    _exit(127);
}

ServerProcess::~ServerProcess()
{
    if (!HasEnded()) {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
}

void ExecuteUnderTool(const std::string& file, const std::vector<char*>& arguments)
{
    const char* const tool = getenv("RUVEL_UNDER");
    if (tool == nullptr)
        return;
    std::istringstream text(tool);
    std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
    words.push_back(file);
    std::vector<char*> line;
    for (std::string& word : words)
        line.push_back(word.data());
    line.insert(line.end(), arguments.begin() + 1, arguments.end());
    execvp(line[0], line.data());
    _exit(127);
}

void ServerProcess::Signal(int number) const
{
    if (!ended_)
        kill(id_, number);
}

bool ServerProcess::HasEnded()
{
    int status = 0;
    if (!ended_ && waitpid(id_, &status, WNOHANG) == id_) {
        ended_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return ended_;
}

int ServerProcess::WaitForEnd()
{
    if (!WaitUntil([this] { return HasEnded(); }))
        ADD_FAILURE() << "the daemon did not end";
    return status_;
}

bool ServerProcess::WaitForTrace(const std::string& text)
{
    const auto stands = [&] { return Trace().find(text) != std::string::npos; };
    WaitUntil([&] { return stands() || HasEnded(); });
    return stands();
}

std::string ServerProcess::Trace() const
{
    return ReadFile(directory_ + "/trace");
}

std::string ServerProcess::Errors() const
{
    return ReadFile(directory_ + "/errors");
}

TestDirectory::TestDirectory()
{
    char path[] = "/tmp/ruveltest-XXXXXXXX";
    if (!mkdtemp(path))
        throw std::runtime_error("unable to make a directory under /tmp");
    path_ = path;
    // Other accounts pass through it to the files that are theirs.
    chmod(path, 0755);
}

TestDirectory::~TestDirectory()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::vector<std::string> ListDirectory(const std::string& path)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

int FindFreePort()
{
    constexpr int Lowest = 10000;
    int firstOutgoing = 32768;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> firstOutgoing;
    std::random_device random;
    std::uniform_int_distribution<int> choice(Lowest, std::max(Lowest + 1000, firstOutgoing - 1));
    for (;;) {
        const int port = choice(random);
        if (BusyPort(port).IsHeld() && BusyPort(port - 1).IsHeld())
            return port;
    }
}

BusyPort::BusyPort(int port) : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    const int number = descriptor_.Number();
    if (bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(number, 1) != 0)
        descriptor_ = FileDescriptor();
}
