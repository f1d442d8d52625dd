#include "daemon/UserChecks.h"

#include "support/Clock.h"

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
    client.stateDeadline =
        verdict == Verdict::Good ? Deadline::Never : client.completedAt + UserChecks::RefusalDelay;
}

} // namespace

void UserChecks::Enqueue(WaitingClient& client)
{
    client.connection.SetCredentials(client.fields[2], client.fields[3]);
    client.text.WipeField(3);
    client.state = State::Checking;
    waiting_.push_back(&client);
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

void UserChecks::StartWaiting(const std::function<void(QORListPtrBaseSocket&)>& socketsToClose)
{
    while (!waiting_.empty() && running_.size() < MostAtOnce) {
        WaitingClient* client = waiting_.front();
        waiting_.pop_front();
        QORListPtrBaseSocket sockets(0);
        socketsToClose(sockets);
        if (client->connection.StartThreadOrProcess(sockets) == 0)
            running_.push_back(client);
        else
            GiveVerdict(*client, Verdict::Unchecked);
        client->connection.WipeCredentials();
    }
}

void UserChecks::EndAll()
{
    for (WaitingClient* client : running_)
        client->connection.TerminateThreadOrProcess(1);
    running_.clear();
    waiting_.clear();
}
