#pragma once

#include <sys/types.h>

/**
 * What a launch costs when a server does nothing but what it must: a process with one thread that polls,
 * reads a request, sends the banner, starts `/bin/sh -c true` on the client's socket and sends the return
 * line when it has ended. It knows no users, no limits and no failures. Ended with the object.
 */
class BareServer
{
public:
    BareServer();
    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;
    ~BareServer();

    pid_t Id() const { return id_; }
    int Port() const { return port_; }

private:
    int port_ = 0;
    pid_t id_ = -1;
};

/** Starts `/bin/sh -c true` by vfork, its standard streams on `descriptor` unless that is negative. */
pid_t StartTrue(int descriptor);
