#include "connections/ProgressReport.h"

#include "connections/WriterReader.h"
#include "support/Clock.h"

namespace
{
// Composing a statement costs more than moving a block; nobody lists the daemon's work more often.
constexpr long long UpdateMilliseconds = 100;
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

void ProgressReport::Update(const long long& bytes)
{
    if (board_ != nullptr && pace_.IsDue())
        Publish(bytes);
}

void ProgressReport::Finish(const long long& bytes)
{
    if (board_ != nullptr)
        Publish(bytes);
}

void ProgressReport::Publish(const long long& bytes)
{
    ConnectionPerfo progress = total_;
    progress.EndOfCount();
    QORUnicodeString text(lead_);
    progress.GetConnectCountString(bytes, text, 0);
    board_->Write(text);
}
