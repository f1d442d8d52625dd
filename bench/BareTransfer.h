#pragma once

#include <functional>
#include <string>

#include "bench/Child.h"
#include "support/FileDescriptor.h"

/** What moving bytes costs when there is nothing but the loop that moves them. */
namespace BareTransfer
{
/** Blocks that the daemon moves are as large. */
constexpr unsigned long BlockSize = 16384;

/** Makes a file of arbitrary bytes. */
void MakeFile(const std::string& path, long long size);
/** Sends the whole file in blocks; the number of bytes. */
long long SendFile(const std::string& path, const FileDescriptor& connection);
/** Writes what comes in blocks to a new file; the number of bytes. */
long long ReceiveFile(const FileDescriptor& connection, const std::string& path);
/** Reads what comes and throws it away; the number of bytes. */
long long Drain(const FileDescriptor& connection);
/** Becomes `cat` of the file, which writes to the connection. */
void BecomeCat(const std::string& path, const FileDescriptor& connection);
/** Runs `cat` of the file on a pipe, and copies what it writes to the connection in blocks. */
void CopyFromCat(const std::string& path, const FileDescriptor& connection);

/** A process that serves one connection, and then ends. */
class Server
{
public:
    explicit Server(const std::function<void(const FileDescriptor& connection)>& serve);

    int Port() const { return port_; }
    /** The processor time that it has used, its own children's included, in seconds. */
    double WaitForEnd() { return process_.WaitForEnd(); }

private:
    int port_ = 0;
    FileDescriptor listening_;
    Child process_;
};
} // namespace BareTransfer
