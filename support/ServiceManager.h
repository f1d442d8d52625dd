#pragma once

#include <string>

/**
 * The service manager that started this process and waits to hear when it serves, if there is one: it has
 * put the address of a datagram socket into the environment, NOTIFY_SOCKET, a path or ("@" in front) an
 * abstract name. Without it nothing is told and nothing fails.
 */
class ServiceManager
{
public:
    /** Takes the address out of the environment, so that no child inherits it: made before any is forked. */
    ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /** Waits a moment for room if it must: who is not heard is taken for hung. */
    void TellReady() const;
    /** Tells it once, however often it is called, and never waits. */
    void TellStopping();

private:
    /** A manager that cannot be reached is traced, and no reason not to serve. */
    void Send(const char* state, int flags) const;

    std::string address_;
    bool stoppingTold_ = false;
};
