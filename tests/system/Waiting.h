#pragma once

#include <chrono>
#include <thread>

/**
 * How long a test waits for what must come. No correct run is near it; it bounds only how long a fault goes
 * unnoticed on a machine that is busy with other tests.
 */
constexpr std::chrono::seconds Patience{60};

class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds limit = Patience)
        : end_(std::chrono::steady_clock::now() + limit)
    {
    }
    bool HasPassed() const { return MillisecondsLeft() == 0; }
    int MillisecondsLeft() const
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now()).count();
        return left > 0 ? static_cast<int>(left) : 0;
    }

private:
    std::chrono::steady_clock::time_point end_;
};

/** Asks until the condition holds, and says whether it did before the deadline. */
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = Patience)
{
    const Deadline deadline(limit);
    while (!condition()) {
        if (deadline.HasPassed())
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
