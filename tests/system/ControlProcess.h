#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/system/ServerProcess.h"

/** Where the client's programs are. */
std::string ClientFolder();

/** How a program is started: everything that may stand differently than in most tests. */
struct ControlOptions {
    /** RuvelControl, or another name of the same program. */
    std::string program = "RuvelControl";
    /** Standard input, to its end. */
    std::string input = {};
    /** Standard error goes where standard output goes. */
    bool hasOneOutput = false;
    /** Nobody reads standard output. */
    bool hasClosedOutput = false;
    /** Standard output goes to this file, from where Output() does not read it. */
    std::string outputFile = {};
    /** There is no standard input and output. */
    bool lacksStreams = false;
    /** Further entries of the environment: NAME=VALUE. */
    std::vector<std::string> environment = {};
};

/**
 * One run of the real client binary, without a terminal, its standard streams in files of its own. It asks
 * the server at `port` of this machine. It is ended by its id when the object goes, if it still runs then.
 */
class ControlProcess
{
public:
    ControlProcess(int port, std::vector<std::string> arguments, ControlOptions options = {});
    ControlProcess(const ControlProcess&) = delete;
    ControlProcess& operator=(const ControlProcess&) = delete;
    ~ControlProcess();

    void Signal(int number) const;
    /** The exit code, or minus the number of the signal that ended it. A failed test when it does not end. */
    int WaitForEnd();
    /** Waits for a text in standard output; false when the time is up without it. */
    bool WaitForOutput(const std::string& text) const;
    std::string Output() const { return ReadFile(directory_.Path() + "/output"); }
    std::string Errors() const { return ReadFile(directory_.Path() + "/errors"); }

private:
    [[noreturn]] void Become(int program) const;

    std::vector<std::string> arguments_;
    ControlOptions options_;
    std::string host_;
    TestDirectory directory_;
    pid_t id_ = -1;
};

/** What one run came to. */
struct ControlResult {
    int code;
    std::string output;
    std::string errors;
};

/** Runs it to its end. */
ControlResult Control(int port, std::vector<std::string> arguments, ControlOptions options = {});
