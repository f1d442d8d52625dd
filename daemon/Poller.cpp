#include "daemon/Poller.h"

#include <algorithm>
#include <climits>

int Poller::Add(int descriptor, short events)
{
    descriptors_.push_back({descriptor, events, 0});
    return static_cast<int>(descriptors_.size()) - 1;
}

void Poller::Wait(long long milliseconds)
{
    const int limit = milliseconds < 0 ? -1 : static_cast<int>(std::min<long long>(milliseconds, INT_MAX));
    if (poll(descriptors_.data(), descriptors_.size(), limit) >= 0)
        return;
    // Interrupted or out of memory: nothing is known to have happened, and the turn goes on.
    for (pollfd& descriptor : descriptors_)
        descriptor.revents = 0;
}
