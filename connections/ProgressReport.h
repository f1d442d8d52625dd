#pragma once

#include <string_view>

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
 * Publishes how far a worker has come on its status board: bytes, time and rate. Used by the worker only.
 * It can be told of each block: most updates are left out.
 */
class ProgressReport
{
public:
    /** `board` may be null: then nothing is published. The clock starts. */
    ProgressReport(WriterReader* board, std::string_view lead);

    void Update(const long long& bytes);
    /** The last word, always published. */
    void Finish(const long long& bytes);

private:
    void Publish(const long long& bytes);

    WriterReader* board_;
    std::string_view lead_;
    ConnectionPerfo total_;
    UpdatePace pace_;
};
