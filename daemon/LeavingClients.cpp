#include "daemon/LeavingClients.h"

#include <algorithm>
#include <array>

#include "support/BaseString.h"
#include "support/Clock.h"

void LeavingClients::Take(Connection& connection)
{
    BaseSocket& socket = connection.GetSocket();
    if (!socket.GetBaseSocketStatus())
        return;
    // The place first: without memory for it the connection keeps its socket.
    clients_.push_back(std::make_unique<Client>());
    Client& client = *clients_.back();
    client.socket = socket;
    socket.Reset();
    client.queue = std::move(connection.GetSendQueue());
    client.deadline = Clock::SteadyMilliseconds() + 1000LL * stallLimit_;
    if (client.queue.IsEmpty())
        StartDraining(client);
}

void LeavingClients::AddTo(Poller& poller)
{
    for (auto& client : clients_)
        client->slot = poller.Add(client->socket.GetBaseSocketNumber(), client->draining ? POLLIN : POLLOUT);
}

void LeavingClients::PushOn(const Poller& poller)
{
    const long long now = Clock::SteadyMilliseconds();
    std::erase_if(clients_, [&](const std::unique_ptr<Client>& client) {
        const short events = poller.Events(client->slot);
        client->slot = Poller::NoSlot;
        return IsGone(*client, events, now);
    });
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
    for (const auto& client : clients_)
        next = Deadline::Earlier(next, client->deadline);
    return next;
}

void LeavingClients::AppendSocketsTo(QORListPtrBaseSocket& sockets)
{
    for (auto& client : clients_)
        sockets.Append(&client->socket);
}

bool LeavingClients::MakeRoom()
{
    const auto draining =
        std::find_if(clients_.begin(), clients_.end(), [](const auto& client) { return client->draining; });
    if (draining == clients_.end())
        return false;
    clients_.erase(draining);
    return true;
}
