#include "connections/FarewellConnection.h"

#include <utility>

#include "connections/DataConnection.h"
#include "support/BaseString.h"
#include "support/WaitForDescriptor.h"

#include <poll.h>
#include <unistd.h>

namespace
{
constexpr unsigned LeaveSeconds = 30; // for the client to take what is on its way, and to close
} // namespace

FarewellConnection::FarewellConnection(Connection& source, const QORUnicodeString& words,
                                       const int& stallLimit)
    : ThreadOrProcessConnection(BoardUse::WithoutBoard), stallLimit_(stallLimit)
{
    GetSocket() = source.GetSocket();
    source.GetSocket().Reset();
    GetSendQueue() = std::move(source.GetSendQueue());
    GetSendQueue().Append(words.View());
}

int FarewellConnection::ThreadOrProcessRoutine()
{
    SendQueue::Result result;
    while ((result = GetSendQueue().Flush(GetSocket())) == SendQueue::Result::More) {
        if (WaitForDescriptor(GetSocket().GetBaseSocketNumber(), POLLOUT, DeadlineIn(stallLimit_)))
            continue;
        BaseString::PutTrace("Error client takes nothing of its answer : dropped", 1);
        return 1;
    }
    if (result == SendQueue::Result::Failed) {
        BaseString::PutTrace(GetSocket().BaseSocketGetLastError(), 1);
        return 1;
    }
    // Whoever shares the socket may have asked the system to let its close wait for hours.
    alarm(LeaveSeconds);
    DataConnection::CloseInOrder(GetSocket());
    return 0;
}
