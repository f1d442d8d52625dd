#include "client/ListCommand.h"

#include <cstdio>

#include <unistd.h>

#include "client/Listing.h"
#include "client/ListingText.h"
#include "client/Output.h"
#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "client/SubcommandParser.h"
#include "client/Terminal.h"

namespace
{
constexpr unsigned SecondsBetween = 1;
// What a terminal is told to show a listing in place of the one before.
constexpr std::string_view ClearScreen = "\x1b[2J";
constexpr std::string_view GoHome = "\x1b[H";
constexpr std::string_view ClearLineEnd = "\x1b[K";
constexpr std::string_view ClearBelow = "\x1b[J";

Failure Fetch(const Server& server, bool isAll, Listing& listing)
{
    std::string request;
    std::string answer;
    if (Failure failure = BuildRequest(server, {{isAll ? "ALLINFO" : "INFO"}}, request))
        return failure;
    if (Failure failure = AskServer(server, request, answer, LongestListing))
        return failure;
    if (std::optional<Listing> parsed = ParseListing(answer)) {
        listing = std::move(*parsed);
        return {};
    }
    std::string_view rest = answer;
    if (rest.starts_with("->RuvelServer "))
        if (Failure failure = TakeBanner(server, rest))
            return failure;
    if (!rest.starts_with("->"))
        return NoServerThere(server);
    return ExplainRefusal(server, rest.substr(0, rest.find('\n')));
}

std::string JoinLines(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text.append(line).append("\n");
    return text;
}

/** The listing as one screen; what does not fit is left out below. */
std::string MakeScreen(const std::vector<std::string>& lines, const Server& server)
{
    const int room = Terminal::LinesOf(STDOUT_FILENO) - 3;
    std::string screen(GoHome);
    screen.append(server.Name()).append(ClearLineEnd).append("\n").append(ClearLineEnd).append("\n");
    for (int i = 0; i < std::min(room, static_cast<int>(lines.size())); ++i)
        screen.append(lines[static_cast<std::size_t>(i)]).append(ClearLineEnd).append("\n");
    return screen.append(ClearBelow);
}

/** Until a failure, or until the user has seen enough. */
int Watch(const Server& server, bool isAll)
{
    WriteToStandardOutput(ClearScreen);
    while (true) {
        Listing listing;
        if (const Failure failure = Fetch(server, isAll, listing))
            return Report(failure);
        const int columns = Terminal::ColumnsOf(STDOUT_FILENO);
        if (const int error = WriteToStandardOutput(MakeScreen(FormatListing(listing, columns), server)))
            return Report(SystemFailure("the listing cannot be written", error));
        sleep(SecondsBetween);
    }
}

std::string Format(const Listing& listing, bool isJson)
{
    if (isJson)
        return FormatListingAsJson(listing) + "\n";
    const bool isCut = Terminal::IsCapable(STDOUT_FILENO);
    return JoinLines(FormatListing(listing, isCut ? Terminal::ColumnsOf(STDOUT_FILENO) : 0));
}
} // namespace

int RunList(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(self, "", "Commands are shown as they were given to RuvelControl.");
    parser.TakeOptionsAnywhere();
    bool isAll = false;
    bool isJson = false;
    bool isWatching = false;
    parser.Options().add_flag("-a,--all", isAll, "With what the server tells about its machine");
    parser.Options().add_flag("--json", isJson, "For programs: one JSON object");
    parser.Options().add_flag("-w,--watch", isWatching, "Again every second, in place");
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (!parser.Words().empty())
        return Complain("list takes no words: " + parser.Words().front());
    if (isWatching && (isJson || !Terminal::IsCapable(STDOUT_FILENO)))
        return Complain("--watch needs a terminal and goes without --json");
    Server server;
    if (const Failure failure = FindServer(parser.WhoAndWhere(), server))
        return Report(failure);
    if (isWatching)
        return Watch(server, isAll);
    Listing listing;
    if (const Failure failure = Fetch(server, isAll, listing))
        return Report(failure);
    if (const int error = WriteToStandardOutput(Format(listing, isJson)))
        return Report(SystemFailure("the listing cannot be written", error));
    return 0;
}
