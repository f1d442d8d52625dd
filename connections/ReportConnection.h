#pragma once

#include "connections/ThreadOrProcessConnection.h"
#include "support/Clock.h"

/**
 * The answer to a request for everything: the listing, which the daemon has made, followed by the reports on
 * the machine. A worker writes the listing, then gathers them, because the statistics of a hung mount may
 * take for ever. Owned by the server until the worker has ended. It has no status board.
 *
 * There can only be so many, so that the worker is ended by an alarm when its time is over: neither a hung
 * mount nor a client that takes nothing may hold a place for good; sooner, when others want the place.
 */
class ReportConnection : public ThreadOrProcessConnection
{
public:
    /** `limitSeconds`: what the worker may take in all. */
    ReportConnection(QORUnicodeString listing, const int& limitSeconds)
        : ThreadOrProcessConnection(BoardUse::WithoutBoard),
          listing_(std::move(listing)),
          limitSeconds_(limitSeconds),
          usualEnd_(Clock::SteadyMilliseconds() + UsualMilliseconds)
    {
    }

    /** It has had more time than a report takes whose client reads and whose mounts answer. */
    bool IsOverdue() const { return Clock::SteadyMilliseconds() >= usualEnd_; }
    /** Kills the worker, which may hang in a mount even so. */
    void GiveUp()
    {
        isGivenUp_ = true;
        TerminateThreadOrProcess(1);
    }
    bool IsGivenUp() const { return isGivenUp_; }

    /** 0 when the client has been given everything, else 1. */
    int ThreadOrProcessRoutine() override;

private:
    static constexpr long long UsualMilliseconds = 5000;

    int Write(const QORUnicodeString& text);

    QORUnicodeString listing_;
    int limitSeconds_;
    long long usualEnd_; // milliseconds, steady
    bool isGivenUp_ = false;
};
