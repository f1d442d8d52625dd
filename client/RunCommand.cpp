#include "client/RunCommand.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <poll.h>
#include <unistd.h>

#include "client/ClientVersion.h"
#include "client/ShellWords.h"
#include "client/StreamFilter.h"
#include "protocol/RequestText.h"
#include "protocol/Texts.h"
#include "support/BaseSocket.h"
#include "support/WaitForDescriptor.h"

namespace
{
constexpr int ConnectTimeOut = 15;
/** A command may be silent for as long as it likes. */
constexpr int NoTimeOut = INT_MAX;
constexpr std::size_t BlockSize = 65536;
/** As timeout(1) has it. */
constexpr int ExpiredCode = 124;
constexpr int HighestExitCode = 255;

std::string NameOf(const ServerAddress& server)
{
    return server.host + ":" + std::to_string(server.port);
}

std::string ErrorOf(const BaseSocket& socket)
{
    return std::string(socket.BaseSocketGetLastError().View());
}

/** Makes the request's text: the empty text, or why it cannot be sent. */
std::string BuildRequest(const RunOptions& options, std::string& request)
{
    const std::string command = JoinShellWords(options.words);
    for (const auto& [name, value] :
         {std::pair("command", &command), std::pair("user", &options.server.user)})
        if (value->find(protocol::Separator) != std::string::npos)
            return std::string("the ") + name + " holds a \"" + protocol::Separator +
                   "\", which stands between the fields of a request and cannot be sent in one";

    const std::string password;
    const std::string lifeTimeOut = std::to_string(options.lifeTimeOut);
    request = ClientVersion;
    for (const std::string_view field :
         {std::string_view(options.server.user), std::string_view(password), std::string_view(command),
          std::string_view("SOCKET"), std::string_view("NOWINDOW"), std::string_view(lifeTimeOut)})
        request.append(protocol::Separator).append(field);
    // A request that may arrive in pieces says where it ends.
    if (request.size() >= protocol::RequestText::SmallestSegment)
        request += '\n';
    if (request.size() > protocol::RequestText::Limit)
        return "the command is longer than a request may be";
    return "";
}

/** Writes everything to standard output, also to one that does not block: 0 or the error. */
int Print(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (errno == EAGAIN)
            WaitForDescriptor(STDOUT_FILENO, POLLOUT, DeadlineIn(NoTimeOut));
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

/** The answer's last word: what it means for our own exit code, said on standard error where it matters. */
int Conclude(const StreamEnd& end, const ServerAddress& server)
{
    switch (end.kind) {
    case StreamEnd::Code:
        if (!end.words.empty())
            ReportFailure(end.words);
        if (end.isExpired)
            return ExpiredCode;
        if (end.code < 0 || end.code > HighestExitCode)
            return ReportFailure("the server lost the command's exit code (" + std::to_string(end.code) +
                                 ")");
        // Output that the server cut short is no success, whatever the command made of its signal.
        return end.code == 0 && !end.words.empty() ? ClientFailure : end.code;
    case StreamEnd::NoCode:
        return ReportFailure(end.words.empty() ? "the server tells no exit code" : end.words);
    case StreamEnd::Refused:
        return ReportFailure("refused by " + NameOf(server) + ": " + end.words);
    case StreamEnd::NoServer:
        return ReportFailure("what answers at " + NameOf(server) + " is no RuvelServer");
    case StreamEnd::Cut:
        break;
    }
    return ReportFailure("the connection to " + NameOf(server) + " was cut before the command's end");
}

/** Passes the answer on until its end. */
int ReceiveAnswer(BaseSocket& socket, const ServerAddress& server)
{
    std::array<char, BlockSize> block;
    char* start = block.data();
    StreamFilter filter;
    std::string output;
    int count;
    bool isServer = true;
    while (isServer &&
           (count = socket.ReadBinaryFileFromBaseSocketNonBlocking(&start, BlockSize, NoTimeOut)) > 0) {
        isServer = filter.Feed(std::string_view(start, static_cast<std::size_t>(count)), output);
        if (const int error = Print(output))
            return ReportFailure(std::string("the output cannot be written: ") + strerror(error));
        output.clear();
    }
    const StreamEnd end = filter.Finish(output);
    if (const int error = Print(output))
        return ReportFailure(std::string("the output cannot be written: ") + strerror(error));
    if (count < 0)
        return ReportFailure("the connection to " + NameOf(server) + " broke: " + ErrorOf(socket));
    return Conclude(end, server);
}
} // namespace

int RunCommand(const RunOptions& options)
{
    const ServerAddress& server = options.server;
    std::string request;
    if (const std::string reason = BuildRequest(options, request); !reason.empty())
        return ReportFailure(reason);
    BaseSocket socket;
    if (socket.OpenConnectionToServerNonBlocking(server.host, server.port, ConnectTimeOut, nullptr) != 0)
        return ReportFailure("no server at " + NameOf(server) + ": " + ErrorOf(socket));
    if (socket.WriteToBaseSocket(request) != 0)
        return ReportFailure("the request cannot be sent to " + NameOf(server) + ": " + ErrorOf(socket));
    socket.ShutdownSending();
    return ReceiveAnswer(socket, server);
}
