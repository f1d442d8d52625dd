#include <string>

#include "connections/SendQueue.h"
#include "tests/unit/Loopback.h"

#include <gtest/gtest.h>

namespace
{
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
} // namespace
