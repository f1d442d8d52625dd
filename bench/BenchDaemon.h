#pragma once

#include <optional>
#include <string>

#include "bench/Child.h"

/**
 * A daemon of this build, in single user mode without passwords or installed, on a free pair of ports and
 * with a log directory of its own in memory. It serves when the constructor returns, and ends with the
 * object.
 */
class BenchDaemon
{
public:
    enum class Mode { SingleUser, Installed };
    explicit BenchDaemon(Mode mode = Mode::SingleUser);

    pid_t Id() const { return process_->Id(); }
    int Port() const { return port_; }
    /** From the start of the process until a client got an answer. */
    double StartMilliseconds() const { return startMilliseconds_; }

private:
    bool Start(Mode mode);
    bool WaitUntilItServes();

    MemoryFolder directory_;
    std::optional<Child> process_;
    int port_ = 0;
    double startMilliseconds_ = 0;
};

/** A program of this build: "daemon/RuvelServer", "client/RuvelControl". */
std::string ProgramPath(const std::string& name);
