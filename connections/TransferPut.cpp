// The put: what TransferConnection's worker does to write a file of this machine.
//
// | step                | sent on the control connection        | next                            |
// |---------------------|---------------------------------------|---------------------------------|
// | update offer        | offer; a failure becomes a message    | reply, or file                  |
// | reply               | -                                     | file (appended to, or written)  |
// | file                | failure: refusal                      | answer                          |
// | answer              | keyword, data port, banner, message   | data connection                 |
// | data connection     | -                                     | data                            |
// | data                | -                                     | end                             |
//
// A file that was made here and does not become whole is removed, unless an update was asked for: then what
// has arrived is kept for the next attempt.
#include "connections/TransferConnection.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include "connections/ProgressReport.h"
#include "connections/UnfinishedFile.h"
#include "protocol/ConnectionTexts.h"
#include "protocol/LineEnds.h"
#include "protocol/RequestText.h"
#include "protocol/TransferTexts.h"
#include "support/BaseString.h"

#include <fcntl.h>

namespace
{
constexpr int DataTimeOut = 900;     // seconds for the client's reply and for every piece of its data
constexpr std::size_t TraceLead = 2; // the "->" of a client's line, which the trace goes without
} // namespace

int TransferConnection::TransferPut()
{
    bool isAppended = false;
    std::string message;
    if (ascii_ == 0 && update_ == 1 && OfferUpdate(isAppended, message) != 0)
        return 1;
    UnfinishedFile unfinished(remoteFile_.ConvertToChar());
    if (OpenForWriting(isAppended, unfinished) != 0)
        return RefuseFile("Error unable to create remote file...(", protocol::FileNotCreatedLead);
    if (Answer(protocol::TransferAnswer(protocol::PutAnswer, dataPort_, message)) == 0 &&
        OpenDataConnection() == 0 && ReceiveFile() == 0)
        return 0;
    file_.Close();
    unfinished.Remove();
    return 1;
}

/** Tells the client what the file holds already and waits for its choice: 0, or 1 when the put is over. */
int TransferConnection::OfferUpdate(bool& isAppended, std::string& message)
{
    const std::string_view failed = SumUpOwnPart();
    if (!failed.empty()) {
        const std::string reason = strerror(errno);
        TraceFileError(failed.substr(TraceLead), reason);
        message = protocol::UpdateDropped(failed, remoteFile_.View(), reason);
        return 0;
    }
    file_.Close();
    if (Answer(protocol::UpdateOffer(updateSize_, headCheckSum_, bodyCheckSum_)) != 0)
        return 1;
    QORUnicodeString reply;
    if (GetSocket().ReadFromBaseSocketNonBlocking(reply, DataTimeOut) != 0) {
        BaseString::PutTrace(GetSocket().BaseSocketGetLastError(), 1);
        return 1;
    }
    const std::string_view choice = protocol::WithoutTerminator(reply.View());
    isAppended = choice == protocol::ReplyRest;
    return isAppended || choice == protocol::ReplyAll ? 0 : 1;
}

/** Measures and sums up the file as it is; empty, or with errno the lead of the warning that says what
 * failed. */
std::string_view TransferConnection::SumUpOwnPart()
{
    if (OpenRemoteFile(O_RDONLY) != 0)
        return protocol::WarnNotOpenedLead;
    updateSize_ = file_.FindSize();
    if (updateSize_ == -1)
        return protocol::WarnWithoutOffsetLead;
    if (SumUp(updateSize_, nullptr, headCheckSum_, bodyCheckSum_) != SumResult::Done)
        return protocol::WarnNotReadLead;
    return {};
}

/** 0, or -1 with errno. Does not wait for the other end of a pipe, as termination is held back. */
int TransferConnection::OpenForWriting(bool isAppended, UnfinishedFile& unfinished)
{
    const TerminationHold hold;
    if (OpenRemoteFile(O_WRONLY | O_CREAT | (isAppended ? O_APPEND : O_TRUNC) | O_NONBLOCK) != 0 ||
        file_.SetBlocking() != 0)
        return -1;
    // What is not a regular file cannot be left half written, and a device must not be removed.
    const bool isKept = ascii_ == 0 && update_ == 1;
    if (!isKept && file_.IsRegular())
        unfinished.Watch();
    // A limit on file sizes is then an error of the write, which is told, instead of a signal.
    signal(SIGXFSZ, SIG_IGN);
    return 0;
}

int TransferConnection::ReceiveFile()
{
    int result = ReceiveBlocks();
    // What was written may turn out not to fit only now, on a file system across the network.
    if (file_.Close() != 0 && result == 0) {
        TraceFileError("Error unable to write in remote file...(", strerror(errno));
        result = 1;
    }
    dataSocket_.CloseBaseSocket();
    return result;
}

int TransferConnection::ReceiveBlocks()
{
    ProgressReport progress(GetStatusBoard(), protocol::ReceivedLead);
    LineEnds::Reducer lineEnds;
    static char room[1 + OpenFile::BlockSize]; // the byte in front is for a CR that was held back
    char* block = room + 1;
    int count;
    while ((count = progress.Receive(dataSocket_, block, OpenFile::BlockSize, DataTimeOut)) > 0) {
        const auto length = static_cast<std::size_t>(count);
        if (WriteToFile(ascii_ != 0 ? lineEnds.Reduce(room, length) : std::string_view(block, length)) != 0)
            return 1;
    }
    progress.Publish();
    if (count < 0) {
        BaseString::PutTrace(dataSocket_.BaseSocketGetLastError(), 1);
        return 1;
    }
    return WriteToFile(lineEnds.TakeHeldBack());
}

int TransferConnection::WriteToFile(std::string_view bytes)
{
    if (file_.Write(bytes.data(), bytes.size()) == 0)
        return 0;
    TraceFileError("Error unable to write in remote file...(", strerror(errno));
    return 1;
}
