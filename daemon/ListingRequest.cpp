#include <algorithm>

#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"

namespace
{

/** The time that one listing may spend on all status boards together. */
constexpr long long BoardBudgetMicroseconds = 2000;
/** Reports that may be in the making at once: a hung mount holds each of them up for as long as it hangs. */
constexpr std::size_t MostReports = 16;
/** With those that have been given up, but have not ended yet. */
constexpr std::size_t MostReportWorkers = 2 * MostReports;

void AppendCount(std::string& listing, int count, std::string_view text)
{
    listing.append(protocol::FoundLead).append(std::to_string(count)).append(text).append("\n");
}

} // namespace

/** Everything alive, a line each, in the order of the lists. */
std::string RuvelServer::ListActiveWork()
{
    std::string listing(protocol::BannerLine);
    listing.append(protocol::LineLead)
        .append(std::to_string(connectionCount_))
        .append(protocol::LaunchedSinceBeginning)
        .append("\n");
    const QORUnicodeString lead(protocol::LineLead);
    QORUnicodeString line;
    long long budget = BoardBudgetMicroseconds;
    AppendCount(listing, logs_.Size(), protocol::ActiveLogTransfers);
    for (int i = 1; i <= logs_.Size(); ++i) {
        logs_[i]->GetAttributes(lead, line, budget);
        listing.append(line.View()).append("\n");
    }
    AppendCount(listing, commands_.Size(), protocol::ActiveCommands);
    for (int i = 1; i <= commands_.Size(); ++i) {
        commands_[i]->GetAttributes(lead, line);
        listing.append(line.View()).append("\n");
    }
    AppendCount(listing, transfers_.Size(), protocol::ActiveTransfers);
    for (int i = 1; i <= transfers_.Size(); ++i) {
        transfers_[i]->GetAttributes(lead, line, budget);
        listing.append(line.View()).append("\n");
    }
    return listing;
}

void RuvelServer::ServeInfo(WaitingClient& client)
{
    Answer(client, ListActiveWork());
}

/** The listing, then what a worker finds out about the machine: statistics of a hung mount take for ever. */
void RuvelServer::ServeAllInfo(WaitingClient& client)
{
    auto report = std::make_unique<ReportConnection>(QORUnicodeString(ListActiveWork()), readTimeOut_);
    TakeSocket(client, *report);
    QORListPtrBaseSocket sockets = ListSocketsForWorker();
    reports_.reserve(MostReportWorkers); // a worker that runs must not be lost
    if (MakeRoomForReport() && report->StartThreadOrProcess(sockets) == 0) {
        reports_.push_back(std::move(report));
        return;
    }
    WriteToBaseConnectionSocket(report.get(),
                                QORUnicodeString(ListActiveWork().append(protocol::ReportNotStarted)), 0);
    Dismiss(*report);
}

/** Where all places are taken the oldest report, if it is overdue, gives up its own. */
bool RuvelServer::MakeRoomForReport()
{
    if (reports_.size() >= MostReportWorkers)
        return false;
    const auto isInTheMaking = [](const auto& report) { return !report->IsGivenUp(); };
    if (std::count_if(reports_.begin(), reports_.end(), isInTheMaking) < std::ptrdiff_t{MostReports})
        return true;
    ReportConnection& oldest = **std::find_if(reports_.begin(), reports_.end(), isInTheMaking);
    if (!oldest.IsOverdue())
        return false;
    oldest.GiveUp();
    return true;
}

/** A command is running for its client until its log has been delivered. */
void RuvelServer::ServeState(WaitingClient& client)
{
    const QORUnicodeString identifier(client.fields[3]);
    bool running = false;
    for (int i = 1; i <= commands_.Size() && !running; ++i)
        running = commands_[i]->GetIdentifier() == identifier;
    for (int i = 1; i <= logs_.Size() && !running; ++i)
        running = logs_[i]->GetIdentifier() == identifier;
    Answer(client, std::string(running ? protocol::Running : protocol::NotFound));
}
