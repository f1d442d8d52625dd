#pragma once

#include "bench/Child.h"
#include "support/FileDescriptor.h"

/**
 * What a launch costs when a server does nothing but what it must: a process with one thread that polls,
 * reads a request, sends the banner, starts `/bin/sh -c true` on the client's socket and sends the return
 * line when it has ended. It knows no users, no limits and no failures.
 */
class BareServer
{
public:
    BareServer();

    pid_t Id() const { return process_.Id(); }
    int Port() const { return port_; }

private:
    int port_ = 0;
    FileDescriptor listening_;
    Child process_;
};

/** Starts `/bin/sh -c true` by vfork, its standard streams on `descriptor` unless that is negative. */
pid_t StartTrue(int descriptor);
