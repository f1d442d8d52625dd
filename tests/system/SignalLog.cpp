// Loaded into the daemon in front of the C library: writes every signal that the daemon itself sends, as
// pairs of process id and number, into the file that RUVEL_SIGNAL_LOG names. What the daemon forks or
// executes writes nothing.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{
constexpr int MostDescriptors = 65536;
int processOf[MostDescriptors]; // of each descriptor that stands for a process

pid_t daemonProcess = 0;
char fileName[256];

__attribute__((constructor)) void Begin()
{
    daemonProcess = getpid();
    const char* name = getenv("RUVEL_SIGNAL_LOG");
    snprintf(fileName, sizeof fileName, "%s", name == nullptr ? "/dev/null" : name);
    unsetenv("RUVEL_SIGNAL_LOG");
    unsetenv("LD_PRELOAD");
}

/** Asked before it is signalled, as it may be gone afterwards. */
class Target
{
public:
    explicit Target(int process) : process_(process)
    {
        char path[64];
        snprintf(path, sizeof path, "/proc/%d/comm", process);
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        if (file < 0)
            return;
        const ssize_t length = read(file, name_, sizeof name_ - 1);
        name_[length > 0 ? length - 1 : 0] = '\0';
        close(file);
    }
    void NoteSignal(int signal) const
    {
        if (signal == 0 || getpid() != daemonProcess)
            return;
        char line[128];
        const int length = snprintf(line, sizeof line, "%d %d %s\n", process_, signal, name_);
        const int file = open(fileName, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (file < 0 || write(file, line, static_cast<size_t>(length)) != length)
            abort();
        close(file);
    }

private:
    int process_;
    char name_[32] = "";
};

template <class Function>
Function Find(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
} // namespace

extern "C" int kill(pid_t process, int signal)
{
    const Target target(process);
    const int result = Find<int (*)(pid_t, int)>("kill")(process, signal);
    if (result == 0)
        target.NoteSignal(signal);
    return result;
}

extern "C" long syscall(long number, ...)
{
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    static const auto call = Find<long (*)(long, ...)>("syscall");
    const auto pass = [&] {
        return call(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                    arguments[5]);
    };
    const auto descriptor = static_cast<int>(arguments[0]);
    if (number == SYS_pidfd_send_signal && descriptor >= 0 && descriptor < MostDescriptors) {
        const Target target(processOf[descriptor]);
        const long sent = pass();
        if (sent == 0)
            target.NoteSignal(static_cast<int>(arguments[1]));
        return sent;
    }
    const long result = pass();
    if (number == SYS_pidfd_open && result >= 0 && result < MostDescriptors)
        processOf[result] = static_cast<int>(arguments[0]);
    return result;
}
