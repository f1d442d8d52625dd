#pragma once

#include "connections/ThreadOrProcessConnection.h"

/**
 * The answer to a request for everything: the listing, which the daemon has made, followed by the reports on
 * the machine. A worker writes the listing, then gathers them, because the statistics of a hung mount may
 * take for ever. Owned by the server until the worker has ended. It has no status board.
 *
 * There can only be so many, so that the worker is ended by an alarm when its time is over: neither a hung
 * mount nor a client that takes nothing may hold a place for good.
 */
class ReportConnection : public ThreadOrProcessConnection
{
public:
    /** `limitSeconds`: what the worker may take in all. */
    ReportConnection(QORUnicodeString listing, const int& limitSeconds)
        : ThreadOrProcessConnection(BoardUse::WithoutBoard),
          listing_(std::move(listing)),
          limitSeconds_(limitSeconds)
    {
    }

    /** 0 when the client has been given everything, else 1. */
    int ThreadOrProcessRoutine() override;

private:
    int Write(const QORUnicodeString& text);

    QORUnicodeString listing_;
    int limitSeconds_;
};
