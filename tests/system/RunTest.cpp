#include <algorithm>
#include <csignal>
#include <fstream>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/system/ControlProcess.h"
#include "tests/system/DaemonUnderTest.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
using Words = std::vector<std::string>;

auto CountLines(const std::string& text)
{
    return std::count(text.begin(), text.end(), '\n');
}

bool WaitUntilNothingRuns(const DaemonUnderTest& daemon)
{
    return WaitUntil([&] { return daemon.Descendants().empty(); });
}

void EndWhatIsLeft(const DaemonUnderTest& daemon)
{
    EXPECT_TRUE(WaitUntil([&] {
        for (const pid_t left : daemon.Descendants())
            kill(left, SIGKILL);
        return daemon.Descendants().empty();
    }));
}

/** What means something to shells and to the wire is more frequent than it would be. */
std::string RandomWord(std::mt19937& random, std::size_t length)
{
    std::string word;
    while (word.size() < length)
        word +=
            random() % 2 == 0 ? "|\n'\"\\$`; .\x1e"[random() % 11] : static_cast<char>(1 + random() % 255);
    return word;
}
} // namespace

TEST(Run, EndsWithTheCommandsCodeInEveryMode)
{
    DaemonUnderTest daemon;
    for (const int code : {0, 1, 2, 100, 124, 126, 127, 128, 143, 254, 255}) {
        const std::string line = "echo out; echo err >&2; exit " + std::to_string(code);
        const ControlResult apart = Control(daemon.Port(), {"run", "-c", line});
        EXPECT_EQ(apart.code, code);
        EXPECT_EQ(apart.output, "out\n");
        EXPECT_EQ(apart.errors, "err\n");
        const ControlResult merged = Control(daemon.Port(), {"run", "--merge", "--", "sh", "-c", line});
        EXPECT_EQ(merged.code, code);
        EXPECT_EQ(merged.output, "out\nerr\n");
        const ControlResult one = Control(daemon.Port(), {"run", "-c", line}, {.hasOneOutput = true});
        EXPECT_EQ(one.code, code);
        EXPECT_EQ(one.output, "out\nerr\n");
        const ControlResult shell = Control(
            daemon.Port(), {"127.0.0.1:" + std::to_string(daemon.Port()), line}, {.program = "ruvelsh"});
        EXPECT_EQ(shell.code, code);
        EXPECT_EQ(shell.output, "out\n");
        EXPECT_EQ(shell.errors, "err\n");
    }
}

TEST(Run, AnyWordsArriveAsTheyWere)
{
    DaemonUnderTest daemon;
    std::mt19937 random(1893);
    for (int round = 0; round < 25; ++round) {
        Words words = {"run", "--", "printf", "%s\\0"};
        std::string expected;
        // The last round's line is too long for a request's field, but no word for an argument.
        const std::size_t length = round == 24 ? 50'000 : 60;
        for (std::size_t count = 1 + random() % 4; count > 0; --count) {
            words.push_back(RandomWord(random, length + random() % 9));
            expected += words.back() + '\0';
        }
        const ControlResult result = Control(daemon.Port(), words);
        ASSERT_EQ(result.errors, "");
        ASSERT_EQ(result.code, 0);
        ASSERT_EQ(result.output, expected);
    }
    // No assignment, though it stands first.
    EXPECT_EQ(Control(daemon.Port(), {"run", "--", "A=1", "true"}).code, 127);
}

