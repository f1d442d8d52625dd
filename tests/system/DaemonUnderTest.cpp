#include "tests/system/DaemonUnderTest.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/SystemFacts.h"

DaemonUnderTest::DaemonUnderTest(const DaemonOptions& options)
    : logDirectory_(options.logDirectory.empty() ? directory_.Path() + "/logs" : options.logDirectory),
      toleratedErrors_(options.toleratedErrors)
{
    if (options.logDirectory.empty()) {
        mkdir(logDirectory_.c_str(), 0755);
        const passwd* owner = options.user.empty() ? nullptr : getpwnam(options.user.c_str());
        if (owner && chown(logDirectory_.c_str(), owner->pw_uid, owner->pw_gid) != 0)
            throw std::runtime_error("unable to give the log directory away");
    }
    Start(options);
}

void DaemonUnderTest::Start(const DaemonOptions& options)
{
    // Another run may take the ports between the question and the start: then a new pair is tried.
    constexpr int Attempts = 5;
    const char* program = options.shortLadders ? "RuvelServerShortLadders" : "RuvelServer";
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        port_ = FindFreePort();
        std::vector<std::string> arguments = options.mode;
        arguments.insert(arguments.end(), {"-port", std::to_string(port_), "-logdirectory", logDirectory_});
        arguments.insert(arguments.end(), options.furtherArguments.begin(), options.furtherArguments.end());
        process_ = std::make_unique<ServerProcess>(directory_.Path(), arguments, options.user, program,
                                                   options.environment);
        if (process_->WaitForTrace("Check port (" + std::to_string(port_ - 1) +
                                   ") for data connection...(successfull)\n")) {
            return;
        }
    }
    throw std::runtime_error("the daemon does not start:\n" + process_->Trace() + process_->Errors());
}

DaemonUnderTest::~DaemonUnderTest()
{
    End();
    ExpectNothingLeft();
    if (testing::Test::HasFailure()) {
        std::cout << "---- trace\n"
                  << process_->Trace() << "---- errors\n"
                  << process_->Errors() << "---- dialogue\n"
                  << dialogue_.Text() << "----\n";
    }
}

void DaemonUnderTest::End()
{
    process_->Signal(SIGTERM);
    EXPECT_EQ(process_->WaitForEnd(), 0) << "exit status of the daemon";
    if (!process_->HasEnded()) {
        process_->Signal(SIGKILL);
        process_->WaitForEnd();
    }
}

std::vector<pid_t> DaemonUnderTest::Descendants() const
{
    std::vector<pid_t> found = FindProcessesWith(directory_.Path());
    std::erase(found, process_->Id());
    std::erase(found, getpid());
    return found;
}

void DaemonUnderTest::ExpectNothingLeft()
{
    // A process that has just been killed may still be on its way out.
    WaitUntil([this] { return Descendants().empty(); }, std::chrono::seconds(5));
    for (const pid_t process : Descendants()) {
        ADD_FAILURE() << "left behind: " << ReadFile("/proc/" + std::to_string(process) + "/cmdline").c_str();
        kill(process, SIGKILL);
    }
    if (logDirectory_.starts_with(directory_.Path())) {
        for (const std::string& name : LogFiles())
            ADD_FAILURE() << "left behind: " << name;
    }
    EXPECT_EQ(CountSystemVObjectsOf(process_->Id()), 0u);
    std::istringstream errors(process_->Errors());
    for (std::string line; std::getline(errors, line);)
        EXPECT_TRUE(
            std::any_of(toleratedErrors_.begin(), toleratedErrors_.end(),
                        [&](const std::string& text) { return line.find(text) != std::string::npos; }))
            << line;
}

std::string DaemonUnderTest::Address() const
{
    const std::string trace = process_->Trace();
    const std::string before = "Server address is (";
    const size_t start = trace.find(before) + before.size();
    return trace.substr(start, trace.find(')', start) - start);
}

std::string Ask(DaemonUnderTest& daemon, std::string_view request)
{
    Client client = daemon.Connect();
    client.Send(request);
    return client.ReadToEnd();
}
