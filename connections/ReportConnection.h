#pragma once

#include "connections/ThreadOrProcessConnection.h"

/**
 * The answer to a request for everything: the listing, which the daemon has made, followed by the reports on
 * the machine. A worker gathers them, because the statistics of a hung mount may take for ever, and writes
 * the whole answer. Owned by the server until the worker has ended. It has no status board.
 */
class ReportConnection : public ThreadOrProcessConnection
{
public:
    explicit ReportConnection(QORUnicodeString listing)
        : ThreadOrProcessConnection(BoardUse::WithoutBoard), listing_(std::move(listing))
    {
    }

    /** 0 when the client has been given everything, else 1. */
    int ThreadOrProcessRoutine() override;

private:
    QORUnicodeString listing_;
};
