#include "tests/system/ControlProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/ServerProcess.h"
#include "tests/system/Waiting.h"

std::string ClientFolder()
{
    const auto tests = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    return std::filesystem::canonical(tests / RUVEL_CLIENT_FOLDER);
}

ControlProcess::ControlProcess(int port, std::vector<std::string> arguments, ControlOptions options)
    : arguments_(std::move(arguments)),
      options_(std::move(options)),
      host_("127.0.0.1:" + std::to_string(port))
{
    std::ofstream(directory_.Path() + "/input") << options_.input;
    const int program = open((ClientFolder() + "/" + options_.program).c_str(), O_PATH | O_CLOEXEC);
    if (program < 0)
        throw std::runtime_error(options_.program + ": " + strerror(errno));
    id_ = fork();
    if (id_ == 0)
        Become(program);
    close(program);
    if (id_ < 0)
        throw std::runtime_error("unable to fork");
}

ControlProcess::~ControlProcess()
{
    if (id_ > 0) {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
}

void ControlProcess::Become(int program) const
{
    // Away from the tests' terminal, which would be asked for a password.
    setsid();
    const std::string base = directory_.Path();
    const int flags = O_WRONLY | O_CREAT | O_APPEND;
    dup2(open((base + "/input").c_str(), O_RDONLY), STDIN_FILENO);
    int closed[2];
    if (options_.hasClosedOutput && pipe(closed) == 0) {
        dup2(closed[1], STDOUT_FILENO);
    } else {
        const std::string output = options_.outputFile.empty() ? base + "/output" : options_.outputFile;
        dup2(open(output.c_str(), flags, 0600), STDOUT_FILENO);
    }
    dup2(options_.hasOneOutput ? STDOUT_FILENO : open((base + "/errors").c_str(), flags, 0600),
         STDERR_FILENO);
    if (options_.lacksStreams)
        close_range(STDIN_FILENO, STDOUT_FILENO, 0);
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    for (const char* const name : {"RUVEL_USER", "RUVEL_PASSWORD_FILE"})
        unsetenv(name);
    setenv("RUVEL_HOST", host_.c_str(), 1);
    for (const std::string& entry : options_.environment)
        putenv(const_cast<char*>(entry.c_str()));
    std::vector<char*> vector{const_cast<char*>(options_.program.c_str())};
    for (const std::string& argument : arguments_)
        vector.push_back(const_cast<char*>(argument.c_str()));
    vector.push_back(nullptr);
    ExecuteUnderTool(ClientFolder() + "/" + options_.program, vector);
    fexecve(program, vector.data(), environ);
    _exit(127);
}

void ControlProcess::Signal(int number) const
{
    kill(id_, number);
}

int ControlProcess::WaitForEnd()
{
    int status = 0;
    if (!WaitUntil([&] { return waitpid(id_, &status, WNOHANG) == id_; })) {
        ADD_FAILURE() << "the client does not end: " << Output() << Errors();
        return -1000;
    }
    id_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

bool ControlProcess::WaitForOutput(const std::string& text) const
{
    return WaitUntil([&] { return Output().find(text) != std::string::npos; });
}

ControlResult Control(int port, std::vector<std::string> arguments, ControlOptions options)
{
    ControlProcess process(port, std::move(arguments), std::move(options));
    const int code = process.WaitForEnd();
    return {code, process.Output(), process.Errors()};
}
