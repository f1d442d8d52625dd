#include "support/ConnectionPerfo.h"

#include <cstdio>

#include "support/Clock.h"

namespace
{
/** Bytes per second in the largest unit that leaves at least 1, or "-" when no time was measured. */
void FormatRate(char* buffer, size_t size, long long bytes, long long milliseconds)
{
    static constexpr const char* Units[] = {"Kbytes/s", "Mbytes/s", "Gbytes/s"};
    if (milliseconds <= 0) {
        snprintf(buffer, size, "-");
        return;
    }
    double rate = static_cast<double>(bytes) * 1000.0 / static_cast<double>(milliseconds);
    if (rate < 1024.0) {
        snprintf(buffer, size, "%.0f bytes/s", rate);
        return;
    }
    int unit = 0;
    rate /= 1024.0;
    for (; rate >= 1024.0 && unit < 2; ++unit)
        rate /= 1024.0;
    snprintf(buffer, size, "%.1f %s", rate, Units[unit]);
}
} // namespace

void ConnectionPerfo::StartOfCount()
{
    startMilliseconds_ = Clock::SteadyMilliseconds();
    endMilliseconds_ = startMilliseconds_;
}

void ConnectionPerfo::EndOfCount()
{
    endMilliseconds_ = Clock::SteadyMilliseconds();
}

void ConnectionPerfo::GetConnectCountString(const long long& byteCount, QORUnicodeString& text,
                                            const int&) const
{
    long long elapsed = endMilliseconds_ - startMilliseconds_;
    char rate[48];
    FormatRate(rate, sizeof rate, byteCount, elapsed);
    char statement[128];
    snprintf(statement, sizeof statement, "%lld byte(s) in %lld.%03lld s (%s)", byteCount, elapsed / 1000,
             elapsed % 1000, rate);
    text.Append(statement);
}
