#pragma once

#include <string>
#include <string_view>

#include "client/StreamFilter.h"

/**
 * The log of a submitted command, as it is delivered. It is built like the answer to any launch, but for the
 * command that was killed: then words about that come in place of the log, and no banner in front.
 */
class LogAnswer
{
public:
    /** As StreamFilter has them. */
    bool Feed(std::string_view bytes, std::string& output);
    StreamEnd Finish(std::string& output);

private:
    StreamFilter filter_;
    /** Until it is known how it begins. */
    std::string opening_;
    bool hasBegun_ = false;
};
