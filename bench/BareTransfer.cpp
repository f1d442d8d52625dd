#include "bench/BareTransfer.h"

#include <fstream>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/Conversation.h"

namespace
{
FileDescriptor Open(const std::string& path, int flags)
{
    FileDescriptor file(open(path.c_str(), flags | O_CLOEXEC, 0600));
    if (!file.IsOpen())
        ThrowSystemError(path);
    return file;
}

FileDescriptor Accept(const FileDescriptor& listening)
{
    FileDescriptor connection(accept4(listening.Number(), nullptr, nullptr, SOCK_CLOEXEC));
    const int on = 1;
    setsockopt(connection.Number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connection;
}

long long SendAll(int from, const FileDescriptor& connection)
{
    char block[BareTransfer::BlockSize];
    long long bytes = 0;
    ssize_t count;
    while ((count = read(from, block, sizeof block)) > 0) {
        Send(connection, {block, static_cast<std::size_t>(count)});
        bytes += count;
    }
    return bytes;
}
} // namespace

namespace BareTransfer
{
void MakeFile(const std::string& path, long long size)
{
    constexpr std::size_t PieceSize = 1 << 20;
    std::vector<char> piece(PieceSize);
    for (std::size_t i = 0; i < PieceSize; ++i)
        piece[i] = static_cast<char>(i * 2654435761U >> 13);
    std::ofstream file(path, std::ios::binary);
    for (long long left = size; left > 0; left -= static_cast<long long>(PieceSize))
        file.write(piece.data(), std::min(left, static_cast<long long>(PieceSize)));
    file.close();
    if (!file)
        throw std::runtime_error("no room for " + path);
}

long long SendFile(const std::string& path, const FileDescriptor& connection)
{
    return SendAll(Open(path, O_RDONLY).Number(), connection);
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

void BecomeCat(const std::string& path, const FileDescriptor& connection)
{
    dup2(connection.Number(), STDOUT_FILENO);
    execlp("cat", "cat", path.c_str(), nullptr);
    ThrowSystemError("cat");
}

void CopyFromCat(const std::string& path, const FileDescriptor& connection)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        ThrowSystemError("pipe2");
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    Child cat([&] { BecomeCat(path, writing); });
    writing = FileDescriptor();
    SendAll(reading.Number(), connection);
    cat.WaitForEnd();
}

Server::Server(const std::function<void(const FileDescriptor& connection)>& serve)
    : listening_(ListenOnFreePort(port_)), process_([&] { serve(Accept(listening_)); })
{
    listening_ = FileDescriptor();
}
} // namespace BareTransfer
