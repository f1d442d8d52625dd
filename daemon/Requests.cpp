#include "daemon/RuvelServer.h"

#include <exception>

#include "protocol/Texts.h"
#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/TurnShare.h"

namespace
{

constexpr const char* CheckFailed = "Error unable to check the password";

} // namespace

/** What serves each kind, and how its user is refused. */
const RuvelServer::Service RuvelServer::Services[] = {
    {RequestKind::Launch, &RuvelServer::ServeLaunch, &RuvelServer::RefuseLaunch},
    {RequestKind::LaunchPassive, &RuvelServer::ServeLaunch, &RuvelServer::RefuseLaunch},
    {RequestKind::LaunchUntimed, &RuvelServer::ServeLaunch, &RuvelServer::RefuseLaunch},
    {RequestKind::LaunchOldest, &RuvelServer::ServeLaunch, &RuvelServer::RefuseLaunch},
    {RequestKind::LaunchInteractive, &RuvelServer::ServeLaunch, &RuvelServer::RefuseLaunch},
    {RequestKind::Close, &RuvelServer::ServeClose, &RuvelServer::RefuseBriefly},
    {RequestKind::Transfer, &RuvelServer::ServeTransfer, &RuvelServer::StartRefusedTransfer},
    {RequestKind::TransferUpdateGet, &RuvelServer::ServeTransfer, &RuvelServer::StartRefusedTransfer},
    {RequestKind::TransferUpdatePut, &RuvelServer::ServeTransfer, &RuvelServer::StartRefusedTransfer},
    {RequestKind::Info, &RuvelServer::ServeInfo, &RuvelServer::RefuseBriefly},
    {RequestKind::AllInfo, &RuvelServer::ServeAllInfo, &RuvelServer::RefuseBriefly},
    {RequestKind::State, &RuvelServer::ServeState, &RuvelServer::RefuseBriefly},
    {RequestKind::Kill, &RuvelServer::ServeKill, &RuvelServer::RefuseKill},
};

const RuvelServer::Service& RuvelServer::ServiceOf(const WaitingClient& client)
{
    static constexpr Service Unknown = {RequestKind::Unknown, &RuvelServer::ServeUnknown,
                                        &RuvelServer::RefuseBriefly};
    for (const Service& service : Services)
        if (service.kind == client.form->kind)
            return service;
    return Unknown;
}

/** Memory may run out while one client is served or refused: that client is dropped and nothing else. */
void RuvelServer::Guarded(WaitingClient& client, void (RuvelServer::*step)(WaitingClient&))
{
    try {
        (this->*step)(client);
    } catch (const std::exception& failure) {
        BaseString::PutTrace("Error unable to serve a request : ", failure.what(), 1);
        client.state = State::Gone;
    }
}

void RuvelServer::ServeRequest(WaitingClient& client)
{
    if (client.form == nullptr) {
        Understand(client);
        if (client.fields.count == 0)
            return Answer(client, std::string(protocol::BannerLine).append(protocol::MessageEmpty));
        if (!AreArgumentsGood(client) || !IsOwnerAsked(client))
            return;
        if (NeedsUserCheck(client)) {
            DropConverted(client);
            return checks_.Enqueue(client);
        }
    }
    (this->*ServiceOf(client).serve)(client);
}

void RuvelServer::Understand(WaitingClient& client)
{
    client.fields = client.text.Fields();
    client.versionIndex = protocol::VersionIndex(client.fields[1]);
    client.form = &protocol::FormOf(client.fields, client.versionIndex);
}

/** Converts the arguments, where a form has any; a bad one is answered here and nothing is started. */
bool RuvelServer::AreArgumentsGood(WaitingClient& client)
{
    const auto serve = ServiceOf(client).serve;
    if (serve == &RuvelServer::ServeLaunch)
        return AreLaunchArgumentsGood(client);
    return serve != &RuvelServer::ServeTransfer || AreTransferArgumentsGood(client);
}

bool RuvelServer::AreLaunchArgumentsGood(WaitingClient& client)
{
    auto arguments = ReadLaunchArguments(client.form->kind, client.fields);
    if (arguments) {
        client.launch = std::move(*arguments);
        return true;
    }
    Answer(
        client,
        std::string(protocol::BannerLine).append(protocol::BadParameters).append(protocol::NoReturnCodeLine));
    return false;
}

