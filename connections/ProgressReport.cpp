#include "connections/ProgressReport.h"

#include "connections/WriterReader.h"
#include "support/Clock.h"

namespace
{
// Composing a statement costs more than moving a block; nobody lists the daemon's work more often.
constexpr int UpdateMilliseconds = 100;
// While its client takes little, what is sent at a time.
constexpr std::size_t PieceInWait = 16384;
} // namespace

bool UpdatePace::IsDue()
{
    const long long now = Clock::SteadyMilliseconds();
    if (now < next_)
        return false;
    next_ = now + UpdateMilliseconds;
    return true;
}

ProgressReport::ProgressReport(WriterReader* board, std::string_view lead) : board_(board), lead_(lead)
{
    total_.StartOfCount();
}

int ProgressReport::Send(BaseSocket& socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        long sent = socket.SendAvailable(bytes);
        if (sent == BaseSocket::Broken)
            return -1;
        if (sent == BaseSocket::NothingYet) {
            if (isBehind_ && !socket.CanSendWithin(UpdateMilliseconds))
                Publish();
            const std::string_view piece = bytes.substr(0, PieceInWait);
            if (socket.WriteBinaryFileToBaseSocket(piece.data(), static_cast<int>(piece.size())) != 0)
                return -1;
            sent = static_cast<long>(piece.size());
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
        Count(sent);
    }
    return 0;
}

int ProgressReport::Receive(BaseSocket& socket, char* block, const int& length, const int& timeoutSeconds)
{
    long count = socket.ReceiveAvailable(block, static_cast<std::size_t>(length));
    if (count == BaseSocket::NothingYet) {
        if (isBehind_ && !socket.CanReceiveWithin(UpdateMilliseconds))
            Publish();
        count = socket.ReadBinaryFileFromBaseSocketNonBlocking(&block, length, timeoutSeconds);
    }
    if (count > 0)
        Count(count);
    return count < 0 ? -1 : static_cast<int>(count);
}

void ProgressReport::Count(long bytes)
{
    bytes_ += bytes;
    isBehind_ = true;
    if (pace_.IsDue())
        Publish();
}

void ProgressReport::Publish()
{
    isBehind_ = false;
    if (board_ == nullptr)
        return;
    ConnectionPerfo progress = total_;
    progress.EndOfCount();
    QORUnicodeString text(lead_);
    progress.GetConnectCountString(bytes_, text, 0);
    board_->Write(text);
}
