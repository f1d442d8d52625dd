#pragma once

#include <csignal>

#include "support/FileDescriptor.h"

/**
 * The signals by which a user ends this process, taken as events for as long as this lives: poll its
 * descriptor. A signal that was ignored when the program was started stays ignored.
 */
class SignalWatch
{
public:
    SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;
    /** From here on the next signal ends the process at once. */
    ~SignalWatch();

    int Descriptor() const { return events_.Number(); }
    /** The signal that has come. */
    int Take() const;

private:
    sigset_t before_{};
    FileDescriptor events_;
};

/** Ends this process by the signal, as whoever waits for it expects. */
[[noreturn]] void DieBySignal(int signal);
