#include "client/ProxyCommand.h"

#include <cerrno>
#include <csignal>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "client/ShellWords.h"

namespace
{
[[noreturn]] void BecomeProxy(const char* command, int stream)
{
    // A group of its own: a Ctrl-C must not cut the connection that asks to end the remote command.
    setpgid(0, 0);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU, SIGWINCH})
        std::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (dup2(stream, STDIN_FILENO) < 0 || dup2(stream, STDOUT_FILENO) < 0)
        _exit(126);
    execl("/bin/sh", "sh", "-c", command, nullptr);
    _exit(127);
}
} // namespace

std::string ExpandProxyCommand(std::string_view command, const std::string& host, int port)
{
    std::string expanded;
    for (std::size_t at = 0; at < command.size(); ++at) {
        const char next = command[at] == '%' && at + 1 < command.size() ? command[at + 1] : '\0';
        if (next == 'h')
            expanded += JoinShellWords({host});
        else if (next == 'p')
            expanded += std::to_string(port);
        else if (next == '%')
            expanded += '%';
        else
            expanded += command[at];
        at += next == 'h' || next == 'p' || next == '%' ? 1 : 0;
    }
    return expanded;
}

Failure ProxyCommand::Start(std::string_view command, const std::string& host, int port,
                            FileDescriptor& socket)
{
    End();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return SystemFailure("no streams for the proxy command", errno);
    FileDescriptor own(ends[0]);
    const FileDescriptor theirs(ends[1]);
    const std::string line = ExpandProxyCommand(command, host, port);
    processId_ = fork();
    if (processId_ == 0)
        BecomeProxy(line.c_str(), theirs.Number());
    if (processId_ < 0)
        return SystemFailure("the proxy command cannot be started", errno);
    // In both processes, so that it holds whichever comes first.
    setpgid(processId_, processId_);
    socket = std::move(own);
    return {};
}

void ProxyCommand::End()
{
    if (processId_ <= 0)
        return;
    kill(-processId_, SIGTERM);
    while (waitpid(processId_, nullptr, 0) < 0 && errno == EINTR) {
    }
    processId_ = 0;
}
