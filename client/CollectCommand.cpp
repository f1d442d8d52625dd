#include "client/CollectCommand.h"

#include <cerrno>
#include <list>
#include <optional>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "client/Delivery.h"
#include "client/Output.h"
#include "client/SubcommandParser.h"
#include "client/Terminal.h"
#include "support/BaseSocket.h"

namespace
{
/** Where so many are under way, those that are silent make room. */
constexpr std::size_t MostDeliveries = 256;
/** Then they are looked at this often: milliseconds. */
constexpr int MakesRoomEvery = 1'000;
constexpr int Backlog = 64;

/** Takes logs until a failure. */
int Collect(BaseSocket& listening)
{
    std::list<Delivery> deliveries;
    while (true) {
        const bool hasRoom = deliveries.size() < MostDeliveries;
        std::vector<pollfd> polled = {{hasRoom ? listening.GetBaseSocketNumber() : -1, POLLIN, 0}};
        for (const Delivery& one : deliveries)
            polled.push_back({one.Descriptor(), POLLIN, 0});
        if (poll(polled.data(), polled.size(), hasRoom ? -1 : MakesRoomEvery) < 0 && errno != EINTR)
            return Report(SystemFailure("cannot wait for logs", errno));
        std::size_t at = 0;
        for (auto one = deliveries.begin(); one != deliveries.end();) {
            std::optional<std::string> result;
            if (polled[++at].revents != 0)
                result = one->Receive();
            else if (!hasRoom && one->IsSilent())
                result = one->GiveUp();
            if (result)
                if (const int error = WriteToStandardOutput(Terminal::MakePrintable(*result) + "\n"))
                    return Report(SystemFailure("the list of logs cannot be written", error));
            one = result ? deliveries.erase(one) : std::next(one);
        }
        BaseSocket socket;
        sockaddr_in peer = {};
        if (polled[0].revents != 0 &&
            listening.AcceptConnectionFromClientWithTimeOut(socket, peer, 0, 0) == 0) {
            deliveries.emplace_back(FileDescriptor(socket.GetBaseSocketNumber()));
            socket.Reset();
        }
    }
}
} // namespace

int RunCollect(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(
        self, "[FOLDER]",
        "Takes the logs of submit --detach: a file for each in FOLDER (the current one), and a\n"
        "line on standard output that tells its name and the command's exit code. Runs until it\n"
        "is stopped; a server tries for a while to deliver what finds nobody.",
        SubcommandParser::Asks::Nobody);
    parser.TakeOptionsAnywhere();
    int port = DefaultCollectorPort;
    parser.Options()
        .add_option("-p,--port", port,
                    "Port to listen on (" + std::to_string(DefaultCollectorPort) + "), 0 for any")
        ->type_name("PORT")
        ->check(CLI::Range(0, BaseSocket::HighestPort));
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (parser.Words().size() > 1)
        return Complain("collect takes one folder");
    if (!parser.Words().empty() && chdir(parser.Words().front().c_str()) != 0)
        return Report(SystemFailure(parser.Words().front() + " cannot be entered", errno));
    BaseSocket listening;
    if (listening.OpenServerSocket(port, Backlog) != 0)
        return Report("cannot listen on port " + std::to_string(port) + ": " +
                      std::string(listening.BaseSocketGetLastError().View()));
    Say("waiting for logs on port " + std::to_string(port));
    return Collect(listening);
}
