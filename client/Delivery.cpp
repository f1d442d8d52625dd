#include "client/Delivery.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/Output.h"
#include "protocol/Texts.h"
#include "support/Clock.h"

namespace
{
constexpr std::size_t BlockSize = 65536;
/** Host, port, number, user and date take far less. */
constexpr std::size_t LongestIdentifier = 1024;
constexpr std::size_t LongestName = 200;
/** Milliseconds; a server that has connected sends at once. */
constexpr long long LongestSilence = 30'000;
constexpr int MostNames = 1000;
constexpr std::string_view Begin = "HOST(";
constexpr std::string_view FileEnding = ".log";
/** Until a log is whole its file has this behind the name. */
constexpr std::string_view PartEnding = ".part";
constexpr const char* NoLog = "dropped what is no log";
} // namespace

std::string FileNameFor(std::string_view identifier)
{
    std::string name;
    for (const char byte : identifier.substr(0, LongestName)) {
        if (isalnum(static_cast<unsigned char>(byte)) != 0 || (byte == '.' && !name.empty()))
            name += byte;
        else if (!name.empty() && name.back() != '-')
            name += '-';
    }
    while (!name.empty() && name.back() == '-')
        name.pop_back();
    return name;
}

Delivery::Delivery(FileDescriptor socket)
    : socket_(std::move(socket)), arrivedAt_(Clock::SteadyMilliseconds())
{
    const int on = 1;
    setsockopt(socket_.Number(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

bool Delivery::IsSilent() const
{
    return Clock::SteadyMilliseconds() >= arrivedAt_ + LongestSilence;
}

std::string Delivery::GiveUp()
{
    return hasIdentifier_ ? Finish(true) : NoLog;
}

std::optional<std::string> Delivery::Receive()
{
    std::array<char, BlockSize> block;
    const ssize_t count = recv(socket_.Number(), block.data(), block.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return std::nullopt;
    arrivedAt_ = Clock::SteadyMilliseconds();
    std::string_view bytes(block.data(), static_cast<std::size_t>(count > 0 ? count : 0));
    std::string first;
    if (!hasIdentifier_) {
        identifier_.append(bytes);
        if (!TakeIdentifier()) {
            const bool isHopeless =
                count <= 0 || identifier_.size() > LongestIdentifier ||
                identifier_.substr(0, Begin.size()) != Begin.substr(0, identifier_.size());
            return isHopeless ? std::optional<std::string>(NoLog) : std::nullopt;
        }
        first = identifier_.substr(identifier_.find(")->") + 1);
        identifier_.resize(identifier_.size() - first.size());
        bytes = first;
        if (const std::string reason = Open(); !reason.empty())
            return reason;
    }
    std::string output;
    const bool isLog = log_.Feed(bytes, output);
    if (const int error = WriteAll(file_.Number(), output))
        return name_ + " cannot be written: " + strerror(error);
    return count <= 0 || !isLog ? std::optional(Finish(count < 0)) : std::nullopt;
}

/** The identifier has no end of its own: what follows begins with a lead. */
bool Delivery::TakeIdentifier()
{
    hasIdentifier_ = identifier_.starts_with(Begin) && identifier_.find(")->") != std::string::npos;
    return hasIdentifier_;
}

/** Makes the file; what failed, or nothing. Two logs never share one, and nothing there is touched. */
std::string Delivery::Open()
{
    for (int i = 1; i <= MostNames; ++i) {
        name_ = FileNameFor(identifier_) + (i > 1 ? "-" + std::to_string(i) : "") + std::string(FileEnding);
        if (access(name_.c_str(), F_OK) == 0)
            continue;
        file_ = FileDescriptor(open((name_ + std::string(PartEnding)).c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file_.IsOpen())
            return "";
        if (errno != EEXIST)
            break;
    }
    return name_ + " cannot be made: " + strerror(errno);
}

std::string Delivery::Finish(bool isBroken)
{
    std::string output;
    const StreamEnd end = log_.Finish(output);
    if (const int error = WriteAll(file_.Number(), output))
        return name_ + " cannot be written: " + strerror(error);
    const std::string part = name_ + std::string(PartEnding);
    if (isBroken || end.kind == StreamEnd::Cut || end.kind == StreamEnd::NoServer)
        return part + ": was cut before its end";
    // Not over a file that has come meanwhile.
    if (link(part.c_str(), name_.c_str()) != 0)
        return part + ": cannot be given its name: " + strerror(errno);
    unlink(part.c_str());
    const std::string code =
        end.kind == StreamEnd::Code ? std::to_string(end.code) : std::string(protocol::NoCode);
    return name_ + ": exit code " + code + (end.words.empty() ? "" : " (" + end.words + ")");
}
