#include <algorithm>
#include <cctype>

#include "tests/unit/Commands.h"
#include "tests/unit/Loopback.h"

namespace
{
using commands::CommandTest;
using commands::WaitUntil;

using ChildTableTest = CommandTest;
using ProcessTest = CommandTest;

pid_t ForkExiting(int code)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(code);
    return child;
}

TEST_F(ChildTableTest, AReusedIdIsNotMistakenForTheChildThatHadIt)
{
    const ChildId first = ChildTable::Enter(ForkExiting(5));
    EXPECT_TRUE(ChildTable::IsRunning(first));
    EXPECT_TRUE(WaitUntil([] {
        ChildTable::Reap();
        return ChildTable::CountOfUnaskedEnds() == 1;
    }));
    const ChildId second = ChildTable::Enter(static_cast<pid_t>(first.processId));

    EXPECT_FALSE(ChildTable::IsRunning(first));
    EXPECT_TRUE(ChildTable::IsRunning(second));
    int status = 0;
    EXPECT_EQ(ChildTable::Ask(second, status), ChildState::Running);
    EXPECT_TRUE(ChildTable::HoldsRunning(static_cast<pid_t>(second.processId)));
    ChildTable::Forget(second);
    EXPECT_FALSE(ChildTable::HoldsRunning(static_cast<pid_t>(second.processId)));
    EXPECT_EQ(ChildTable::Ask(first, status), ChildState::Ended);
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_EQ(ChildTable::Ask(first, status), ChildState::Unknown);
    EXPECT_EQ(ChildTable::CountOfUnaskedEnds(), 0);
}

TEST_F(ChildTableTest, EachChildKeepsItsOwnStatusAmongStrangers)
{
    std::vector<ChildId> children;
    for (int code = 0; code < 40; ++code) {
        children.push_back(ChildTable::Enter(ForkExiting(code)));
        ForkExiting(99); // never entered
    }
    ChildTable::Forget(children[7]);
    for (int code = 39; code >= 0; --code) {
        int status = 0;
        const ChildState state = ChildTable::Wait(children[static_cast<std::size_t>(code)], status,
                                                  commands::DeadlineSeconds * 1000);
        EXPECT_EQ(state, code == 7 ? ChildState::Unknown : ChildState::Ended);
        EXPECT_EQ(WEXITSTATUS(status), code == 7 ? 0 : code);
    }
    EXPECT_TRUE(WaitUntil([] {
        ChildTable::Reap();
        return waitpid(-1, nullptr, WNOHANG) == -1; // the strangers have been reaped as well
    }));
    EXPECT_EQ(ChildTable::CountOfUnaskedEnds(), 0);
}

TEST_F(ProcessTest, TellsHowACommandEnded)
{
    const struct {
        const char* command;
        int code;
    } cases[] = {{"exit 0", 0},           {"exit 3", 3},          {"exit 255", 255},   {"", 0},
                 {"kill -9 $$", 128 + 9}, {"kill -TERM $$", 143}, {"no-such-cmd", 127}};
    for (const auto& [command, code] : cases) {
        BaseProcess process;
        ASSERT_EQ(Start(process, command), 0);
        EXPECT_EQ(WaitForEnd(process), code) << command;
    }
}

TEST_F(ProcessTest, TheEndIsKnownAfterSomebodyElseHasReaped)
{
    BaseProcess process;
    ASSERT_EQ(Start(process, "read line; exit 4"), 0);
    EXPECT_TRUE(WaitUntil([] {
        BaseProcess::CleanZombiProcess();
        return ChildTable::CountOfUnaskedEnds() == 1;
    }));
    int code = -1;
    for (int i = 0; i < 2; ++i) {
        EXPECT_NE(process.CheckForProcess(code), 0);
        EXPECT_EQ(code, 4);
    }
    EXPECT_EQ(process.WaitForProcess(code, 0), 0);
    EXPECT_EQ(process.KillBaseProcess(1), 0); // whoever has that id now
}

