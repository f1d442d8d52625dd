#include "client/SignalWatch.h"

#include <sys/signalfd.h>
#include <unistd.h>

SignalWatch::SignalWatch()
{
    sigset_t watched;
    sigemptyset(&watched);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action;
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN)
            sigaddset(&watched, signal);
    }
    sigprocmask(SIG_BLOCK, &watched, &before_);
    events_ = FileDescriptor(signalfd(-1, &watched, SFD_CLOEXEC));
}

SignalWatch::~SignalWatch()
{
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

int SignalWatch::Take() const
{
    signalfd_siginfo event;
    const bool isWhole = read(Descriptor(), &event, sizeof event) == sizeof event;
    return isWhole ? static_cast<int>(event.ssi_signo) : SIGTERM;
}

void DieBySignal(int signal)
{
    std::signal(signal, SIG_DFL);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    sigprocmask(SIG_UNBLOCK, &only, nullptr);
    raise(signal);
    _exit(128 + signal);
}
