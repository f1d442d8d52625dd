#include <cerrno>
#include <csignal>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "tests/system/ControlProcess.h"
#include "tests/system/DaemonUnderTest.h"

using testing::HasSubstr;
using testing::Not;

namespace
{
/** A client on a terminal of its own, 100 columns wide: what it shows, and what is typed. */
class Screen
{
public:
    Screen(int port, std::vector<std::string> arguments, const std::string& terminal = "TERM=xterm")
    {
        arguments.insert(arguments.begin(),
                         {"/usr/bin/env", "-u", "RUVEL_PASSWORD_FILE", "-u", "NO_COLOR", terminal,
                          "RUVEL_HOST=127.0.0.1:" + std::to_string(port), ClientFolder() + "/RuvelControl"});
        std::vector<char*> vector;
        for (std::string& argument : arguments)
            vector.push_back(argument.data());
        vector.push_back(nullptr);
        const winsize size = {30, 100, 0, 0};
        id_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (id_ == 0) {
            execv(vector.front(), vector.data());
            _exit(127);
        }
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen()
    {
        close(terminal_);
        if (id_ > 0) {
            kill(id_, SIGKILL);
            waitpid(id_, nullptr, 0);
        }
    }

    void Type(std::string_view keys) { EXPECT_EQ(write(terminal_, keys.data(), keys.size()), ssize(keys)); }
    bool WaitFor(const std::string& text)
    {
        return WaitUntil([&] { return !ReadSome() || shown_.find(text) != std::string::npos; }) &&
               shown_.find(text) != std::string::npos;
    }
    /** What is shown from here on is waited for anew. */
    void Forget() { shown_.clear(); }
    /** The exit code, or minus the number of the signal that ended it. */
    int WaitForEnd()
    {
        int status = 0;
        EXPECT_TRUE(WaitUntil([&] { return !ReadSome(); })) << shown_;
        EXPECT_TRUE(WaitUntil([&] { return waitpid(id_, &status, WNOHANG) == id_; })) << shown_;
        id_ = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }
    /** Whether what is typed is shown. */
    bool Echoes() const
    {
        termios settings = {};
        return tcgetattr(terminal_, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    }
    const std::string& Shown() const { return shown_; }

private:
    static ssize_t ssize(std::string_view text) { return static_cast<ssize_t>(text.size()); }
    /** False once nobody is at the other side any more. */
    bool ReadSome()
    {
        pollfd ready = {terminal_, POLLIN, 0};
        std::string bytes(4096, '\0');
        while (poll(&ready, 1, 0) > 0) {
            const ssize_t count = read(terminal_, bytes.data(), bytes.size());
            if (count <= 0)
                return false;
            shown_.append(bytes, 0, static_cast<std::size_t>(count));
        }
        return true;
    }

    int terminal_ = -1;
    pid_t id_ = -1;
    std::string shown_;
};
} // namespace

TEST(Terminal, ThePasswordIsAskedForAndNotShown)
{
    DaemonUnderTest daemon;
    Screen run(daemon.Port(), {"run", "echo", "ran"});
    ASSERT_TRUE(run.WaitFor("Password of " + OwnUser() + " at ")) << run.Shown();
    run.Type("secret\n");
    ASSERT_TRUE(run.WaitFor("ran\r\n")) << run.Shown();
    EXPECT_EQ(run.WaitForEnd(), 0);
    EXPECT_THAT(run.Shown(), Not(HasSubstr("secret")));
    Screen interrupted(daemon.Port(), {"run", "true"});
    ASSERT_TRUE(interrupted.WaitFor("Password of "));
    EXPECT_FALSE(interrupted.Echoes());
    interrupted.Type("\x03");
    EXPECT_TRUE(WaitUntil([&] { return interrupted.Echoes(); }));
    EXPECT_EQ(interrupted.WaitForEnd(), -SIGINT);
    Screen batch(daemon.Port(), {"run", "--batch", "echo", "ran"});
    EXPECT_EQ(batch.WaitForEnd(), 0);
    EXPECT_EQ(batch.Shown(), "ran\r\n");
    Screen state(daemon.Port(), {"state", "unknown"});
    EXPECT_EQ(state.WaitForEnd(), 1);
    EXPECT_EQ(state.Shown(), "NOTFOUND\r\n");
}

TEST(Terminal, ABarIsDrawnWhereItCanBe)
{
    DaemonUnderTest daemon;
    TestDirectory folder;
    std::ofstream(folder.Path() + "/file[1]") << std::string(2'000'000, 'x');
    for (const std::string terminal : {"TERM=xterm", "TERM=dumb"}) {
        Screen put(daemon.Port(),
                   {"put", "--batch", folder.Path() + "/file[1]", folder.Path() + "/" + terminal}, terminal);
        EXPECT_EQ(put.WaitForEnd(), 0);
        if (terminal == "TERM=dumb") {
            EXPECT_EQ(put.Shown(), "");
        } else {
            EXPECT_THAT(put.Shown(), HasSubstr(" 100 % [\x1b[32m========"));
            EXPECT_TRUE(put.Shown().ends_with("\r\n")) << put.Shown();
        }
    }
}

TEST(Terminal, AWatchedListingFollowsWhatRuns)
{
    DaemonUnderTest daemon;
    Screen watch(daemon.Port(), {"list", "--batch", "--watch"});
    ControlProcess run(daemon.Port(), {"run", "sleep", "1000"});
    ASSERT_TRUE(watch.WaitFor("sleep 1000\x1b[K")) << watch.Shown();
    run.Signal(SIGTERM);
    run.WaitForEnd();
    watch.Forget();
    ASSERT_TRUE(watch.WaitFor("\x1b[H")) << watch.Shown();
    watch.Forget();
    ASSERT_TRUE(watch.WaitFor("\x1b[J")) << watch.Shown();
    EXPECT_THAT(watch.Shown(), Not(HasSubstr("sleep 1000")));
    watch.Type("\x03");
    EXPECT_EQ(watch.WaitForEnd(), -SIGINT);
}
