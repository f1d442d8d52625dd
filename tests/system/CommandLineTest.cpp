#include <algorithm>
#include <csignal>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/system/DaemonUnderTest.h"

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace
{
std::string ShortHostName()
{
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    std::string text(name);
    text.resize(std::min(text.size(), text.find('.')));
    for (char& c : text)
        c = static_cast<char>(tolower(c));
    return text;
}

std::string CheckPort(int port, std::string_view result)
{
    return "Check port (" + std::to_string(port) + ") for data connection..." + std::string(result) + "\n";
}

auto CountLines(const std::string& text)
{
    return std::count(text.begin(), text.end(), '\n');
}
} // namespace

TEST(CommandLine, HelpIsTheUsageAndNothingElse)
{
    const std::string usage = "RuvelServer V1.8.3 January 27, 2005 (Unix)\n"
                              "\n"
                              "Options:\n"
                              "\n"
                              "    -help or -h              : display this message\n"
                              "\n"
                              "  To install the daemon:\n"
                              "\n"
                              "    -port PortNumber         : daemon port number (default 5678)\n"
                              "    -retrynumber RetryNumber : retry number (default 0)\n"
                              "    -retrytime RetryTime     : retry time in sec (default 1 sec)\n"
                              "    -noinstall               : single user mode\n"
                              "    -nocheck                 : don't check for password\n"
                              "    -logdirectory Directory  : directory for command(s) log\n"
                              "\n";
    const std::vector<std::vector<std::string>> lines = {{"-h"},
                                                         {"-help"},
                                                         {"-logdirectory", "/nowhere", "-port", "abc", "-h"},
                                                         {"-port", "-help", "-nosuch"}};
    for (const std::vector<std::string>& line : lines) {
        const TestDirectory directory;
        ServerProcess server(directory.Path(), line);
        EXPECT_EQ(server.WaitForEnd(), 1);
        EXPECT_EQ(server.Trace(), usage);
        EXPECT_EQ(server.Errors(), "");
    }
}

TEST(CommandLine, StartTracesWhoAndWhereItIsWhateverElseIsAsked)
{
    DaemonUnderTest daemon({.furtherArguments = {"-nosuch", "stray", "-Port", "1", "-retrytime"}});
    const std::string port = std::to_string(daemon.Port());
    EXPECT_THAT(daemon.Address(), MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+"));
    EXPECT_EQ(daemon.Process().Trace(), "RuvelServer V1.8.3 January 27, 2005 (Unix)\n"
                                        "Server (" +
                                            ShortHostName() + "," + port + ")\nServer address is (" +
                                            daemon.Address() + ")\n" +
                                            CheckPort(daemon.Port() - 1, "(successfull)"));
}

TEST(CommandLine, UnusableLogDirectoryFallsBack)
{
    // The last one can be entered, but only root may make files in it.
    for (const std::string directory :
         {"/nowhere/at/all", "/dev/null", geteuid() == 0 ? "/dev/null/x" : "/usr"}) {
        DaemonUnderTest daemon({.logDirectory = directory});
        EXPECT_THAT(daemon.Process().Trace(), MatchesRegex("Error invalid log directory value \\(" +
                                                           directory + "\\) : [^\n]+\n(.|\n)*"));
        EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo $RUVELSERVER_TMP")), Finished("/tmp\n", 0));
    }
}

TEST(CommandLine, ABusyPortIsTriedAsOftenAsAsked)
{
    struct Case {
        std::vector<std::string> retries;
        int attempts;
    };
    const std::vector<Case> cases = {{{}, 1},
                                     {{"-retrynumber", "-3"}, 1},
                                     {{"-retrynumber", "two"}, 1},
                                     {{"-retrytime", "1000"}, 1},
                                     {{"-retrynumber", "2", "-retrytime", "0"}, 3}};
    for (const Case& tried : cases) {
        const TestDirectory directory;
        const int port = FindFreePort();
        const BusyPort busy(port);
        std::vector<std::string> arguments = {"-noinstall", "-port", std::to_string(port)};
        arguments.insert(arguments.end(), tried.retries.begin(), tried.retries.end());
        ServerProcess server(directory.Path(), arguments);
        EXPECT_EQ(server.WaitForEnd(), 1);
        EXPECT_EQ(CountLines(server.Trace()), tried.attempts) << server.Trace();
        EXPECT_THAT(server.Trace(), Not(HasSubstr("RuvelServer")));
    }
}

TEST(CommandLine, APortThatBecomesFreeIsTaken)
{
    const TestDirectory directory;
    const int port = FindFreePort();
    std::optional<BusyPort> busy(port);
    ServerProcess server(directory.Path(), {"-noinstall", "-nocheck", "-retrynumber", "60", "-port",
                                            std::to_string(port), "-logdirectory", directory.Path()});
    ASSERT_TRUE(server.WaitForTrace("\n"));
    server.Signal(SIGCHLD); // children it may have from whoever became it end at any time
    busy.reset();
    EXPECT_TRUE(server.WaitForTrace("(successfull)\n")) << server.Trace();
    server.Signal(SIGTERM);
    EXPECT_EQ(server.WaitForEnd(), 0);
}

TEST(CommandLine, ABusyDataPortEndsTheStart)
{
    const TestDirectory directory;
    const int port = FindFreePort();
    const BusyPort busy(port - 1);
    ServerProcess server(directory.Path(), {"-noinstall", "-port", std::to_string(port)});
    EXPECT_EQ(server.WaitForEnd(), 1);
    const std::string refused = CheckPort(port - 1, "(failed)");
    const size_t position = server.Trace().find(refused);
    ASSERT_NE(position, std::string::npos) << server.Trace();
    EXPECT_EQ(CountLines(server.Trace().substr(position + refused.size())), 1) << server.Trace();
}

TEST(CommandLine, APortBeyondTheLastFailsWithItsReason)
{
    const TestDirectory directory;
    ServerProcess server(directory.Path(), {"-noinstall", "-port", "70000"});
    EXPECT_EQ(server.WaitForEnd(), 1);
    EXPECT_EQ(CountLines(server.Trace()), 1) << server.Trace();
}
