#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"
#include "support/BaseString.h"

/** What the daemon itself has to say is a list: the word, then banner and text. */
void RuvelServer::RefuseTransfer(WaitingClient& client, std::string_view text)
{
    Answer(client,
           std::string(protocol::Error).append(UniversalSeparator).append(protocol::BannerLine).append(text));
}

/** Two transfers of one file exclude each other, whichever way they go; not one that is only being refused.
 */
bool RuvelServer::IsInTransfer(const QORUnicodeString& file) const
{
    for (int i = 1; i <= transfers_.Size(); ++i)
        if (!transfers_[i]->IsRefused() && transfers_[i]->GetSourceOrTargetFile() == file)
            return true;
    return false;
}

/** The worker is started whether the password was good or bad, and answers the client either way. */
void RuvelServer::ServeTransfer(WaitingClient& client)
{
    const TransferArguments& arguments = client.transfer;
    const bool isUserGood = noPasswordCheck_ || client.verdict == WaitingClient::Verdict::Good;
    if (isUserGood && IsInTransfer(arguments.remoteFile))
        return RefuseTransfer(client, protocol::FileInUse);

    auto transfer = std::make_unique<TransferConnection>(serverAddress_, &dataAddress_);
    // The password has been checked, and wiped: the worker gets the verdict instead.
    const QORUnicodeString checkedBefore;
    const int bindDataSocket = 1;
    transfer->SetAttributes(arguments.user, checkedBefore, BaseString::GetTimeInSec(),
                            arguments.get ? TransferConnection::Get : TransferConnection::Put,
                            arguments.ascii, arguments.remoteFile, connectionCount_, client.versionIndex,
                            noPasswordCheck_, bindDataSocket);
    transfer->SetLifeTimeOut(arguments.lifeTimeOut);
    if (arguments.passive)
        transfer->SetPassiveHostAddressAndPortNumber(arguments.passiveHost, arguments.passivePort);
    if (arguments.update)
        transfer->SetUpdateSizeAndCheckSum(arguments.updateSize, arguments.headCheckSum,
                                           arguments.bodyCheckSum);
    transfer->SetUserVerdict(isUserGood, QORUnicodeString(RefusalReason(client)));

    TakeSocket(client, *transfer);
    QORListPtrBaseSocket sockets = ListSocketsForWorker();
    transfers_.MakeRoom(); // a worker that runs must not be lost
    if (transfer->StartThreadOrProcess(sockets) != 0) {
        const std::string text = std::string(protocol::Error)
                                     .append(UniversalSeparator)
                                     .append(protocol::BannerLine)
                                     .append(protocol::TransferNotStarted);
        WriteToBaseConnectionSocket(transfer.get(), QORUnicodeString(text), 0);
        return Dismiss(*transfer);
    }
    NoteLifeTime(*transfer);
    transfers_.Append(transfer.release());
    ++connectionCount_;
}

void RuvelServer::StartRefusedTransfer(WaitingClient& client, const std::string& /*reason*/)
{
    ServeTransfer(client);
}