TEST_F(ProcessTest, AskingKillingAndForgetting)
{
    BaseProcess process;
    ASSERT_EQ(Start(process, "trap '' TERM; echo $$ >> ids; kill -STOP $$; exec sleep 1000"), 0);
    int code = -1;
    EXPECT_EQ(process.CheckForProcess(code), 0);
    EXPECT_NE(process.WaitForProcess(code, 0), 0);
    EXPECT_EQ(code, -1);

    const pid_t processId = process.GetProcessId();
    ProcessStatus status;
    const auto hasState = [&](char state) {
        return WaitUntil(
            [&] { return ProcessFiles::ReadStatus(processId, status) && status.state == state; });
    };
    EXPECT_TRUE(hasState('T'));
    EXPECT_EQ(process.KillBaseProcess(0), 0); // ignored, but it runs again
    EXPECT_TRUE(hasState('S'));
    EXPECT_EQ(process.CheckForProcess(code), 0);

    process.ResetBeforeDestruction();
    EXPECT_EQ(process.GetProcessId(), 0);
    EXPECT_NE(process.CheckForProcess(code), 0);
    EXPECT_EQ(process.KillBaseProcess(1), 0);
    EXPECT_EQ(process.KillBaseProcessTree(1), 0);
    EXPECT_TRUE(IsAlive(processId)) << "a forgotten process was signalled";
}

TEST_F(ProcessTest, WhatCannotStartSaysWhyAndLeavesNothing)
{
    std::filesystem::create_directory(Path("directory"));
    const struct {
        std::string command;
        std::string input;
        std::string log;
        std::string reason;
    } cases[] = {
        {std::string(131072, ' '), "/dev/null", "new", "Error command line too long : "},
        {std::string("echo a\0rm b", 11), "/dev/null", "new", "Error command line holds a NUL"},
        {"exit 0", "/nonexistent/x", "new", "Error unable to open file...(/nonexistent/x) : No such"},
        {"exit 0", "/dev/null", "missing/new", "Error unable to open log file...("},
        {"exit 0", "/dev/null", "directory", "Error unable to open log file...("},
    };
    for (const auto& [command, input, log, reason] : cases) {
        BaseProcess process;
        process.SetInputFileName(input);
        process.SetOutputAndErrorFileName(Path(log));
        EXPECT_NE(process.StartBaseProcess(command, nullptr, 0, 0), 0) << reason;
        EXPECT_TRUE(process.BaseProcessGetLastError().View().starts_with(reason))
            << process.BaseProcessGetLastError().ConvertToChar();
        EXPECT_EQ(process.GetProcessId(), 0);
        EXPECT_FALSE(std::filesystem::exists(Path("new")));
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "something was forked";

    BaseProcess longest;
    ASSERT_EQ(Start(longest, "exit 6" + std::string(131071 - 6, ' ')), 0);
    EXPECT_EQ(WaitForEnd(longest), 6);
}

TEST_F(ProcessTest, AForkThatFailsLeavesNoLog)
{
    ASSERT_EQ(chmod(std::filesystem::path(Path("log")).parent_path().c_str(), 0777), 0);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit none{0, 0}; // of processes, for anybody but root
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0))
            _exit(2);
        BaseProcess process;
        EXPECT_NE(Start(process, "exit 0"), 0);
        EXPECT_EQ(process.BaseProcessGetLastError(),
                  QORUnicodeString("Error unable to start command : Resource temporarily unavailable"));
        EXPECT_FALSE(std::filesystem::exists(Path("log")));
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see the expectations that failed above";
}

TEST_F(ProcessTest, AFailureBeyondTheForkReachesTheLog)
{
    const std::string large(120000, 'x'); // 30 of them are more than the kernel passes on
    for (int i = 0; i < 30; ++i)
        setenv(("LARGE" + std::to_string(i)).c_str(), large.c_str(), 1);
    BaseProcess process;
    const int result = Start(process, "exit 0");
    for (int i = 0; i < 30; ++i)
        unsetenv(("LARGE" + std::to_string(i)).c_str());
    ASSERT_EQ(result, 0);
    EXPECT_EQ(WaitForEnd(process), 126);
    EXPECT_EQ(Log(), "Error unable to start command, /bin/sh : Argument list too long\n");
}

