#pragma once

#include <string>

#include <sys/types.h>

/**
 * A daemon of this build in single user mode without passwords, on a free pair of ports and with a log
 * directory of its own. The constructor returns when it serves; the destructor ends it by its id and
 * removes the directory. Should the benchmark die before, the daemon gets a termination signal.
 */
class BenchDaemon
{
public:
    BenchDaemon();
    BenchDaemon(const BenchDaemon&) = delete;
    BenchDaemon& operator=(const BenchDaemon&) = delete;
    ~BenchDaemon();

    pid_t Id() const { return id_; }
    int Port() const { return port_; }

private:
    bool Start();
    [[noreturn]] void Become() const;
    bool WaitUntilItServes() const;
    void End();

    std::string directory_;
    int port_ = 0;
    pid_t id_ = -1;
};
