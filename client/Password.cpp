#include "client/Password.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include "support/FileDescriptor.h"

namespace
{
/** In bytes; what is longer is another file by mistake. */
constexpr std::size_t LongestPassword = 4096;

/** Byte by byte, since what stands behind the newline may be somebody else's. */
Failure ReadLine(int descriptor, const std::string& source, std::string& line)
{
    char byte = 0;
    ssize_t count;
    while ((count = read(descriptor, &byte, 1)) != 0 && byte != '\n') {
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return SystemFailure("the password cannot be read from " + source, errno);
        if (byte == '\0' || line.size() == LongestPassword)
            return {source + " holds no password: a line of at most 4096 bytes, none of them NUL"};
        line += byte;
    }
    return {};
}

bool IsNullDevice(const struct stat& status)
{
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

Failure CheckPasswordFile(const std::string& path, const struct stat& status)
{
    // The usual way to say that there is none.
    if (IsNullDevice(status))
        return {};
    if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode))
        return {path + " is no file, so it cannot hold a password"};
    if (status.st_uid != geteuid() && status.st_uid != 0)
        return {"the password file " + path + " belongs to somebody else: make one of your own"};
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return {"the password file " + path + " is open to others: close it with chmod 600"};
    return {};
}

/** The terminal without echo for as long as this lives. Signals wait, so that the echo surely returns. */
class SilentTerminal
{
public:
    explicit SilentTerminal(int terminal) : terminal_(terminal)
    {
        sigemptyset(&signals_);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP})
            sigaddset(&signals_, signal);
        sigprocmask(SIG_BLOCK, &signals_, &signalsBefore_);
        tcgetattr(terminal_, &before_);
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ECHONL;
        tcsetattr(terminal_, TCSAFLUSH, &silent);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    /** A signal that has come meanwhile is delivered here, the echo being back. */
    ~SilentTerminal()
    {
        tcsetattr(terminal_, TCSAFLUSH, &before_);
        sigprocmask(SIG_SETMASK, &signalsBefore_, nullptr);
    }

    /** True when there is input, false when a signal came first. */
    bool WaitForInput() const
    {
        const FileDescriptor signal(signalfd(-1, &signals_, SFD_CLOEXEC));
        pollfd both[] = {{terminal_, POLLIN, 0}, {signal.Number(), POLLIN, 0}};
        while (poll(both, 2, -1) < 0 && errno == EINTR) {
        }
        return both[1].revents == 0;
    }

private:
    int terminal_;
    termios before_{};
    sigset_t signals_;
    sigset_t signalsBefore_;
};
} // namespace

Failure ReadPasswordFile(const std::string& path, std::string& password)
{
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.IsOpen())
        return SystemFailure("the password file " + path + " cannot be opened", errno);
    struct stat status;
    if (fstat(file.Number(), &status) != 0)
        return SystemFailure("the password file " + path + " cannot be checked", errno);
    if (Failure failure = CheckPasswordFile(path, status))
        return failure;
    return ReadLine(file.Number(), path, password);
}

Failure ReadPasswordDescriptor(int descriptor, std::string& password)
{
    return ReadLine(descriptor, "descriptor " + std::to_string(descriptor), password);
}

Failure AskForPassword(const std::string& user, const std::string& serverName, std::string& password)
{
    const FileDescriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal.IsOpen())
        return {};
    const std::string question =
        "Password of " + user + " at " + serverName + " (empty if it asks for none): ";
    while (true) {
        const SilentTerminal silent(terminal.Number());
        if (write(terminal.Number(), question.data(), question.size()) < 0)
            return SystemFailure("the terminal cannot be asked for the password", errno);
        // After a stop and a return to the foreground the question is asked anew.
        if (silent.WaitForInput())
            return ReadLine(terminal.Number(), "the terminal", password);
    }
}
