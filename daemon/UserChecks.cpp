#include "daemon/UserChecks.h"

#include <algorithm>
#include <new>

#include "support/Clock.h"
#include "support/PasswordCheck.h"

#include <unistd.h>

namespace
{

using State = WaitingClient::State;
using Verdict = WaitingClient::Verdict;

/** The verdict that a worker's exit code stands for; a worker that broke down has none. */
Verdict VerdictOf(int workerStatus)
{
    if (workerStatus == 0)
        return Verdict::Good;
    return workerStatus == 1 ? Verdict::Bad : Verdict::Unchecked;
}

/** A good user is served at once; everybody else is held back, whatever the reason. */
void GiveVerdict(WaitingClient& client, Verdict verdict)
{
    client.verdict = verdict;
    client.state = verdict == Verdict::Good ? State::Complete : State::Refused;
    // One more, as the clock cuts off what is less than a millisecond.
    client.stateDeadline =
        verdict == Verdict::Good ? Deadline::Never : client.completedAt + UserChecks::RefusalDelay + 1;
    if (verdict != Verdict::Good)
        client.DropRequest();
}

in_addr_t AddressOf(const WaitingClient* client)
{
    return client->connection.GetPeerAddress().sin_addr.s_addr;
}

} // namespace

UserChecks::UserChecks(const int& limitSeconds)
    : limitSeconds_(limitSeconds),
      processors_(static_cast<std::size_t>(std::max(2L, sysconf(_SC_NPROCESSORS_ONLN))))
{
    PasswordCheck::ShareExperience();
    running_.reserve(MostAtOnce); // a check that runs must not be lost when memory is short
}

void UserChecks::Enqueue(WaitingClient& client)
{
    waiting_.push_back(&client);
    client.state = State::Queued;
}

void UserChecks::CollectVerdicts()
{
    std::erase_if(running_, [](WaitingClient* client) {
        int status = 0;
        if (!client->connection.CheckThreadOrProcess(status))
            return false;
        GiveVerdict(*client, VerdictOf(status));
        return true;
    });
}

bool UserChecks::Start(WaitingClient& client,
                       const std::function<QORListPtrBaseSocket()>& socketsToClose) const
{
    try {
        QORListPtrBaseSocket sockets = socketsToClose();
        // Not before: what the queue holds is in memory that no worker gets to see.
        client.connection.SetCredentials(client.fields[2], client.fields[3], limitSeconds_);
        return client.connection.StartThreadOrProcess(sockets) == 0;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void UserChecks::StartWaiting(const std::function<QORListPtrBaseSocket()>& socketsToClose)
{
    std::erase_if(waiting_, [](const WaitingClient* client) { return client->state == State::Gone; });
    while (!waiting_.empty() && HasRoom()) {
        const auto next = FindNext();
        WaitingClient& client = **next;
        lastStart_ = Clock::SteadyMilliseconds();
        hasLastStartFailed_ = !Start(client, socketsToClose);
        client.connection.WipeCredentials();
        if (hasLastStartFailed_)
            return RefuseOverdue(lastStart_);
        waiting_.erase(next);
        running_.push_back(&client);
        client.state = State::Checking;
        client.text.WipeField(3);
    }
}

void UserChecks::RefuseOverdue(long long now)
{
    std::erase_if(waiting_, [now](WaitingClient* client) {
        if (now - client->completedAt < RefusalDelay)
            return false;
        GiveVerdict(*client, Verdict::Unchecked);
        return true;
    });
}

bool UserChecks::HasRoom() const
{
    if (running_.size() >= MostAtOnce)
        return false;
    return (running_.size() < processors_ && !hasLastStartFailed_) ||
           Clock::SteadyMilliseconds() - lastStart_ >= ComputingTime;
}

/** Of those that wait; there is one. */
std::deque<WaitingClient*>::iterator UserChecks::FindNext()
{
    const bool firstComes = ++startCount_ % TurnOfTheFirst == 0;
    const auto runningOf = [this](const WaitingClient* client) {
        return std::count_if(running_.begin(), running_.end(), [&](const WaitingClient* running) {
            return AddressOf(running) == AddressOf(client);
        });
    };
    auto next = waiting_.begin();
    auto fewest = runningOf(*next);
    for (auto client = std::next(next); client != waiting_.end(); ++client) {
        const auto count = runningOf(*client);
        if (count < fewest || (count == fewest && !firstComes)) {
            next = client;
            fewest = count;
        }
    }
    return next;
}

long long UserChecks::NextDeadline() const
{
    if (waiting_.empty() || running_.size() >= MostAtOnce)
        return Deadline::Never;
    return lastStart_ + ComputingTime;
}

void UserChecks::EndAll()
{
    for (WaitingClient* client : running_)
        client->connection.TerminateThreadOrProcess(1);
    running_.clear();
    waiting_.clear();
}
