#include "daemon/WaitingClients.h"

#include <algorithm>
#include <array>
#include <new>
#include <unordered_map>

#include "support/BaseString.h"
#include "support/Clock.h"

#include <string.h>

namespace
{

using State = WaitingClient::State;

void DropUnanswered(WaitingClient& client, const QORUnicodeString& reason)
{
    client.state = State::Gone;
    BaseString::PutTrace("Error unable to read request : ", reason, 1);
}

/** The request is whole: what it asks for is looked at when its turn to be served comes. */
void Complete(WaitingClient& client)
{
    client.state = State::Complete;
    client.stateDeadline = Deadline::Never;
    client.completedAt = Clock::SteadyMilliseconds();
}

} // namespace

void WaitingClients::SetDescriptorLimit(long limit)
{
    mostReading_ = static_cast<int>(std::clamp<long>((limit - Headroom) / 2, 1, MostReading));
}

void WaitingClients::AddTo(Poller& poller, const BaseSocket& listening)
{
    listeningSlot_ = Poller::NoSlot;
    if (listening.GetBaseSocketStatus() && acceptAgainAt_ == Deadline::Never)
        listeningSlot_ = poller.Add(listening.GetBaseSocketNumber(), POLLIN);
    for (auto& client : clients_)
        if (client->state == State::Reading)
            client->slot = poller.Add(client->connection.GetSocket().GetBaseSocketNumber(), POLLIN);
}

void WaitingClients::AcceptAndRead(const Poller& poller, BaseSocket& listening,
                                   const std::function<void()>& freeDescriptor)
{
    const long long now = Clock::SteadyMilliseconds();
    for (auto& client : clients_) {
        if (client->state == State::Reading && poller.Events(client->slot) != 0)
            Read(*client);
        client->slot = Poller::NoSlot;
        CheckDeadlines(*client, now);
    }

    const bool resume = Deadline::IsPast(acceptAgainAt_, now);
    if (resume)
        acceptAgainAt_ = Deadline::Never;
    if (!resume && poller.Events(listeningSlot_) == 0)
        return;
    for (int i = 0; i < MostPerTurn && AcceptOne(listening, freeDescriptor); ++i)
        ;
}

/** False when nobody is there to be accepted. */
bool WaitingClients::AcceptOne(BaseSocket& listening, const std::function<void()>& freeDescriptor)
{
    auto client = std::make_unique<WaitingClient>();
    sockaddr_in address{};
    const int result =
        listening.AcceptConnectionFromClientWithTimeOut(client->connection.GetSocket(), address, 0, 0);
    if (result == BaseSocket::AcceptTimeOut)
        return false;
    if (result == BaseSocket::AcceptFailed) {
        TraceExhaustion(listening.BaseSocketGetLastError());
        acceptAgainAt_ = Clock::SteadyMilliseconds() + ExhaustionPause;
        freeDescriptor();
        return false;
    }
    exhausted_ = false;
    if (readingCount_ >= mostReading_)
        MakeRoom();
    const long long now = Clock::SteadyMilliseconds();
    client->connection.SetPeer(address, now);
    client->readDeadline = now + 1000LL * readTimeOut_;
    clients_.push_back(std::move(client));
    ++readingCount_;
    // The request usually comes with the connection: looking at once saves a turn.
    Read(*clients_.back());
    return true;
}

/** Told once per occurrence: until a client has been accepted again the rest is silence. */
void WaitingClients::TraceExhaustion(const QORUnicodeString& reason)
{
    if (!exhausted_)
        BaseString::PutTrace(reason, 1);
    exhausted_ = true;
}

/** What has been received and cannot be kept is lost: its client would wait for an answer in vain. */
void WaitingClients::Read(WaitingClient& client)
{
    try {
        Receive(client);
    } catch (const std::bad_alloc&) {
        client.state = State::Gone;
        BaseString::PutTrace("Error unable to read request : out of memory", 1);
    }
    if (client.state != State::Reading)
        --readingCount_;
}

void WaitingClients::Receive(WaitingClient& client)
{
    std::array<char, 65536> buffer;
    BaseSocket& socket = client.connection.GetSocket();
    const long count = socket.ReceiveAvailable(buffer.data(), buffer.size());
    if (count == BaseSocket::NothingYet)
        return;
    if (count == BaseSocket::Broken) {
        DropUnanswered(client, socket.BaseSocketGetLastError());
    } else if (count == 0) {
        if (client.text.IsEmpty())
            DropUnanswered(client, "connection closed by the client");
        else
            Complete(client);
    } else {
        const std::string_view bytes(buffer.data(), static_cast<size_t>(count));
        const bool taken = client.text.Append(bytes);
        explicit_bzero(buffer.data(), bytes.size());
        if (!taken) {
            DropUnanswered(client, "message too long");
        } else {
            const int silence = client.text.SilenceToAwait();
            client.stateDeadline = Clock::SteadyMilliseconds() + silence;
            if (silence == 0)
                Complete(client);
        }
    }
}

void WaitingClients::CheckDeadlines(WaitingClient& client, long long now)
{
    if (client.state != State::Reading)
        return;
    if (Deadline::IsPast(client.stateDeadline, now))
        Complete(client);
    else if (Deadline::IsPast(client.readDeadline, now))
        DropUnanswered(client, "time-out");
    if (client.state != State::Reading)
        --readingCount_;
}

WaitingClient* WaitingClients::NextComplete()
{
    const auto complete = std::find_if(clients_.begin(), clients_.end(),
                                       [](const auto& client) { return client->state == State::Complete; });
    return complete == clients_.end() ? nullptr : complete->get();
}

void WaitingClients::Sweep()
{
    std::erase_if(clients_, [](const auto& client) { return client->state == State::Gone; });
}

void WaitingClients::Clear()
{
    clients_.clear();
    readingCount_ = 0;
}

long long WaitingClients::NextDeadline() const
{
    long long next = acceptAgainAt_;
    for (const auto& client : clients_) {
        if (client->state == State::Complete)
            return 0; // more than one turn could serve: the next one must not wait
        if (client->state == State::Reading)
            next = Deadline::Earlier(next, Deadline::Earlier(client->readDeadline, client->stateDeadline));
        else
            next = Deadline::Earlier(next, client->stateDeadline);
    }
    return next;
}

void WaitingClients::AppendSocketsTo(QORListPtrBaseSocket& sockets)
{
    for (auto& client : clients_)
        if (client->connection.GetSocket().GetBaseSocketStatus())
            sockets.Append(&client->connection.GetSocket());
}

bool WaitingClients::MakeRoom()
{
    std::unordered_map<in_addr_t, int> held;
    for (const auto& client : clients_)
        if (client->state == State::Reading)
            ++held[client->connection.GetPeerAddress().sin_addr.s_addr];
    const auto most = std::max_element(held.begin(), held.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most == held.end())
        return false;
    const auto longest = std::find_if(clients_.begin(), clients_.end(), [&](const auto& client) {
        return client->state == State::Reading &&
               client->connection.GetPeerAddress().sin_addr.s_addr == most->first;
    });
    DropUnanswered(**longest, "too many clients wait");
    --readingCount_;
    (*longest)->connection.GetSocket().CloseBaseSocket();
    return true;
}
