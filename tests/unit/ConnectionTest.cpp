#include <climits>
#include <string>

#include "connections/Connection.h"
#include "connections/SendQueue.h"
#include "tests/unit/Loopback.h"

#include <gtest/gtest.h>

namespace
{
TEST(Connection, ExpiresOneSecondPastItsTimeOut)
{
    const struct {
        long begin, timeOut, now;
        int isExpired;
        long endOfLife;
    } Cases[] = {
        {1000, 60, 1060, 0, 1061},
        {1000, 60, 1061, 1, 1061},
        {1000, 60, 0, 1, 1061}, // the present time
        {1000, 0, LONG_MAX, 0, 0},
        {1000, -5, LONG_MAX, 0, 0},
        {0, 60, LONG_MAX, 0, 0},
        {1000, LONG_MAX, LONG_MAX, 0, 0},
        {3000000000, 2147483647, 5147483648, 1, 5147483648}, // beyond 32 bits
    };
    for (const auto& one : Cases) {
        Connection connection;
        connection.SetBeginLifeTime(one.begin);
        connection.SetLifeTimeOut(one.timeOut);
        EXPECT_EQ(connection.IsEndOfLife(one.now), one.isExpired) << one.begin << '+' << one.timeOut;
        EXPECT_EQ(connection.GetEndOfLife(), one.endOfLife) << one.begin << '+' << one.timeOut;
    }
    Connection connection;
    connection.SetBeginLifeTime(LONG_MAX);
    EXPECT_EQ(connection.GetBeginDate().View(), "ErrorDate");
}

TEST(SendQueue, KeepsOrderForAClientThatDoesNotRead)
{
    loopback::Pair pair;
    SendQueue queue;
    EXPECT_EQ(queue.Flush(pair.server), SendQueue::Result::Done);
    std::string given;
    for (int i = 0; i < 400; ++i) {
        const std::string piece(static_cast<size_t>(i * 263), static_cast<char>('a' + i % 26));
        queue.Append(piece);
        given += piece;
    }
    // More than any loopback buffer takes without a reader.
    EXPECT_EQ(queue.Flush(pair.server), SendQueue::Result::More);
    EXPECT_GT(queue.GetPendingBytes(), 0U);
    EXPECT_LT(queue.GetPendingBytes(), given.size());
    std::string received;
    SendQueue::Result result = SendQueue::Result::More;
    while (result == SendQueue::Result::More) {
        QORUnicodeString text;
        ASSERT_EQ(pair.client.ReadFromBaseSocketNonBlocking(text, loopback::DeadlineSeconds), 0);
        received += text.View();
        result = queue.Flush(pair.server);
    }
    EXPECT_EQ(result, SendQueue::Result::Done);
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_EQ(queue.GetPendingBytes(), 0U);
    pair.server.CloseBaseSocket();
    received += loopback::ReadToEnd(pair.client);
    EXPECT_TRUE(received == given);
}

TEST(SendQueue, DropsWhatItsClientWillNeverTake)
{
    loopback::Pair pair;
    SendQueue queue;
    pair.client.CloseBaseSocket();
    SendQueue::Result result = SendQueue::Result::Done;
    for (int i = 0; i < 1000 && result != SendQueue::Result::Failed; ++i) {
        queue.Append("nobody reads this");
        result = queue.Flush(pair.server);
    }
    EXPECT_EQ(result, SendQueue::Result::Failed);
    EXPECT_TRUE(queue.IsEmpty());
}
} // namespace
