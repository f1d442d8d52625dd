#include "client/TransferExchange.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include "client/ServerRefusal.h"
#include "client/ServerRequest.h"
#include "protocol/Texts.h"
#include "protocol/TransferTexts.h"
#include "support/Clock.h"

namespace
{
/** Any word but the two replies declines. */
constexpr std::string_view DeclineWord = "DECLINE";
/** Behind a proxy the digits that end an offer may come in two pieces. */
constexpr int OfferSilence = 50; // milliseconds
constexpr int OfferItems = 4;
/** Once the data connection has ended the server's word on it is on its way: milliseconds. */
constexpr long long PatienceWithEnd = 30'000;

std::vector<std::string_view> SplitItems(std::string_view text, std::size_t mostItems)
{
    std::vector<std::string_view> items;
    while (items.size() + 1 < mostItems) {
        const std::size_t at = text.find(protocol::Separator);
        if (at == std::string_view::npos)
            break;
        items.push_back(text.substr(0, at));
        text.remove_prefix(at + 1);
    }
    items.push_back(text);
    return items;
}

template <class Number>
bool ReadNumber(std::string_view text, Number& number)
{
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}

/** The size in "skipping first 10/20 byte(s)". */
bool ReadSizeInAll(std::string_view message, long long& size)
{
    const std::size_t slash = message.find('/');
    if (slash == std::string_view::npos)
        return false;
    const char* const begin = message.data() + slash + 1;
    return std::from_chars(begin, message.data() + message.size(), size).ec == std::errc();
}

/** The first line that tells an error; empty when there is none. */
std::string_view FindErrorLine(std::string_view text)
{
    for (const std::string_view lead :
         {"->Error ", "->Bad version ", "->File transfer ", "->RuvelServer shutdown"}) {
        const std::size_t at = text.find(lead);
        if (at != std::string_view::npos)
            return text.substr(at, text.find('\n', at) - at);
    }
    return {};
}
} // namespace

Failure TransferExchange::Begin(const TransferRequest& request, TransferAnswer& answer)
{
    isPassive_ = request.isPassive;
    if (isPassive_ && !server_.proxy.empty())
        return {"the server cannot connect to this machine through a proxy: leave out --passive"};
    if (!server_.proxy.empty() && server_.proxy.find("%p") == std::string::npos)
        return {
            "a transfer has a second connection, to another port: a --proxy without %p cannot lead there"};
    if (Failure failure = control_.Connect(server_))
        return failure;
    if (Failure failure = SendRequest(request))
        return failure;
    return ReceiveAnswer(answer);
}

Failure TransferExchange::Reply(bool wantsRest, TransferAnswer& answer)
{
    if (Failure failure = control_.Send(wantsRest ? protocol::ReplyRest : protocol::ReplyAll))
        return failure;
    return ReceiveAnswer(answer);
}

/** Waits for the end, so that the file is no more in use when this returns. */
Failure TransferExchange::Decline()
{
    if (Failure failure = control_.Send(DeclineWord))
        return failure;
    while (!isAtEnd_)
        if (Failure failure = ReceiveMore())
            return failure;
    return {};
}

Failure TransferExchange::OpenData(ServerConnection& data)
{
    if (isPassive_)
        return AcceptData(data);
    Failure failure = data.Connect(server_, server_.host, dataPort_);
    // The server is there: it is the way to another port that is missing.
    if (failure && server_.proxy.empty())
        return {"no data connection to port " + std::to_string(dataPort_) + " of " + server_.host +
                ": a firewall may be in the way, try the other direction (--passive)"};
    return failure;
}

Failure TransferExchange::Conclude(const ServerConnection& data)
{
    if (Failure failure = ReceiveEnd(data))
        return failure;
    const std::size_t lead = arrived_.rfind(protocol::ReturnCodeLead);
    if (lead == std::string::npos)
        return {"the connection to " + server_.Name() + " was cut before the end of the transfer; try again"};
    if (std::string_view(arrived_).substr(lead) == protocol::ReturnCodeLine(0))
        return {};
    if (const std::string_view line = FindErrorLine(arrived_); !line.empty())
        return ExplainRefusal(server_, line);
    return {server_.Name() +
                " could not move the whole file: its trace says why (a full disk, a lost connection)",
            arrived_.substr(lead + protocol::LineLead.size(), arrived_.size() - lead - 3)};
}

/** Where a proxy lost the data connection the server still waits for it, and would do so for long. */
Failure TransferExchange::ReceiveEnd(const ServerConnection& data)
{
    long long givesUpAt = data.IsOpen() ? 0 : Clock::SteadyMilliseconds() + PatienceWithEnd;
    while (!isAtEnd_) {
        std::array<pollfd, 2> ready = {
            {{control_.Descriptor(), POLLIN, 0}, {givesUpAt == 0 ? data.Descriptor() : -1, POLLIN, 0}}};
        const long long left =
            givesUpAt != 0 ? givesUpAt - Clock::SteadyMilliseconds() : ServerConnection::WatchInterval;
        if (left <= 0)
            return {"the data connection has ended, and " + server_.Name() +
                    " does not say that the transfer has; check what stands between"};
        if (poll(ready.data(), ready.size(), static_cast<int>(left)) < 0)
            continue;
        if (givesUpAt == 0)
            data.WatchPeer();
        if (ready[0].revents != 0) {
            if (Failure failure = ReceiveMore())
                return failure;
        } else if (ready[1].revents != 0) {
            givesUpAt = Clock::SteadyMilliseconds() + PatienceWithEnd;
        }
    }
    return {};
}