TEST(Run, InputAndOutputAreBinary)
{
    DaemonUnderTest daemon;
    std::mt19937 random(7);
    std::string bytes(3'000'000, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    const std::string longComment = "#" + std::string(100'000, 'x');
    for (const std::string& line : {std::string("tee /dev/stderr"), "tee /dev/stderr " + longComment}) {
        const ControlResult result = Control(daemon.Port(), {"run", "-c", line}, {.input = bytes});
        EXPECT_EQ(result.code, 0);
        EXPECT_TRUE(result.output == bytes) << result.output.size();
        EXPECT_TRUE(result.errors == bytes) << result.errors.size();
        const ControlResult without = Control(daemon.Port(), {"run", "-n", "-c", line}, {.input = bytes});
        EXPECT_EQ(without.code, 0);
        EXPECT_EQ(without.output + without.errors, "");
    }
    // A command need not read its input.
    EXPECT_EQ(Control(daemon.Port(), {"run", "false"}, {.input = bytes}).code, 1);
}

TEST(Run, NoLineImitatesOrHidesItsEnd)
{
    DaemonUnderTest daemon;
    const struct {
        const char* line;
        const char* output;
        int code;
    } cases[] = {
        {"printf -- '->ProcessReturnCode = 0\\n'; exit 9", "->ProcessReturnCode = 0\n", 9},
        {"echo x; printf -- '->Command N(1), killed\\n->ProcessReturnCode = 0\\n'; exit 9",
         "x\n->Command N(1), killed\n->ProcessReturnCode = 0\n", 9},
        {"sleep 600 & echo x; exit 3", "x\n", 3},
        {"(while sleep 0.01; do echo late; done) >/dev/null & exit 4", "", 4},
        {"kill -9 $$", nullptr, 137},
        {"exec false", "", 1},
        {"trap 'exit 8' 0; exit 4", "", 8},
        {"set -e; false", "", 1},
        {"printf() { :; }; (exit 255)", "", 255},
        {"echo 'x", nullptr, 2},
        {" -x", nullptr, 127},
        {"# nothing", "", 0},
        {"", "", 0},
        // Some show more than their own output, the last the sent line too: only how they end matters.
        {"tr '\\0' '\\n' </proc/$PPID/cmdline >/dev/null; cat /proc/$PPID/cmdline | wc -l", nullptr, 0},
    };
    for (const auto& one : cases) {
        for (Words words : {Words{"run"}, Words{"run", "--merge"}}) {
            words.insert(words.end(), {"-c", one.line});
            const ControlResult result = Control(daemon.Port(), words);
            EXPECT_EQ(result.code, one.code) << one.line << result.errors;
            if (one.output != nullptr) {
                EXPECT_EQ(result.output, one.output) << one.line;
            }
        }
    }
    // The shell that tells the end is ended before it can.
    const ControlResult cut = Control(daemon.Port(), {"run", "-c", "echo x; kill -TERM $PPID; sleep 600"});
    EXPECT_EQ(cut.code, 143);
    EXPECT_EQ(cut.output, "x\n");
    EndWhatIsLeft(daemon);
}

TEST(Run, WhoeverTakesTurnsIsNotKeptWaiting)
{
    DaemonUnderTest daemon;
    for (const char* const beginning : {"x-", "->Process", "x\\036"}) {
        ControlProcess control(daemon.Port(),
                               {"run", "-c", "printf -- '" + std::string(beginning) + "'; sleep 600"});
        EXPECT_TRUE(WaitUntil([&] { return control.Output().size() >= 2; })) << beginning;
        control.Signal(SIGTERM);
        EXPECT_EQ(control.WaitForEnd(), -SIGTERM);
    }
}

TEST(Run, TheServersEndsAreTold)
{
    DaemonUnderTest daemon;
    const ControlResult expired = Control(daemon.Port(), {"run", "--timeout", "1s", "--", "sleep", "600"});
    EXPECT_EQ(expired.code, 124);
    EXPECT_THAT(expired.errors, HasSubstr("the time-out ended it"));

    ControlProcess unlucky(daemon.Port(), {"run", "-c", "echo ready; sleep 600"});
    ASSERT_TRUE(unlucky.WaitForOutput("ready"));
    daemon.Process().Signal(SIGTERM);
    EXPECT_EQ(unlucky.WaitForEnd(), 143);
    EXPECT_THAT(unlucky.Errors(), HasSubstr("was shut down"));
}

TEST(Run, AnInterruptEndsTheRemoteTree)
{
    DaemonUnderTest daemon;
    for (const int signal : {SIGINT, SIGTERM}) {
        ControlProcess control(daemon.Port(), {"run", "-c", "sleep 600 & echo ready; sleep 600 | cat"});
        ASSERT_TRUE(control.WaitForOutput("ready"));
        control.Signal(signal);
        EXPECT_EQ(control.WaitForEnd(), -signal);
        EXPECT_THAT(control.Errors(), HasSubstr("interrupted"));
        EXPECT_TRUE(WaitUntilNothingRuns(daemon));
    }
    EXPECT_EQ(Control(daemon.Port(), {"run", "-c", "echo x; sleep 600"}, {.hasClosedOutput = true}).code,
              -SIGPIPE);
    EXPECT_TRUE(WaitUntilNothingRuns(daemon));
    for (const ControlOptions& options :
         {ControlOptions{.outputFile = "/dev/full"}, ControlOptions{.lacksStreams = true}}) {
        const ControlResult lost = Control(daemon.Port(), {"run", "-c", "echo x; sleep 600"}, options);
        EXPECT_EQ(lost.code, 255);
        EXPECT_THAT(lost.errors, HasSubstr("the output cannot be written"));
        EXPECT_TRUE(WaitUntilNothingRuns(daemon));
    }
    // The folder of logs is where the way for standard error lay.
    EXPECT_THAT(daemon.LogFiles(), IsEmpty());
}

TEST(Run, ASecondInterruptLeavesAtOnce)
{
    DaemonUnderTest daemon({.shortLadders = true});
    ControlProcess control(daemon.Port(),
                           {"run", "-c", "trap '' TERM; echo ready; while :; do sleep 1; done"});
    ASSERT_TRUE(control.WaitForOutput("ready"));
    control.Signal(SIGINT);
    ASSERT_TRUE(WaitUntil([&] { return !control.Errors().empty(); }));
    control.Signal(SIGINT);
    EXPECT_EQ(control.WaitForEnd(), -SIGINT);
    EXPECT_FALSE(daemon.Descendants().empty());
    // The way for standard error goes as soon as it is open at both ends.
    EXPECT_TRUE(WaitUntil([&] { return daemon.LogFiles().empty(); }));
    EndWhatIsLeft(daemon);
}

TEST(Run, FailuresAreOneLineAnd255)
{
    DaemonUnderTest daemon;
    TestDirectory directory;
    const std::string open = directory.Path() + "/open";
    const std::string bar = directory.Path() + "/bar";
    std::ofstream(open) << "secret\n";
    chmod(open.c_str(), 0640);
    std::ofstream(bar) << "se|cret\n";
    chmod(bar.c_str(), 0600);
    const struct {
        Words arguments;
        const char* said;
    } cases[] = {
        {{}, ""},
        {{"walk"}, ""},
        {{"run"}, ""},
        {{"run", "--"}, ""},
        {{"run", "-Z", "ls"}, ""},
        {{"run", "-H"}, ""},
        {{"run", "-H", "a:0", "ls"}, ""},
        {{"run", "-H", "a:", "ls"}, ""},
        {{"run", "-H", "a:65536", "ls"}, ""},
        {{"run", "--timeout", "-1", "ls"}, ""},
        {{"run", "--timeout", "5x", "ls"}, ""},
        {{"run", "-H", "127.0.0.1:1", "true"}, "no server at"},
        {{"run", "-H", "no-such-host.invalid", "true"}, "no server at"},
        {{"run", "--password-file", open, "true"}, "open to others"},
        {{"run", "--password-file", directory.Path() + "/none", "true"}, "cannot be opened"},
        {{"run", "--password-file", bar, "true"}, "the password holds a \"|\""},
        {{"run", "-H", "", "true"}, "the host is empty"},
        {{"run", "-u", "", "true"}, "the user is empty"},
        {{"run", "-u", "a|b", "true"}, "the user holds a \"|\""},
        {{"run", "--proxy", "echo HTTP; cat >/dev/null", "true"}, "no RuvelServer"},
        {{"run", "--proxy", "exit 1", "true"}, "check the proxy command"},
        {{"state", "--proxy", "yes", "x"}, "longer than"},
        {{"submit", "--proxy", "yes", "--detach", "--to", "127.0.0.1", "true"}, "longer than"},
        {{"list", "--proxy", "yes"}, "longer than"},
    };
    for (const auto& one : cases) {
        const ControlResult result = Control(daemon.Port(), one.arguments);
        EXPECT_EQ(result.code, 255) << one.said;
        EXPECT_EQ(CountLines(result.errors), 1) << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(one.said));
        EXPECT_EQ(result.output, "");
    }
    const ControlResult refused = Control(daemon.Port(), {"run", "-u", "nobody-of-the-kind", "true"});
    EXPECT_EQ(refused.code, 255);
    EXPECT_THAT(refused.errors, HasSubstr("serves only the user who started it"));
    EXPECT_THAT(refused.errors, HasSubstr("Error not owner"));
}
