#include "tests/system/TransferClient.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace
{
constexpr size_t HeadSize = 16384;

/** Size, check sum of the first block and of all, each behind a separator. */
std::string Describe(std::string_view content)
{
    return "|" + std::to_string(content.size()) + "|" +
           std::to_string(CheckSumOf(content.substr(0, HeadSize))) + "|" +
           std::to_string(CheckSumOf(content));
}

std::string RequestFor(const TransferOrder& order, int port)
{
    std::string request =
        Join({Newest, order.user, order.password, order.keyword, order.mode, order.file, order.lifeTimeOut});
    if (order.keyword == "TRANSFERUPDATEGET")
        request += Describe(order.partialCopy);
    if (order.passive)
        request += "|127.0.0.1|" + std::to_string(port);
    return request;
}
} // namespace

TransferClient::TransferClient(DaemonUnderTest& daemon, const TransferOrder& order)
    : control_(daemon.Connect())
{
    if (order.passive)
        collector_.emplace(data_);
    control_.Send(RequestFor(order, collector_ ? collector_->Port() : 0));
}

Client TransferClient::OpenData(std::string_view keyword)
{
    EXPECT_EQ(control_.ReadUntil("|"), std::string(keyword) + "|");
    const std::string port = control_.ReadUntil("|");
    if (!collector_)
        return Client(std::stoi(port), data_);
    EXPECT_EQ(port, "0|");
    return collector_->Accept();
}

std::optional<Client> TransferClient::TryToOpenData(std::string_view keyword, std::string& said)
{
    if (said.empty())
        said = control_.ReadUntilOrEnd("|");
    if (said != std::string(keyword) + "|")
        return std::nullopt;
    const std::string port = control_.ReadUntilOrEnd("|");
    said += port + control_.ReadUntilOrEnd(BannerLine);
    if (!said.ends_with(BannerLine))
        return std::nullopt;
    if (collector_) {
        WaitUntil([this] { return collector_->HasArrived() || control_.HasArrived(); });
        return collector_->HasArrived() ? std::optional<Client>(collector_->Accept()) : std::nullopt;
    }
    try {
        return Client(std::stoi(port), data_);
    } catch (const std::runtime_error&) { // the worker has gone, and its port with it
        return std::nullopt;
    }
}

void TransferClient::ReplyToOffer(const std::string& expectedOffer, std::string_view reply)
{
    EXPECT_EQ(control_.ReadExactly(expectedOffer.size()), expectedOffer);
    control_.Send(reply);
}

std::string TransferClient::Get(std::string& bytes, std::string_view keyword)
{
    Client data = OpenData(keyword);
    bytes = data.ReadToEnd();
    return Finish();
}

std::string TransferClient::Put(std::string_view bytes)
{
    {
        Client data = OpenData("READ");
        data.Send(bytes);
    }
    return Finish();
}

std::string Transferred(int code, std::string_view message)
{
    return BannerLine + std::string(message) + ReturnLine(code);
}

std::string MakeContent(size_t size)
{
    std::string content(size, '\0');
    unsigned state = 7;
    for (char& byte : content)
        byte = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
    return content;
}

unsigned CheckSumOf(std::string_view bytes)
{
    unsigned sum = ~0U;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            sum = sum >> 1 ^ (sum & 1 ? 0xEDB88320U : 0U);
    }
    return ~sum;
}

std::string OfferOf(std::string_view content)
{
    return "READINFO" + Describe(content);
}
