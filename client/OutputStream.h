#pragma once

#include <string>
#include <string_view>

#include "support/FileDescriptor.h"

/**
 * Standard output or standard error, written without ever waiting and without changing the flags that
 * others share with this process: what it does not take at once is kept until it does. Regular files are
 * written as they are.
 */
class OutputStream
{
public:
    explicit OutputStream(int descriptor);

    /** Writes what can be written of what is kept and of these bytes, and keeps the rest. 0 or the error. */
    int Write(std::string_view bytes);
    /** The same, waiting until all has been taken. */
    int Flush();
    bool HasPending() const { return !pending_.empty(); }
    /** To be polled for POLLOUT when something is pending. */
    int Descriptor() const { return own_.IsOpen() ? own_.Number() : descriptor_; }

private:
    ssize_t WriteSome(std::string_view bytes);

    enum class Kind { File, Socket, NonBlocking, Blocking };
    Kind kind_ = Kind::Blocking;
    int descriptor_;
    /** The same pipe or terminal, opened once more for flags of its own. */
    FileDescriptor own_;
    std::string pending_;
};
