// The get: what TransferConnection's worker does to send a file of this machine.
//
// | step                | sent on the control connection        | next                       |
// |---------------------|---------------------------------------|----------------------------|
// | open                | failure: refusal                      | client's part, or answer   |
// | client's part       | failure: refusal                      | answer                     |
// | answer              | keyword, data port, banner, message   | data connection            |
// | data connection     | -                                     | file                       |
// | file                | -                                     | end                        |
#include "connections/TransferConnection.h"

#include <cerrno>
#include <cstring>

#include "connections/DataConnection.h"
#include "connections/ProgressReport.h"
#include "protocol/ConnectionTexts.h"
#include "protocol/LineEnds.h"
#include "protocol/TransferTexts.h"
#include "support/BaseString.h"

#include <fcntl.h>

int TransferConnection::TransferGet()
{
    if (OpenRemoteFile(O_RDONLY) != 0)
        return RefuseFile("Error unable to open remote file...(", protocol::FileNotOpenedLead);
    std::string_view keyword = protocol::GetAnswer;
    std::string message;
    if (ascii_ == 0 && update_ == 1 && CheckClientsPart(keyword, message) != 0)
        return 1;
    if (Answer(protocol::TransferAnswer(keyword, dataPort_, message)) != 0 || OpenDataConnection() != 0)
        return 1;
    const int result = SendFile();
    char unexpected; // unread it would make the close destroy what is on its way
    if (dataSocket_.ReceiveAvailable(&unexpected, sizeof unexpected) > 0)
        DataConnection::CloseInOrder(dataSocket_);
    dataSocket_.CloseBaseSocket();
    return result;
}

/** Finds out whether the client's part is the beginning of the file, which is then left behind that part:
 * 0, or 1 when the transfer has been refused. */
int TransferConnection::CheckClientsPart(std::string_view& keyword, std::string& message)
{
    const long long size = file_.FindSize();
    if (size == -1)
        return RefuseFile("Error unable to get offset of remote file...(", protocol::FileWithoutOffsetLead);
    if (size < updateSize_) {
        message = protocol::UpdateTooLong(remoteFile_.View());
        return 0;
    }
    unsigned head = 0;
    unsigned body = 0;
    const SumResult result = SumUp(updateSize_, &headCheckSum_, head, body);
    if (result == SumResult::NotRead)
        return RefuseFile("Error unable to read from remote file...(", protocol::FileNotReadLead);
    if (result == SumResult::Done && body == bodyCheckSum_) {
        keyword = protocol::GetUpdateAnswer;
        message = protocol::UpdateActivated(updateSize_, size);
        return 0;
    }
    if (file_.Rewind() != 0)
        return RefuseFile("Error unable to set indicator position of remote file...(",
                          protocol::FileNotRewoundLead);
    message = result == SumResult::HeadDiffers ? protocol::UpdateHeadDiffers(remoteFile_.View())
                                               : protocol::UpdateBodyDiffers(remoteFile_.View());
    return 0;
}

int TransferConnection::SendFile()
{
    ProgressReport progress(GetStatusBoard(), protocol::SentLead);
    alignas(4096) static char block[OpenFile::BlockSize]; // whole pages are copied at less cost
    static char expanded[OpenFile::BlockSize];
    const std::size_t length = ascii_ != 0 ? sizeof expanded / 2 : sizeof block; // a CR before every byte
    long count;
    while ((count = file_.ReadSome(block, length)) > 0) {
        std::string_view bytes(block, static_cast<std::size_t>(count));
        if (ascii_ != 0)
            bytes = {expanded, LineEnds::Expand(bytes, expanded)};
        if (progress.Send(dataSocket_, bytes) != 0) {
            BaseString::PutTrace(dataSocket_.BaseSocketGetLastError(), 1);
            return 1;
        }
    }
    if (count < 0)
        TraceFileError("Error unable to read from remote file...(", strerror(errno));
    progress.Publish();
    return count < 0 ? 1 : 0;
}