/** Opens a port for the server to connect to, and finds the address under which it sees this machine. */
Failure TransferExchange::Listen(std::string& host, int& port)
{
    if (Failure failure = control_.FindOwnAddress(host))
        return failure;
    if (listening_.OpenServerSocket(port, 1) != 0)
        return {"cannot open a port for the server to connect to: " +
                std::string(listening_.BaseSocketGetLastError().View())};
    return {};
}

Failure TransferExchange::SendRequest(const TransferRequest& request)
{
    std::string host;
    int port = 0;
    if (isPassive_)
        if (Failure failure = Listen(host, port))
            return failure;
    const std::string keyword =
        std::string(request.isUpdate ? "TRANSFERUPDATE" : "TRANSFER") + (request.isGet ? "GET" : "PUT");
    std::vector<std::string> numbers = {std::to_string(request.lifeTimeOut)};
    if (request.isGet && request.isUpdate)
        for (const long long number : {request.own.size, static_cast<long long>(request.own.headCheckSum),
                                       static_cast<long long>(request.own.bodyCheckSum)})
            numbers.push_back(std::to_string(number));
    if (isPassive_) {
        numbers.push_back(host);
        numbers.push_back(std::to_string(port));
    }
    std::vector<RequestField> fields = {
        {keyword}, {request.isAscii ? "ASCII" : "BINARY"}, {request.file, "name of the file at the server"}};
    for (const std::string& number : numbers)
        fields.push_back({number});
    std::string text;
    if (Failure failure = BuildRequest(server_, fields, text))
        return failure;
    return control_.Send(text);
}

Failure TransferExchange::ReceiveMore()
{
    return control_.Receive(arrived_, isAtEnd_, ServerConnection::LongestAnswer);
}

Failure TransferExchange::ReceiveAnswer(TransferAnswer& answer)
{
    while (!ReadAnswer(answer)) {
        if (isAtEnd_)
            return ReadRefusal();
        if (Failure failure = ReceiveMore())
            return failure;
    }
    // A short transfer into a connection of the server's own may be over by now: its end came along.
    arrived_.erase(0, arrived_.find(protocol::ReturnCodeLead));
    return {};
}

/** False while the answer is not complete, and for what is no answer: then the end of the stream decides. */
bool TransferExchange::ReadAnswer(TransferAnswer& answer)
{
    const std::vector<std::string_view> items = SplitItems(arrived_, OfferItems);
    if (items.front() == protocol::PutOffer && items.size() == OfferItems) {
        pollfd more = {control_.Descriptor(), POLLIN, 0};
        if (!server_.proxy.empty() && !isAtEnd_ && poll(&more, 1, OfferSilence) > 0)
            return false;
        answer.kind = TransferAnswer::Offer;
        return ReadNumber(items[1], answer.offered.size) &&
               ReadNumber(items[2], answer.offered.headCheckSum) &&
               ReadNumber(items[3], answer.offered.bodyCheckSum);
    }
    const bool isRest = items.front() == protocol::GetUpdateAnswer;
    if (!isRest && items.front() != protocol::GetAnswer && items.front() != protocol::PutAnswer)
        return false;
    if (items.size() < 3 || !arrived_.ends_with('\n') || !ReadNumber(items[1], dataPort_))
        return false;
    answer.kind = isRest ? TransferAnswer::Rest : TransferAnswer::All;
    const std::string_view message = std::string_view(arrived_).substr(arrived_.find('\n') + 1);
    return !isRest || ReadSizeInAll(message, answer.sizeInAll);
}

Failure TransferExchange::ReadRefusal()
{
    if (const std::string_view line = FindErrorLine(arrived_); !line.empty())
        return ExplainRefusal(server_, line);
    if (arrived_.find(protocol::Banner) != std::string::npos || arrived_.starts_with(protocol::LineLead))
        return {"the connection to " + server_.Name() + " was cut before the transfer began; try again"};
    if (arrived_.empty())
        return {
            "the connection to " + server_.Name() +
            " was closed without an answer; the server may be ending, or something else may listen there"};
    return NoServerThere(server_);
}

/** The server said something instead of connecting. */
Failure TransferExchange::ReceiveEarlyEnd()
{
    if (Failure failure = Conclude({}))
        return failure;
    return {"the transfer ended before the server had connected; try again without --passive"};
}

/** Takes the connection that comes from the server's address, and gives up when the transfer ends. */
Failure TransferExchange::AcceptData(ServerConnection& data)
{
    sockaddr_in expected = {};
    socklen_t length = sizeof expected;
    getpeername(control_.Descriptor(), reinterpret_cast<sockaddr*>(&expected), &length);
    while (true) {
        std::array<pollfd, 2> ready = {
            {{listening_.GetBaseSocketNumber(), POLLIN, 0}, {control_.Descriptor(), POLLIN, 0}}};
        if (poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR)
            return SystemFailure("cannot wait for the server's connection", errno);
        if (ready[0].revents == 0 && ready[1].revents != 0)
            return ReceiveEarlyEnd();
        BaseSocket socket;
        sockaddr_in peer = {};
        if (ready[0].revents == 0 ||
            listening_.AcceptConnectionFromClientWithTimeOut(socket, peer, 0, 0) != 0)
            continue;
        // The port is open to everybody: a stranger's bytes must not become the file.
        if (peer.sin_addr.s_addr != expected.sin_addr.s_addr)
            continue;
        data.TakeOver(FileDescriptor(socket.GetBaseSocketNumber()), server_.Name());
        socket.Reset();
        listening_.CloseBaseSocket();
        return {};
    }
}
