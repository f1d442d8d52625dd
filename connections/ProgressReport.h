#pragma once

#include <string_view>

#include "support/ConnectionPerfo.h"

class WriterReader;

/**
 * Publishes how far a worker has come on its status board: bytes, time and rate. Used by the worker only.
 * Updates that follow each other too closely to be seen are left out, so that it can be told of each block.
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
    long long nextUpdate_ = 0; // on the clock of Clock::SteadyMilliseconds()
};
