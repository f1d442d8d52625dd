#pragma once

#include <string>

#include "support/FileDescriptor.h"

/** What moving a file costs when there is nothing but the loop that moves it. */
namespace BareTransfer
{
/** Blocks that the daemon moves are as large. */
constexpr unsigned long BlockSize = 16384;

/** Sends the whole file in blocks; the number of bytes. */
long long SendFile(const std::string& path, const FileDescriptor& connection);
/** Writes what comes in blocks to a new file; the number of bytes. */
long long ReceiveFile(const FileDescriptor& connection, const std::string& path);
/** Reads what comes and throws it away; the number of bytes. */
long long Drain(const FileDescriptor& connection);

/** A process that serves one connection, and then ends. */
class Server
{
public:
    /** What it does with the file: sends it, or receives it. */
    enum class Task { Send, Receive };
    Server(Task task, const std::string& path);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    int Port() const { return port_; }
    /** Waits for its end; the processor time that it has used, in seconds. */
    double WaitForEnd();

private:
    int port_ = 0;
    pid_t id_ = -1;
};
} // namespace BareTransfer
