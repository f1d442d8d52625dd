#pragma once

#include <string>
#include <vector>

#include "support/FileDescriptor.h"

#include <sys/types.h>

/**
 * One run of the real daemon binary, whose trace and error output go to files in a directory of the test.
 * It is ended by its id when the object goes, if it still runs then.
 */
class ServerProcess
{
public:
    /** Starts it as `user`, who must be an account, or as the tests' own user when that is empty, with
     * further entries of the environment: NAME=VALUE. */
    ServerProcess(const std::string& directory, const std::vector<std::string>& arguments,
                  const std::string& user = {}, const std::string& program = "RuvelServer",
                  const std::vector<std::string>& environment = {});
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess();

    pid_t Id() const { return id_; }
    void Signal(int number) const;
    bool HasEnded();
    /** Exit status, 128 + n after signal n; -1, and a failed test, when it does not end. */
    int WaitForEnd();
    /** Waits for a text in the trace; false when the daemon ends or the time is up without it. */
    bool WaitForTrace(const std::string& text);
    std::string Trace() const;
    /** What was written to standard error: the sanitizers' findings. */
    std::string Errors() const;

private:
    [[noreturn]] void Become(const std::vector<std::string>& arguments, const std::string& user,
                             const std::vector<std::string>& environment, const std::string& file,
                             int program) const;

    std::string directory_;
    pid_t id_ = -1;
    bool ended_ = false;
    int status_ = -1;
};

/** In place of a program that is tested: the tool that RUVEL_UNDER names, with its options, which is to run
 * it. Returns when there is none. `arguments` begin with the name and end with a null. */
void ExecuteUnderTool(const std::string& file, const std::vector<char*>& arguments);

/** A new directory of the test's own under /tmp, which goes with everything in it when the object goes. */
class TestDirectory
{
public:
    TestDirectory();
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;
    ~TestDirectory();
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

std::string ReadFile(const std::string& path);
/** Names in a directory, in order. */
std::vector<std::string> ListDirectory(const std::string& path);

/**
 * A port that is free with its lower neighbour, outside the range from which the system takes the ports of
 * outgoing connections. Somebody else may still take it before it is used.
 */
int FindFreePort();

/** A socket that listens on a port and so keeps the daemon from having it. */
class BusyPort
{
public:
    explicit BusyPort(int port);
    bool IsHeld() const { return descriptor_.IsOpen(); }

private:
    FileDescriptor descriptor_;
};
