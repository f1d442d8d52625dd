#include "daemon/LeavingClients.h"

#include <algorithm>
#include <array>
#include <functional>

#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/TurnShare.h"

void LeavingClients::Take(Connection& connection)
{
    BaseSocket& socket = connection.GetSocket();
    if (!socket.GetBaseSocketStatus())
        return;
    // The place first: without memory for it the connection keeps its socket.
    Client& client = clients_.emplace_back();
    client.socket = socket;
    socket.Reset();
    client.queue = std::move(connection.GetSendQueue());
    client.deadline = Clock::SteadyMilliseconds() + 1000LL * stallLimit_;
    if (client.queue.IsEmpty())
        StartDraining(client);
    else
        DropTheSlowest();
}

/** While the answers that nobody takes are more than may be kept; the newest one is not among them. */
void LeavingClients::DropTheSlowest()
{
    std::size_t pending = 0;
    for (const Client& client : clients_)
        pending += client.queue.GetPendingBytes();
    while (pending > MostPendingBytes) {
        auto slowest = clients_.end();
        for (auto client = clients_.begin(); client != std::prev(clients_.end()); ++client)
            if (!client->draining && (slowest == clients_.end() || client->deadline < slowest->deadline))
                slowest = client;
        if (slowest == clients_.end())
            return;
        pending -= slowest->queue.GetPendingBytes();
        BaseString::PutTrace("Error too many answers are not taken : dropped", 1);
        clients_.erase(slowest);
    }
}

void LeavingClients::AddTo(Poller& poller)
{
    for (Client& client : clients_)
        client.slot = poller.Add(client.socket.GetBaseSocketNumber(), client.draining ? POLLIN : POLLOUT);
}

void LeavingClients::PushOn(const Poller& poller)
{
    const long long now = Clock::SteadyMilliseconds();
    const TurnShare share;
    auto next = clients_.begin();
    while (next != clients_.end() && !share.IsUsedUp()) {
        const short events = poller.Events(next->slot);
        next->slot = Poller::NoSlot;
        next = IsGone(*next, events, now) ? clients_.erase(next) : std::next(next);
    }
    if (next != clients_.end()) // who was not come to is first in the next turn
        clients_.splice(clients_.end(), clients_, clients_.begin(), next);
}

bool LeavingClients::IsGone(Client& client, short events, long long now)
{
    // A client that never stops sending gets no longer than a silent one.
    if (client.draining)
        return Deadline::IsPast(client.deadline, now) || (events != 0 && Drain(client));
    if (events != 0)
        return Write(client);
    if (!Deadline::IsPast(client.deadline, now))
        return false;
    BaseString::PutTrace("Error client takes nothing of its answer : dropped", 1);
    return true;
}

/** True when the client is to be dropped. */
bool LeavingClients::Write(Client& client)
{
    switch (client.queue.Flush(client.socket)) {
    case SendQueue::Result::Failed:
        BaseString::PutTrace(client.socket.BaseSocketGetLastError(), 1);
        return true;
    case SendQueue::Result::Done:
        StartDraining(client);
        return false;
    case SendQueue::Result::More:
        client.deadline = Clock::SteadyMilliseconds() + 1000LL * stallLimit_;
        return false;
    }
    return true;
}

void LeavingClients::StartDraining(Client& client)
{
    client.socket.ShutdownSending();
    client.draining = true;
    client.deadline = Clock::SteadyMilliseconds() + DrainMilliseconds;
}

/** True when the client has closed its side too. */
bool LeavingClients::Drain(Client& client)
{
    std::array<char, 16384> waste;
    const long count = client.socket.ReceiveAvailable(waste.data(), waste.size());
    return count == 0 || count == BaseSocket::Broken;
}

long long LeavingClients::NextDeadline() const
{
    long long next = Deadline::Never;
    for (const Client& client : clients_)
        next = Deadline::Earlier(next, client.deadline);
    return next;
}

void LeavingClients::AppendSocketsTo(QORListPtrBaseSocket& sockets)
{
    for (Client& client : clients_)
        sockets.Append(&client.socket);
}

bool LeavingClients::MakeRoom()
{
    const auto draining = std::find_if(clients_.begin(), clients_.end(), std::mem_fn(&Client::draining));
    if (draining == clients_.end())
        return false;
    clients_.erase(draining);
    return true;
}
