#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/faults/FaultyDaemon.h"
#include "tests/system/SystemFacts.h"

using namespace std::chrono;

namespace
{
constexpr long Jumps[] = {-7200, 7200, 86400 * 400L}; // seconds from the true time
constexpr const char* Expired = "->Command killed due to expired life timeout\n";
} // namespace

TEST(Clock, JumpsNeitherEndNorSpareACommand)
{
    FaultInjection injection;
    const auto daemon = injection.StartDaemon();
    Client living = daemon->Connect();
    living.Send(Launch("SOCKET", "read line; exit 3", "3600"));
    EXPECT_EQ(living.ReadUntil("\n"), BannerLine);
    for (const long jump : Jumps) {
        Client expiring = daemon->Connect();
        const auto start = steady_clock::now();
        expiring.Send(Launch("SOCKET", "exec sleep 1000", "1"));
        EXPECT_EQ(expiring.ReadUntil("\n"), BannerLine);
        injection->wallClockShift = jump;
        EXPECT_EQ(expiring.ReadToEnd(), Expired + ReturnLine(143));
        EXPECT_GE(steady_clock::now() - start, 1s) << jump;
        EXPECT_FALSE(living.HasArrived()) << jump;
    }
    living.Send("\n");
    EXPECT_EQ(living.ReadToEnd(), ReturnLine(3));
}

/** Two logs that are begun at the same wall-clock time, to the second and beyond. */
TEST(Clock, LogFilesStayApartWhenTheClockGoesBack)
{
    FaultInjection injection;
    const auto daemon = injection.StartDaemon();
    std::vector<Client> clients;
    for (const long jump : {0L, -3600L, 0L, -3600L, 3600L}) {
        injection->wallClockShift = jump;
        clients.push_back(daemon->Connect());
        clients.back().Send(Launch("NOSOCKET", "echo " + std::to_string(clients.size())));
    }
    for (size_t i = 0; i < clients.size(); ++i)
        EXPECT_EQ(clients[i].ReadToEnd(), Finished(std::to_string(i + 1) + "\n", 0));
}
