#include <climits>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/ConnectionPerfo.h"

TEST(Time, DatesAreLocal)
{
    setenv("TZ", "XXX-02:30", 1);
    tzset();
    QORUnicodeString date;
    EXPECT_EQ(BaseString::CreateFormatedDate(date, 86399L), 0);
    EXPECT_EQ(date, "1970-01-02 02:29:59");
    EXPECT_EQ(BaseString::CreateFormatedDate(date, LONG_MAX), -1);
    unsetenv("TZ");
    tzset();
}

TEST(Time, TheStatementOfATransferAddsUp)
{
    ConnectionPerfo running;
    QORUnicodeString text(" byte and sent ");
    running.GetConnectCountString(0, text, 0);
    EXPECT_EQ(text, " byte and sent 0 byte(s) in 0.000 s (-)");
    running.StartOfCount();
    ConnectionPerfo copy = running;
    long long start = Clock::SteadyMilliseconds();
    while (Clock::SteadyMilliseconds() < start + 20) {
    }
    copy.EndOfCount();
    struct {
        long long bytes;
        const char* unit;
        double unitSize;
    } cases[] = {{2, "bytes/s)", 1}, {2048, "Kbytes/s)", 1024}, {10LL << 30, "Gbytes/s)", 1 << 30}};
    for (const auto& one : cases) {
        text = "sent ";
        copy.GetConnectCountString(one.bytes, text, 0);
        double seconds = 0;
        double rate = 0;
        char unit[16];
        ASSERT_EQ(sscanf(text.ConvertToChar(), "sent %*d byte(s) in %lf s (%lf %15s", &seconds, &rate, unit),
                  3)
            << text.ConvertToChar();
        EXPECT_STREQ(unit, one.unit);
        EXPECT_NEAR(rate, static_cast<double>(one.bytes) / seconds / one.unitSize, 0.51);
    }
}
