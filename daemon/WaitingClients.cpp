#include "daemon/WaitingClients.h"

#include <algorithm>
#include <array>
#include <new>
#include <unordered_map>

#include "daemon/TurnShare.h"
#include "support/BaseString.h"
#include "support/Clock.h"

#include <string.h>
#include <sys/epoll.h>

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

void WaitingClients::Prepare(long descriptorLimit)
{
    mostReading_ = static_cast<int>(std::clamp<long>((descriptorLimit - Headroom) / 2, 1, MostReading));
    silentSet_ = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
}

void WaitingClients::AddTo(Poller& poller, const BaseSocket& listening)
{
    listeningSlot_ = Poller::NoSlot;
    if (listening.GetBaseSocketStatus() && acceptAgainAt_ == Deadline::Never)
        listeningSlot_ = poller.Add(listening.GetBaseSocketNumber(), POLLIN);
    silentSlot_ = silent_.empty() ? Poller::NoSlot : poller.Add(silentSet_.Number(), POLLIN);
    for (auto& client : heard_)
        if (client->state == State::Reading)
            client->slot = poller.Add(client->connection.GetSocket().GetBaseSocketNumber(), POLLIN);
}

void WaitingClients::AcceptAndRead(const Poller& poller, BaseSocket& listening,
                                   const std::function<void()>& freeDescriptor)
{
    const long long now = Clock::SteadyMilliseconds();
    ReadHeard(poller, now);
    ReadSilent(poller);
    DropSilent(now);

    const bool resume = Deadline::IsPast(acceptAgainAt_, now);
    if (resume)
        acceptAgainAt_ = Deadline::Never;
    if (!resume && poller.Events(listeningSlot_) == 0)
        return;
    for (int i = 0; i < MostPerTurn && AcceptOne(listening, freeDescriptor); ++i)
        ;
}

void WaitingClients::ReadHeard(const Poller& poller, long long now)
{
    const TurnShare share;
    auto next = heard_.begin();
    for (; next != heard_.end() && !share.IsUsedUp(); ++next) {
        WaitingClient& client = **next;
        if (client.state == State::Reading && poller.Events(client.slot) != 0)
            Read(client);
        client.slot = Poller::NoSlot;
        CheckDeadlines(client, now);
    }
    if (next != heard_.end()) // who was not come to is first in the next turn
        heard_.splice(heard_.end(), heard_, heard_.begin(), next);
}

void WaitingClients::ReadSilent(const Poller& poller)
{
    if (poller.Events(silentSlot_) == 0)
        return;
    // Whoever does not fit in is told of at the next turn.
    std::array<epoll_event, 4 * MostPerTurn> events;
    const int count = epoll_wait(silentSet_.Number(), events.data(), static_cast<int>(events.size()), 0);
    const TurnShare share;
    for (int i = 0; i < count && !share.IsUsedUp(); ++i) {
        auto& client = *static_cast<WaitingClient*>(events[static_cast<std::size_t>(i)].data.ptr);
        BecomeHeard(client);
        Read(client);
    }
}

void WaitingClients::DropSilent(long long now)
{
    while (!silent_.empty() && Deadline::IsPast(silent_.front()->readDeadline, now)) {
        WaitingClient& client = *silent_.front();
        BecomeHeard(client);
        CheckDeadlines(client, now);
    }
}

/** Where that cannot be had the client stays among the others, who are asked one by one. */
void WaitingClients::BecomeSilent(WaitingClient& client)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = &client;
    const int descriptor = client.connection.GetSocket().GetBaseSocketNumber();
    if (epoll_ctl(silentSet_.Number(), EPOLL_CTL_ADD, descriptor, &event) != 0)
        return;
    silent_.splice(silent_.end(), heard_, client.place);
    client.isSilent = true;
}

void WaitingClients::BecomeHeard(WaitingClient& client)
{
    if (!client.isSilent)
        return;
    // Not left to the close: whoever shares the socket keeps it open, and in the set.
    epoll_ctl(silentSet_.Number(), EPOLL_CTL_DEL, client.connection.GetSocket().GetBaseSocketNumber(),
              nullptr);
    heard_.splice(heard_.end(), silent_, client.place);
    client.isSilent = false;
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
    WaitingClient& accepted = *client;
    accepted.place = heard_.insert(heard_.end(), std::move(client));
    ++readingCount_;
    // The request usually comes with the connection: looking at once saves a turn.
    Read(accepted);
    if (accepted.state == State::Reading && accepted.text.IsEmpty())
        BecomeSilent(accepted);
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
    const auto complete = std::find_if(heard_.begin(), heard_.end(),
                                       [](const auto& client) { return client->state == State::Complete; });
    return complete == heard_.end() ? nullptr : complete->get();
}

void WaitingClients::Sweep()
{
    heard_.remove_if([](const auto& client) { return client->state == State::Gone; });
}

void WaitingClients::Clear()
{
    silent_.clear();
    heard_.clear();
    readingCount_ = 0;
}

long long WaitingClients::NextDeadline() const
{
    long long next = acceptAgainAt_;
    if (!silent_.empty())
        next = Deadline::Earlier(next, silent_.front()->readDeadline);
    for (const auto& client : heard_) {
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
    for (const auto* clients : {&silent_, &heard_})
        for (auto& client : *clients)
            if (client->connection.GetSocket().GetBaseSocketStatus())
                sockets.Append(&client->connection.GetSocket());
}

bool WaitingClients::MakeRoom()
{
    std::unordered_map<in_addr_t, int> held;
    for (const auto* clients : {&silent_, &heard_})
        for (const auto& client : *clients)
            if (client->state == State::Reading)
                ++held[client->connection.GetPeerAddress().sin_addr.s_addr];
    const auto most = std::max_element(held.begin(), held.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most == held.end())
        return false;
    WaitingClient& longest = *FindLongestReading(most->first);
    BecomeHeard(longest);
    DropUnanswered(longest, "too many clients wait");
    --readingCount_;
    longest.connection.GetSocket().CloseBaseSocket();
    return true;
}

/** The one of this address whose time-out is next; there is one. */
WaitingClient* WaitingClients::FindLongestReading(in_addr_t address)
{
    WaitingClient* longest = nullptr;
    for (const auto* clients : {&silent_, &heard_})
        for (const auto& client : *clients)
            if (client->state == State::Reading &&
                client->connection.GetPeerAddress().sin_addr.s_addr == address &&
                (longest == nullptr || client->readDeadline < longest->readDeadline))
                longest = client.get();
    return longest;
}
