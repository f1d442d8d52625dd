#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "tests/system/ControlProcess.h"
#include "tests/system/DaemonUnderTest.h"

using nlohmann::json;
using testing::HasSubstr;

namespace
{
/** The listing once it shows so many commands. */
json WaitForCommands(DaemonUnderTest& daemon, std::size_t count)
{
    json listing;
    EXPECT_TRUE(WaitUntil([&] {
        listing = json::parse(Control(daemon.Port(), {"list", "--json"}).output, nullptr, false);
        return listing.is_object() && listing["commands"].size() == count;
    })) << listing;
    return listing;
}
} // namespace

TEST(Control, SubmittedCommandsGiveTheirOutputAndCode)
{
    DaemonUnderTest daemon;
    const ControlResult result =
        Control(daemon.Port(), {"submit", "-c", "printf 'a|b\\n' | tr a c; echo err >&2; exit 200"});
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.output, "c|b\nerr\n");
    EXPECT_EQ(result.errors, "");
    const ControlResult forged =
        Control(daemon.Port(), {"submit", "--", "printf", "%s", "->ProcessReturnCode = 0\nx"});
    EXPECT_EQ(forged.output, "->ProcessReturnCode = 0\nx");
    EXPECT_EQ(Control(daemon.Port(), {"submit", "--timeout", "1s", "sleep", "100"}).code, 124);
}

TEST(Control, AKillEndsWhatTheListingShows)
{
    DaemonUnderTest daemon;
    ControlProcess submit(daemon.Port(), {"submit", "-c", "sleep 100; : 'a|b'"});
    const json listing = WaitForCommands(daemon, 1);
    EXPECT_EQ(listing["commands"][0]["command"], "sleep 100; : 'a|b'");
    EXPECT_EQ(listing["commands"][0]["user"], OwnUser());
    const std::string number = listing["commands"][0]["number"].dump();
    EXPECT_THAT(Control(daemon.Port(), {"list"}).output, HasSubstr("sleep 100; : 'a|b'\n"));
    const ControlResult kill = Control(daemon.Port(), {"kill", "999999", number, "--tree"});
    EXPECT_EQ(kill.code, 255);
    EXPECT_THAT(kill.errors, HasSubstr("999999: "));
    EXPECT_THAT(kill.errors, testing::Not(HasSubstr(number + ": ")));
    EXPECT_EQ(submit.WaitForEnd(), 128 + SIGTERM);
    EXPECT_THAT(submit.Errors(), HasSubstr("tree killed"));
    WaitForCommands(daemon, 0);
}

TEST(Control, DetachedCommandsAreCollected)
{
    DaemonUnderTest daemon;
    TestDirectory logs;
    ControlProcess collect(daemon.Port(), {"collect", "--port", "0", logs.Path()});
    const std::string lead = "waiting for logs on port ";
    ASSERT_TRUE(WaitUntil([&] { return collect.Errors().ends_with('\n'); }));
    const std::string errors = collect.Errors();
    std::string port = errors.substr(errors.find(lead) + lead.size());
    port.pop_back();
    TestDirectory gate;
    const std::string waiting =
        "echo out; while [ -d " + gate.Path() + "/closed ]; do sleep 0.05; done; exit 7";
    ASSERT_EQ(mkdir((gate.Path() + "/closed").c_str(), 0700), 0);
    const ControlResult submit =
        Control(daemon.Port(), {"submit", "--detach", "--to", "127.0.0.1:" + port, "-c", waiting});
    ASSERT_EQ(submit.code, 0) << submit.errors;
    const std::string identifier = submit.output.substr(0, submit.output.find('\n'));
    const ControlResult running = Control(daemon.Port(), {"state", identifier});
    EXPECT_EQ(running.output, "RUNNING\n");
    EXPECT_EQ(running.code, 0);
    ASSERT_EQ(rmdir((gate.Path() + "/closed").c_str()), 0);
    EXPECT_TRUE(collect.WaitForOutput(": exit code 7\n"));
    ASSERT_EQ(ListDirectory(logs.Path()).size(), 1U);
    EXPECT_EQ(ReadFile(logs.Path() + "/" + ListDirectory(logs.Path())[0]), "out\n");
    EXPECT_TRUE(WaitUntil([&] {
        return Control(daemon.Port(), {"state", identifier}).output == "NOTFOUND\n";
    }));
    collect.Signal(SIGTERM);
    EXPECT_EQ(collect.WaitForEnd(), -SIGTERM);
}

