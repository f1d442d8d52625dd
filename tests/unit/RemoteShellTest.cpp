#include "client/RemoteShell.h"

#include <gtest/gtest.h>

TEST(RemoteShellTest, ReadsTheCallsOfOtherPrograms)
{
    const struct {
        std::vector<std::string> arguments;
        std::string host, line, user = {};
        int port = 0, connectTimeOut = 0;
        bool passesInput = true, isBatch = false;
    } cases[] = {
        {{"host", "a", " b ", ""}, "host", "a  b  "},
        {{"-l", "me", "host", "rsync", "--server", "-l"}, "host", "rsync --server -l", "me"},
        {{"-C", "-o", "ControlMaster=auto", "-o", "User=\"bob\"", "-oPort=7", "-o", "ConnectTimeout=10",
          "-tt", "host", "/bin/sh -c 'x'"},
         "host",
         "/bin/sh -c 'x'",
         "bob",
         7,
         10},
        {{"-oBatchMode yes", "-nTq", "you@me@h", "-p7", "-o", "port = 8", "--", "-x", "--"},
         "h",
         "-x --",
         "you@me",
         7,
         0,
         false,
         true},
        {{"-e", "none", "-4", "--", "host", "-n", "true"}, "host", "true", "", 0, 0, false},
        {{"-l", "first", "second@host", "-", "x"}, "host", "- x", "first"},
        {{"-oHostName=first", "-ohostname=second", "-oBatchMode=no", "host", "-oBatchMode=yes", "x"},
         "first",
         "x"},
    };
    for (const auto& one : cases) {
        RemoteShellCall call;
        EXPECT_EQ(ReadRemoteShellCall(one.arguments, call).sentence, "") << one.line;
        EXPECT_FALSE(call.exitCode.has_value()) << one.line;
        EXPECT_EQ(call.host, one.host) << one.line;
        EXPECT_EQ(call.user.value_or(""), one.user) << one.line;
        EXPECT_EQ(call.port.value_or(0), one.port) << one.line;
        EXPECT_EQ(call.connectTimeOut.value_or(0), one.connectTimeOut) << one.line;
        EXPECT_EQ(call.passesInput, one.passesInput) << one.line;
        EXPECT_EQ(call.isBatch, one.isBatch) << one.line;
        EXPECT_EQ(call.line, one.line);
    }
}

TEST(RemoteShellTest, RefusesWhatWouldDoSomethingElse)
{
    const std::vector<std::vector<std::string>> cases = {{},
                                                         {"-l", "me"},
                                                         {"host"},
                                                         {"host", "--"},
                                                         {"host", "-p"},
                                                         {"host", "-p", "0", "x"},
                                                         {"-p", "1x", "host", "x"},
                                                         {"-L", "1:b:2", "host", "x"},
                                                         {"-O", "check", "host"},
                                                         {"-o", "ProxyJump=other", "host", "x"},
                                                         {"-o", "RemoteForward=1 b:2", "host", "x"},
                                                         {"me@", "x"}};
    for (const auto& arguments : cases) {
        RemoteShellCall call;
        EXPECT_TRUE(ReadRemoteShellCall(arguments, call)) << (arguments.empty() ? "" : arguments.front());
    }
    RemoteShellCall query;
    EXPECT_FALSE(ReadRemoteShellCall({"-G", "-o", "SendEnv=X", "host"}, query));
    EXPECT_EQ(query.exitCode, 1);
}
