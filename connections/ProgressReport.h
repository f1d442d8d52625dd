#pragma once

#include <string_view>

#include "support/BaseSocket.h"
#include "support/ConnectionPerfo.h"

class WriterReader;

/** Says when it is time for another update: not so soon after the last one that nobody could see it. */
class UpdatePace
{
public:
    bool IsDue();

private:
    long long next_ = 0; // on the clock of Clock::SteadyMilliseconds()
};

/**
 * Moves the bytes of one connection and publishes on a worker's status board how far it has come: bytes, time
 * and rate. Used by the worker only. Most updates are left out, but none of what was there before a wait that
 * somebody could notice.
 */
class ProgressReport
{
public:
    /** `board` may be null: then nothing is published. The clock starts. */
    ProgressReport(WriterReader* board, std::string_view lead);

    /** As BaseSocket::WriteBinaryFileToBaseSocket: 0, or -1 on failure. */
    int Send(BaseSocket& socket, std::string_view bytes);
    /** As BaseSocket::ReadBinaryFileFromBaseSocketNonBlocking, into a block that holds `length` bytes. */
    int Receive(BaseSocket& socket, char* block, const int& length, const int& timeoutSeconds);
    /** Puts how far it has come on the board now: the last word. */
    void Publish();

private:
    void Count(long bytes);

    WriterReader* board_;
    std::string_view lead_;
    ConnectionPerfo total_;
    UpdatePace pace_;
    long long bytes_ = 0;
    bool isBehind_ = false; // the board has not been told of all the bytes
};
