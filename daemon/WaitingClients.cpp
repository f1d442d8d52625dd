#include "daemon/WaitingClients.h"

#include <algorithm>
#include <array>
#include <new>
#include <numeric>
#include <unordered_map>

#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/TurnShare.h"

#include <string.h>
#include <sys/epoll.h>

namespace
{

using State = WaitingClient::State;

void DropUnanswered(WaitingClient& client, const QORUnicodeString& reason)
{
    BaseString::PutTrace(client.state == State::Reading ? "Error unable to read request : "
                                                        : "Error unable to serve a request : ",
                         reason, 1);
    client.state = State::Gone;
}

/** The request is whole: what it asks for is looked at when its turn to be served comes. */
void Complete(WaitingClient& client)
{
    client.state = State::Complete;
    client.stateDeadline = Deadline::Never;
    client.completedAt = Clock::SteadyMilliseconds();
}

/** Whether somebody may be dropped who has not been answered. */
bool MayBeDropped(const WaitingClient& client)
{
    return client.state == State::Reading || client.state == State::Queued || client.state == State::Refused;
}

in_addr_t AddressOf(const WaitingClient& client)
{
    return client.connection.GetPeerAddress().sin_addr.s_addr;
}

/** The slot of what is awaited of a client: bytes, or, while it has to wait itself, only that its connection
 * is reset. One that has closed its sending side alone still waits for its answer. */
int AddTo(Poller& poller, const WaitingClient& client)
{
    if (!MayBeDropped(client))
        return Poller::NoSlot;
    const short events = client.state == State::Reading ? POLLIN : 0;
    return poller.Add(client.connection.GetSocket().GetBaseSocketNumber(), events);
}

} // namespace

void WaitingClients::Prepare(long descriptorLimit)
{
    mostWaiting_ = static_cast<std::size_t>(
        std::clamp<long>((descriptorLimit - Headroom) / 2, 1, static_cast<long>(MostWaiting)));
    silentSet_ = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
}

void WaitingClients::AddTo(Poller& poller, const BaseSocket& listening)
{
    listeningSlot_ = Poller::NoSlot;
    if (listening.GetBaseSocketStatus() && acceptAgainAt_ == Deadline::Never && Count() <= mostWaiting_)
        listeningSlot_ = poller.Add(listening.GetBaseSocketNumber(), POLLIN);
    silentSlot_ = silent_.empty() ? Poller::NoSlot : poller.Add(silentSet_.Number(), POLLIN);
    for (auto& client : heard_)
        client->slot = ::AddTo(poller, *client);
}

/** Of those who are not gone. */
std::size_t WaitingClients::Count() const
{
    const auto gone = std::count_if(heard_.begin(), heard_.end(),
                                    [](const auto& client) { return client->state == State::Gone; });
    return silent_.size() + heard_.size() - static_cast<std::size_t>(gone);
}

void WaitingClients::AcceptAndRead(const Poller& poller, BaseSocket& listening,
                                   const std::function<bool()>& freeDescriptor)
{
    const long long now = Clock::SteadyMilliseconds();
    ReadHeard(poller, now);
    ReadSilent(poller);
    DropSilent(now);

    const bool resume = Deadline::IsPast(acceptAgainAt_, now);
    if (resume)
        acceptAgainAt_ = Deadline::Never;
    if (resume || poller.Events(listeningSlot_) != 0)
        for (int i = 0; i < MostPerTurn && AcceptOne(listening, freeDescriptor); ++i)
            ;
    LimitHeldBytes();
}

void WaitingClients::ReadHeard(const Poller& poller, long long now)
{
    const TurnShare share;
    auto next = heard_.begin();
    for (; next != heard_.end() && !share.IsUsedUp(); ++next) {
        WaitingClient& client = **next;
        const bool hasEvent = poller.Events(client.slot) != 0;
        if (hasEvent && client.state == State::Reading)
            Read(client);
        else if (hasEvent)
            DropUnanswered(client, "connection reset by the client");
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

/** An AcceptResult. What is closed for want of resources is for a second try, and the only thing. */
int WaitingClients::Accept(BaseSocket& listening, WaitingClient& client, sockaddr_in& address,
                           const std::function<bool()>& freeDescriptor)
{
    BaseSocket& socket = client.connection.GetSocket();
    const int result = listening.AcceptConnectionFromClientWithTimeOut(socket, address, 0, 0);
    if (result == BaseSocket::Accepted)
        exhausted_ = false;
    if (result != BaseSocket::AcceptFailed)
        return result;
    TraceExhaustion(listening.BaseSocketGetLastError());
    if (!listening.IsOutOfResources() || !freeDescriptor())
        return result;
    return listening.AcceptConnectionFromClientWithTimeOut(socket, address, 0, 0);
}

/** False when nobody else is to be accepted in this turn. */
bool WaitingClients::AcceptOne(BaseSocket& listening, const std::function<bool()>& freeDescriptor)
{
    if (Count() > mostWaiting_)
        return false;
    auto client = std::make_unique<WaitingClient>();
    sockaddr_in address{};
    const int result = Accept(listening, *client, address, freeDescriptor);
    if (result == BaseSocket::AcceptFailed)
        acceptAgainAt_ = Clock::SteadyMilliseconds() + ExhaustionPause;
    if (result != BaseSocket::Accepted)
        return false;
    if (Count() >= mostWaiting_)
        MakeRoom();
    client->connection.SetPeer(address);
    client->readDeadline = Clock::SteadyMilliseconds() + 1000LL * readTimeOut_;
    WaitingClient& accepted = *client;
    accepted.place = heard_.insert(heard_.end(), std::move(client));
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
    return DropOneOfMost([](const WaitingClient&) -> std::size_t { return 1; });
}

/** What is over the limit for one turn goes before the next. */
void WaitingClients::LimitHeldBytes()
{
    const auto heldByAll = [this] {
        return std::accumulate(heard_.begin(), heard_.end(), std::size_t{0},
                               [](std::size_t sum, const auto& client) {
                                   return client->state == State::Gone ? sum : sum + client->HeldBytes();
                               });
    };
    while (heldByAll() > MostHeldBytes &&
           DropOneOfMost([](const WaitingClient& client) { return client.HeldBytes(); }))
        ;
}

/** Of the address with the largest share, the one that has waited longest and has any of it. */
bool WaitingClients::DropOneOfMost(Share share)
{
    std::unordered_map<in_addr_t, std::size_t> held;
    for (const auto* clients : {&silent_, &heard_})
        for (const auto& client : *clients)
            if (MayBeDropped(*client))
                held[AddressOf(*client)] += share(*client);
    const auto most = std::max_element(held.begin(), held.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most == held.end() || most->second == 0)
        return false;
    WaitingClient& longest = *FindLongestWaiting(most->first, share);
    BecomeHeard(longest);
    DropUnanswered(longest, "too many clients wait");
    longest.connection.GetSocket().CloseBaseSocket();
    return true;
}

/** The one of this address whose time-out is next; there is one. */
WaitingClient* WaitingClients::FindLongestWaiting(in_addr_t address, Share share)
{
    WaitingClient* longest = nullptr;
    for (const auto* clients : {&silent_, &heard_})
        for (const auto& client : *clients)
            if (MayBeDropped(*client) && AddressOf(*client) == address && share(*client) != 0 &&
                (longest == nullptr || client->readDeadline < longest->readDeadline))
                longest = client.get();
    return longest;
}