// --- What a command finds -------------------------------------------------------------------------------

struct StartCall {
    const char* name;
    bool asUser; // a login of this user; else this process' own environment
    bool onSocket;
    bool asAnother; // an account that every system has; needs root
};

class InheritanceTest : public CommandTest, public testing::WithParamInterface<StartCall>
{
protected:
    /** Runs it by the call under test; its output. */
    std::string Run(const std::string& command)
    {
        BaseProcess process;
        process.SetUserVerified();
        process.SetOutputAndErrorFileName(Path("log"));
        const QORUnicodeString user(account_.name);
        loopback::Pair sockets;
        const auto& [name, asUser, onSocket, asAnother] = GetParam();
        int result;
        if (onSocket)
            result = asUser ? process.StartBaseProcessUserWithSocket(command, user, "", sockets.server,
                                                                     nullptr, 0, 0)
                            : process.StartBaseProcessWithSocket(command, sockets.server, nullptr, 0, 0, 0);
        else
            result = asUser ? process.StartBaseProcessUser(command, user, "", nullptr, 0)
                            : process.StartBaseProcess(command, nullptr, 0, 0);
        EXPECT_EQ(result, 0) << process.BaseProcessGetLastError().ConvertToChar();
        processId_ = process.GetProcessId();
        EXPECT_EQ(process.GetUserId(), account_.userId);
        EXPECT_EQ(process.GetOutputFileName(), QORUnicodeString(Path("log")));
        sockets.server.CloseBaseSocket();
        EXPECT_EQ(WaitForEnd(process), 0);
        EXPECT_EQ(std::filesystem::exists(Path("log")), !onSocket);
        return onSocket ? loopback::ReadToEnd(sockets.client) : Log();
    }

    void SetUp() override
    {
        account_ = Accounts::Own();
        if (GetParam().asAnother) {
            ASSERT_EQ(Accounts::Find(geteuid() == 0 ? "nobody" : "root", account_), 0);
        }
    }

    /** True, once that has been seen, when this is a call that only root has the right to. */
    bool IsRefused()
    {
        if (!GetParam().asAnother || geteuid() == 0)
            return false;
        BaseProcess process;
        process.SetUserVerified();
        process.SetOutputAndErrorFileName(Path("log"));
        EXPECT_NE(process.StartBaseProcessUser("exit 0", account_.name, "", nullptr, 0), 0);
        EXPECT_EQ(process.BaseProcessGetLastError(),
                  QORUnicodeString("Error only root can start a command as another user"));
        EXPECT_FALSE(std::filesystem::exists(Path("log")));
        return true;
    }

    Account account_;
    pid_t processId_ = 0;
};

