#include "bench/BareTransfer.h"

#include <csignal>
#include <exception>
#include <stdexcept>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Conversation.h"

namespace
{
using BareTransfer::Server;

FileDescriptor Open(const std::string& path, int flags)
{
    FileDescriptor file(open(path.c_str(), flags | O_CLOEXEC, 0600));
    if (!file.IsOpen())
        ThrowSystemError(path);
    return file;
}

double Seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void Serve(int listening, Server::Task task, const std::string& path)
{
    const FileDescriptor connection(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    const int on = 1;
    setsockopt(connection.Number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (task == Server::Task::Send)
        BareTransfer::SendFile(path, connection);
    else
        BareTransfer::ReceiveFile(connection, path);
}
} // namespace

namespace BareTransfer
{
long long SendFile(const std::string& path, const FileDescriptor& connection)
{
    const FileDescriptor file = Open(path, O_RDONLY);
    char block[BlockSize];
    long long bytes = 0;
    ssize_t count;
    while ((count = read(file.Number(), block, sizeof block)) > 0) {
        Send(connection, {block, static_cast<std::size_t>(count)});
        bytes += count;
    }
    return bytes;
}

long long ReceiveFile(const FileDescriptor& connection, const std::string& path)
{
    const FileDescriptor file = Open(path, O_WRONLY | O_CREAT | O_TRUNC);
    char block[BlockSize];
    long long bytes = 0;
    ssize_t count;
    while ((count = recv(connection.Number(), block, sizeof block, 0)) > 0) {
        if (write(file.Number(), block, static_cast<std::size_t>(count)) != count)
            ThrowSystemError(path);
        bytes += count;
    }
    return bytes;
}

long long Drain(const FileDescriptor& connection)
{
    char block[65536];
    long long bytes = 0;
    ssize_t count;
    while ((count = recv(connection.Number(), block, sizeof block, 0)) > 0)
        bytes += count;
    return bytes;
}

Server::Server(Task task, const std::string& path)
{
    const FileDescriptor listening = ListenOnFreePort(port_);
    id_ = fork();
    if (id_ < 0)
        ThrowSystemError("fork");
    if (id_ > 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        Serve(listening.Number(), task, path);
    } catch (const std::exception&) {
        _exit(1);
    }
    _exit(0);
}

Server::~Server()
{
    if (id_ > 0) {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
}

double Server::WaitForEnd()
{
    int status = 0;
    rusage use{};
    const pid_t ended = wait4(id_, &status, 0, &use);
    id_ = -1;
    if (ended < 0 || status != 0)
        throw std::runtime_error("the bare server failed");
    return Seconds(use.ru_utime) + Seconds(use.ru_stime);
}
} // namespace BareTransfer
