// The transfer's data connection: which side opens it, from which address, under which identity.
#include "connections/TransferConnection.h"

#include "connections/DataConnection.h"
#include "connections/UnfinishedFile.h"
#include "support/BaseString.h"

namespace
{
constexpr int AcceptAttempts = 30;
constexpr int ConnectionAttempts = 15;
} // namespace

int TransferConnection::OpenDataConnection()
{
    return passive_ != 0 ? ConnectToClient() : AcceptClient();
}

int TransferConnection::AcceptClient()
{
    sockaddr_in client{};
    for (int i = 0; i < AcceptAttempts; ++i)
        if (listeningDataSocket_.AcceptConnectionFromClientWithTimeOut(
                dataSocket_, client, DataConnection::AttemptTimeOut, 0) == BaseSocket::Accepted)
            return 0;
    BaseString::PutTrace(listeningDataSocket_.BaseSocketGetLastError(), 1);
    return 1;
}

int TransferConnection::ConnectToClient()
{
    const int result = DataConnection::Retry(ConnectionAttempts, [this] { return AttemptConnection(); });
    if (result == DataConnection::Failed)
        BaseString::PutTrace(dataSocket_.BaseSocketGetLastError(), 1);
    return result == DataConnection::Connected ? 0 : 1;
}

int TransferConnection::AttemptConnection()
{
    if (bindDataSocket_ == 0 || localAddress_ == nullptr)
        return DataConnection::ConnectFrom(dataSocket_, localAddress_, passiveHostAddress_, passivePort_);
    const int bound = BindAsDaemon();
    if (bound == DataConnection::GiveUp)
        return bound;
    return DataConnection::ConnectAfterBind(dataSocket_, bound, passiveHostAddress_, passivePort_);
}

/** The port is the daemon's, and so may be the right to bind it: 0, Failed, or GiveUp when the worker could
 * not change to the daemon's identity or back. */
int TransferConnection::BindAsDaemon()
{
    if (noImpersonation_ != 0)
        return dataSocket_.Bind(*localAddress_);
    // Nothing may be removed under this identity, neither now nor when the way back to the user fails.
    const TerminationHold hold;
    if (Restore() != 0) {
        UnfinishedFile::Abandon();
        BaseString::PutTrace("Error in RestoreUser() : ", GetProcess().BaseProcessGetLastError(), 1);
        return DataConnection::GiveUp;
    }
    const int bound = dataSocket_.Bind(*localAddress_);
    if (Impersonate(PasswordMode::TrustEarlierCheck) != 0) {
        UnfinishedFile::Abandon();
        BaseString::PutTrace("Error in ImpersonateUser() : ", GetProcess().BaseProcessGetLastError(), 1);
        dataSocket_.CloseBaseSocket();
        return DataConnection::GiveUp;
    }
    return bound;
}