TEST_P(InheritanceTest, NothingOfTheSupervisorsButWhatItShould)
{
    if (IsRefused())
        return;
    const std::string output =
        Run("ls /proc/$$/fd; cut -d' ' -f6,7 /proc/$$/stat; ulimit -n\n"
            "grep -E '^(Umask|Uid|Gid|Groups|(Sig|Shd)(Pnd|Blk|Ign)):' /proc/self/status\n"
            "readlink /proc/$$/cwd; cat /proc/$$/oom_score_adj");
    const auto four = [](unsigned int id) {
        std::string text;
        for (int i = 0; i < 4; ++i)
            text.append("\t").append(std::to_string(id));
        return text + "\n";
    };
    std::vector<gid_t> groups = account_.groups;
    if (!GetParam().asUser || geteuid() != 0) {
        groups.resize(static_cast<std::size_t>(getgroups(0, nullptr)));
        ASSERT_GE(getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    }
    std::string groupNumbers;
    for (const gid_t group : groups)
        groupNumbers += (groupNumbers.empty() ? "" : " ") + std::to_string(group);
    const std::string none = "\t0000000000000000\n";
    std::string home = GetParam().asUser ? account_.home : getenv("HOME");
    std::error_code error;
    home = std::filesystem::canonical(home, error);
    if (home.empty() || access(home.c_str(), X_OK) != 0)
        home = "/";
    const std::string oomScore = geteuid() == 0 ? "0\n" : commands::ReadFile("/proc/self/oom_score_adj");
    EXPECT_EQ(output, "0\n1\n2\n" + std::to_string(processId_) + " 0\n" +
                          std::to_string(commands::PlantedDescriptorLimit) +
                          "\nUmask:\t0022\nUid:" + four(account_.userId) + "Gid:" + four(account_.groupId) +
                          "Groups:\t" + groupNumbers + " \nSigPnd:" + none + "ShdPnd:" + none +
                          "SigBlk:" + none + "SigIgn:" + none + home + "\n" + oomScore);
}

TEST_P(InheritanceTest, StreamsLeadWhereTheyShould)
{
    if (IsRefused())
        return;
    std::istringstream links(Run("readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2"));
    std::string input, output, error;
    links >> input >> output >> error;
    EXPECT_EQ(output, error);
    if (GetParam().onSocket) {
        EXPECT_EQ(input, output);
        EXPECT_TRUE(input.starts_with("socket:")) << input;
        return;
    }
    EXPECT_EQ(input, "/dev/null");
    EXPECT_EQ(output, Path("log"));
    struct stat log = {};
    ASSERT_EQ(stat(Path("log").c_str(), &log), 0);
    EXPECT_EQ(log.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(log.st_uid, account_.userId);
    EXPECT_EQ(log.st_gid, account_.groupId);
}

TEST_P(InheritanceTest, EnvironmentOfALoginOrOfTheSupervisor)
{
    if (IsRefused())
        return;
    setenv("RUVELSERVER_TMP", "/some/folder", 1);
    setenv("LC_TIME", "C", 1);
    setenv("LANGUAGE", "xx", 1);
    setenv("SECRET", "of the supervisor", 1);
    setenv(BaseProcess::MarkName, "of an outer supervisor", 1);
    std::istringstream lines(Run("tr '\\0' '\\n' < /proc/$$/environ"));

    std::vector<std::string> entries;
    std::vector<std::string> marks;
    for (std::string line; std::getline(lines, line);)
        (line.starts_with("RUVELSERVER_MARK=") ? marks : entries).push_back(line);
    ASSERT_EQ(marks.size(), 1U);
    EXPECT_EQ(marks[0].size(), 17U + 32U) << marks[0];
    EXPECT_TRUE(std::all_of(marks[0].begin() + 17, marks[0].end(), [](char c) { return std::isxdigit(c); }));

    std::vector<std::string> expected;
    if (GetParam().asUser)
        expected = {"HOME=" + account_.home, "USER=" + account_.name, "LOGNAME=" + account_.name,
                    "SHELL=" + account_.shell,
                    account_.userId == 0 ? "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
                                         : "PATH=/usr/local/bin:/usr/bin:/bin"};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        const bool passes = name == "RUVELSERVER_TMP" || name == "LANG" || name == "LANGUAGE" ||
                            name == "TZ" || name.starts_with("LC_");
        if (name != BaseProcess::MarkName && (passes || !GetParam().asUser))
            expected.push_back(text);
    }
    std::sort(entries.begin(), entries.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(entries, expected);
}

INSTANTIATE_TEST_SUITE_P(AllStartCalls, InheritanceTest,
                         testing::Values(StartCall{"OwnOnFiles", false, false, false},
                                         StartCall{"OwnOnSocket", false, true, false},
                                         StartCall{"LoginOnFiles", true, false, false},
                                         StartCall{"LoginOnSocket", true, true, false},
                                         StartCall{"AnotherOnFiles", true, false, true},
                                         StartCall{"AnotherOnSocket", true, true, true}),
                         [](const auto& call) { return std::string(call.param.name); });
} // namespace
