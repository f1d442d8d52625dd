#include "protocol/TransferTexts.h"

#include "protocol/Concatenate.h"
#include "protocol/Texts.h"

namespace protocol
{

namespace
{
constexpr std::string_view UpdateDesactivated = "->Warning update mode desactivated\n";
} // namespace

std::string TransferAttributes(const TransferDescription& transfer)
{
    std::string line = Concatenate({"N(", std::to_string(transfer.number), "), UID(", transfer.user,
                                    "), BDATE(", transfer.beginDate, "), LTO("});
    line += std::to_string(transfer.lifeTimeOut);
    line += Concatenate({"), CMD(", transfer.isGet ? "TRANSFER GET" : "TRANSFER PUT"});
    line += Concatenate({"), MODE(", transfer.isAscii ? "ASCII" : "BINARY"});
    line += Concatenate({"), TYPE(", transfer.isPassive ? "PASSIVE" : "ACTIVE"});
    return line += Concatenate({"), REMOTE FILE(", transfer.remoteFile, ")"});
}

std::string IntegrityProgress(long long bytesDone, long long bytesInAll)
{
    return Concatenate(
        {"integrity ", std::to_string(bytesDone), "/", std::to_string(bytesInAll), " byte(s)"});
}

std::string TransferAnswer(std::string_view keyword, int dataPort, std::string_view message)
{
    return Concatenate({keyword, Separator, std::to_string(dataPort), Separator, BannerLine, message});
}

std::string TransferRefusal(std::string_view keyword, std::string_view lead, std::string_view reason)
{
    return Concatenate({keyword, Separator, LineLead, Banner, lead, reason, "\n"});
}

std::string FileRefusal(std::string_view keyword, std::string_view lead, std::string_view file,
                        std::string_view reason)
{
    return TransferRefusal(keyword, lead, Concatenate({file, ") : ", reason}));
}

std::string UpdateOffer(long long size, unsigned headCheckSum, unsigned bodyCheckSum)
{
    return Concatenate({PutOffer, Separator, std::to_string(size), Separator, std::to_string(headCheckSum),
                        Separator, std::to_string(bodyCheckSum)});
}

std::string UpdateDropped(std::string_view lead, std::string_view file, std::string_view reason)
{
    return Concatenate({lead, file, ") : ", reason, "\n", UpdateDesactivated});
}

std::string UpdateTooLong(std::string_view file)
{
    return Concatenate({"->Warning inconsistant size of remote file...(", file, ") : smaller than expected\n",
                        UpdateDesactivated});
}

std::string UpdateHeadDiffers(std::string_view file)
{
    return Concatenate(
        {"->Warning bad head integrity (CRC) of remote file...(", file, ")\n", UpdateDesactivated});
}

std::string UpdateBodyDiffers(std::string_view file)
{
    // No bracket opens before the file's name: required.
    return Concatenate(
        {"->Warning bad body integrity (CRC) of remote file...", file, ")\n", UpdateDesactivated});
}

std::string UpdateActivated(long long updateSize, long long fileSize)
{
    return Concatenate({"->Update mode activated, skipping first ", std::to_string(updateSize), "/",
                        std::to_string(fileSize), fileSize < 1 ? " byte\n" : " byte(s)\n"});
}

} // namespace protocol