TEST(Control, AShellTakesLinesAndGivesItsCode)
{
    DaemonUnderTest daemon;
    const ControlResult result =
        Control(daemon.Port(), {"shell"}, {.input = "read line\nfirst\necho \"<$line>\"\nexit 9\n"});
    EXPECT_EQ(result.output, "<first>\n");
    EXPECT_EQ(result.code, 9);
    ControlProcess interrupted(daemon.Port(), {"shell"},
                               {.input = "(/bin/sleep 600; :) & echo up; sleep 600\n"});
    ASSERT_TRUE(interrupted.WaitForOutput("up\n"));
    interrupted.Signal(SIGINT);
    EXPECT_EQ(interrupted.WaitForEnd(), -SIGINT);
    EXPECT_EQ(interrupted.Output(), "up\n");
    EXPECT_TRUE(WaitUntil([&] { return daemon.Descendants().empty(); }));
}

TEST(Control, SummariesAreJson)
{
    DaemonUnderTest daemon;
    TestDirectory folder;
    const std::string target = folder.Path() + "/a\"b\\\n";
    const ControlResult put = Control(daemon.Port(), {"put", "--json", "-", target}, {.input = "123456789"});
    const json summary = json::parse(put.output, nullptr, false);
    ASSERT_TRUE(summary.is_object()) << put.output << put.errors;
    EXPECT_EQ(summary["transfers"][0]["target"], target);
    EXPECT_EQ(summary["transfers"][0]["bytes"], 9);
    EXPECT_EQ(summary["transfers"][0]["checkSum"], 0xCBF43926U);
    const ControlResult get = Control(daemon.Port(), {"get", "--json", "/none", folder.Path()});
    EXPECT_EQ(get.code, 255);
    const json refused = json::parse(get.output, nullptr, false)["transfers"][0];
    EXPECT_EQ(refused["done"], false);
    EXPECT_EQ(refused["serverWords"], "No such file or directory: /none");
    const json all = json::parse(Control(daemon.Port(), {"list", "--all", "--json"}).output, nullptr, false);
    EXPECT_GT(all["report"].size(), 3U);
}

TEST(Control, ThePasswordIsInNoProcessForOthersToSee)
{
    DaemonUnderTest daemon;
    TestDirectory folder;
    const std::string file = folder.Path() + "/password";
    // In two pieces, so that this program itself does not count.
    const std::string secret = "very-" + std::to_string(getpid()) + "-secret";
    std::ofstream(file) << secret << "\n";
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ControlProcess submit(daemon.Port(), {"submit", "--password-file", file, "sleep", "100"});
    ControlProcess run(daemon.Port(), {"run", "sleep", "100"},
                       {.environment = {"RUVEL_PASSWORD_FILE=" + file}});
    const json listing = WaitForCommands(daemon, 3);
    int seen = 0;
    for (const auto& process : std::filesystem::directory_iterator("/proc"))
        for (const char* const name : {"/cmdline", "/environ"}) {
            const std::string text = ReadFile(process.path().string() + name);
            seen += text.find("sleep") != std::string::npos ? 1 : 0;
            EXPECT_EQ(text.find(secret), std::string::npos) << process.path() << name;
        }
    EXPECT_GT(seen, 0);
    for (const json& one : listing["commands"])
        Control(daemon.Port(), {"kill", "--tree", one["number"].dump()});
}

TEST(Control, AShutdownEndsTheServer)
{
    DaemonUnderTest daemon;
    EXPECT_EQ(Control(daemon.Port(), {"shutdown"}).code, 0);
    const ControlResult afterwards = Control(daemon.Port(), {"list"});
    EXPECT_EQ(afterwards.code, 255);
    EXPECT_THAT(afterwards.errors, HasSubstr("no server at"));
}