bool RuvelServer::AreTransferArgumentsGood(WaitingClient& client)
{
    auto arguments = ReadTransferArguments(client.form->kind, client.fields);
    if (arguments)
        client.transfer = std::move(*arguments);
    else
        RefuseTransfer(client, protocol::BadParameters);
    return arguments.has_value();
}

/** In single user mode only the daemon's own user may launch, and only its owner may ever close it: this is
 * asked before the password, and answered here when it does not hold. */
bool RuvelServer::IsOwnerAsked(WaitingClient& client)
{
    const bool closes = client.form->kind == RequestKind::Close;
    const bool launches = ServiceOf(client).serve == &RuvelServer::ServeLaunch;
    if (!closes && !(launches && singleUser_))
        return true;
    QORUnicodeString owner;
    if (BaseProcess::IsSameUser(QORUnicodeString(client.fields[2]), owner))
        return true;
    const std::string reason = protocol::NotOwner(owner.View(), client.fields[2]);
    if (launches)
        RefuseLaunch(client, reason);
    else
        Answer(client,
               std::string(protocol::BannerLine).append(protocol::LineLead).append(reason).append("\n"));
    return false;
}

bool RuvelServer::NeedsUserCheck(const WaitingClient& client) const
{
    return client.form->userCheck != protocol::UserCheck::None && !noPasswordCheck_ &&
           ServiceOf(client).kind != RequestKind::Unknown;
}

/** The text of arguments that have been converted need not wait for the check as well. */
void RuvelServer::DropConverted(WaitingClient& client)
{
    constexpr int upToPassword = 3;
    if (client.form->userCheck != protocol::UserCheck::AfterArguments)
        return;
    client.text.KeepFields(upToPassword);
    client.fields = client.text.Fields();
}

/** Answers the refused users whose time has come, as many as one turn has time for. */
void RuvelServer::RefuseUsers()
{
    const long long now = Clock::SteadyMilliseconds();
    const TurnShare share;
    for (const auto& client : waiting_.Heard()) {
        if (client->state != State::Refused || !Deadline::IsPast(client->stateDeadline, now))
            continue;
        Guarded(*client, &RuvelServer::RefuseUser);
        if (share.IsUsedUp())
            return;
    }
}

void RuvelServer::RefuseUser(WaitingClient& client)
{
    (this->*ServiceOf(client).refuse)(client, RefusalReason(client));
}

const char* RuvelServer::RefusalReason(const WaitingClient& client)
{
    return client.verdict == WaitingClient::Verdict::Bad ? BaseProcess::UserRefusedReason : CheckFailed;
}

void RuvelServer::RefuseLaunch(WaitingClient& client, const std::string& reason)
{
    Answer(client, std::string(protocol::BannerLine)
                       .append(protocol::LineLead)
                       .append(reason)
                       .append("\n")
                       .append(protocol::NoReturnCodeLine));
}

void RuvelServer::RefuseKill(WaitingClient& client, const std::string& reason)
{
    Answer(client, std::string(protocol::LineLead).append(reason).append("\n"));
}

void RuvelServer::RefuseBriefly(WaitingClient& client, const std::string& reason)
{
    Answer(client, std::string(protocol::LineLead).append(reason));
}

void RuvelServer::ServeUnknown(WaitingClient& client)
{
    Answer(client, std::string(protocol::BannerLine)
                       .append(protocol::RefusalOfUnknown(client.fields, client.versionIndex)));
}

/** The one answer of a request: the client leaves with it. */
void RuvelServer::Answer(WaitingClient& client, const std::string& text)
{
    const int online = protocol::AsksForSocket(client.fields);
    WriteToBaseConnectionSocket(&client.connection, QORUnicodeString(text), online);
    Dismiss(client.connection);
    client.state = State::Gone;
}

void RuvelServer::TakeSocket(WaitingClient& client, Connection& connection)
{
    connection.GetSocket() = client.connection.GetSocket();
    client.connection.GetSocket().Reset();
    client.state = State::Gone;
}
