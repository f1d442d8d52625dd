#include "protocol/ConnectionTexts.h"

#include <initializer_list>

namespace
{
std::string Concatenate(std::initializer_list<std::string_view> pieces)
{
    std::string text;
    for (std::string_view piece : pieces)
        text.append(piece);
    return text;
}
} // namespace

std::string protocol::CommandIdentifier(std::string_view host, int port, int number, std::string_view user,
                                        std::string_view beginDate)
{
    return Concatenate({"HOST(", host, "), PORT(", std::to_string(port), "), N(", std::to_string(number),
                        "), UID(", user, "), BDATE(", beginDate, ")"});
}

std::string protocol::CommandAttributes(int number, unsigned long processId, std::string_view user,
                                        std::string_view beginDate, std::string_view command)
{
    return Concatenate({"N(", std::to_string(number), "), PID(", std::to_string(processId), "), UID(", user,
                        "), BDATE(", beginDate, "), CMD(", command, ")"});
}

std::string protocol::TransferAttributes(const TransferDescription& transfer)
{
    return Concatenate(
        {"N(", std::to_string(transfer.number), "), UID(", transfer.user, "), BDATE(", transfer.beginDate,
         "), LTO(", std::to_string(transfer.lifeTimeOut), "), CMD(",
         transfer.isGet ? "TRANSFER GET" : "TRANSFER PUT", "), MODE(", transfer.isAscii ? "ASCII" : "BINARY",
         "), TYPE(", transfer.isPassive ? "PASSIVE" : "ACTIVE", "), REMOTE FILE(", transfer.remoteFile, ")"});
}

std::string protocol::ReturnCodeAttribute(int code)
{
    return Concatenate({", RC(", std::to_string(code), ")"});
}

std::string protocol::StatusAttribute(std::string_view status)
{
    return Concatenate({", STATUS(", status, ")"});
}

std::string protocol::IntegrityProgress(long long bytesDone, long long bytesInAll)
{
    return Concatenate(
        {"integrity ", std::to_string(bytesDone), "/", std::to_string(bytesInAll), " byte(s)"});
}
