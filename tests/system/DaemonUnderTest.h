#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/system/Client.h"
#include "tests/system/Protocol.h"
#include "tests/system/ServerProcess.h"

struct DaemonOptions {
    /** The default lets the tests' own user in without a password. Empty: an installed daemon. */
    std::vector<std::string> mode = {"-noinstall", "-nocheck"};
    std::vector<std::string> furtherArguments = {};
    /** Account to run it as; empty is the tests' own. */
    std::string user = {};
    /** Where it puts its log files; empty is a fresh directory that must be empty again at the end. */
    std::string logDirectory = {};
    /** The daemon whose ladders of ending work are a thirtieth as long. */
    bool shortLadders = false;
    /** Further entries of its environment: NAME=VALUE. */
    std::vector<std::string> environment = {};
    /** What a line of its error output may hold without a failure of the test. */
    std::vector<std::string> toleratedErrors = {};
};

/**
 * `DaemonUnderTest daemon;` is a real daemon that serves on a free pair of ports and has its own log
 * directory. When it goes, the daemon is ended by its id, if the test has not ended it, and the test fails
 * if anything is left of it: a process, a log file, a System V object, a finding of the sanitizers. After a
 * failure its trace and the dialogue with it are printed.
 */
class DaemonUnderTest
{
public:
    explicit DaemonUnderTest(const DaemonOptions& options = {});
    DaemonUnderTest(const DaemonUnderTest&) = delete;
    DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;
    ~DaemonUnderTest();

    int Port() const { return port_; }
    const std::string& LogDirectory() const { return logDirectory_; }
    std::vector<std::string> LogFiles() const { return ListDirectory(logDirectory_); }
    ServerProcess& Process() { return *process_; }
    /** Everything that descends from it, commands and workers. */
    std::vector<pid_t> Descendants() const;
    /** The address that it told at its start. */
    std::string Address() const;

    Client Connect(int receiveBufferBytes = 0) { return Client(port_, dialogue_, receiveBufferBytes); }
    Dialogue& Conversation() { return dialogue_; }

private:
    void Start(const DaemonOptions& options);
    void End();
    void ExpectNothingLeft();

    TestDirectory directory_;
    std::string logDirectory_;
    std::vector<std::string> toleratedErrors_;
    int port_ = 0;
    Dialogue dialogue_;
    std::unique_ptr<ServerProcess> process_;
};

/** One request on a connection of its own, and the whole answer up to the end of the stream. */
std::string Ask(DaemonUnderTest& daemon, std::string_view request);
