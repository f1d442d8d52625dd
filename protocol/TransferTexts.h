#pragma once

#include <string>
#include <string_view>

/**
 * The texts of file transfers: what the worker of a put or get answers, warns and reports, and the line that
 * describes it in a listing. Clients parse them byte for byte: spellings such as "inconsistant" and
 * "desactivated", the blank behind "...( " in errors and the bracket that one warning lacks are part of the
 * protocol.
 */
namespace protocol
{
struct TransferDescription {
    int number;
    std::string_view user;
    std::string_view beginDate;
    long lifeTimeOut; // seconds
    bool isGet;
    bool isAscii;
    bool isPassive;
    std::string_view remoteFile;
};
/** The line in a listing, the prefix before it; the order of the keys is fixed. */
std::string TransferAttributes(const TransferDescription& transfer);
/** The status while the part of a file that both sides have is summed up. */
std::string IntegrityProgress(long long bytesDone, long long bytesInAll);

// First items of a worker's answers: what the client is to do with the data connection.
inline constexpr std::string_view GetAnswer = "WRITE";
inline constexpr std::string_view GetUpdateAnswer = "UPDATEWRITE";
inline constexpr std::string_view GetError = "WRITEERROR";
inline constexpr std::string_view PutAnswer = "READ";
inline constexpr std::string_view PutError = "READERROR";
/** Of the offer of an update put: what the daemon already has. */
inline constexpr std::string_view PutOffer = "READINFO";
// The client's replies to it: only the rest, or everything.
inline constexpr std::string_view ReplyRest = "UPDATEWRITE";
inline constexpr std::string_view ReplyAll = "WRITE";

/** A put or get that begins: the data port is 0 where the daemon connects; `message` may be empty. */
std::string TransferAnswer(std::string_view keyword, int dataPort, std::string_view message);
/** One that does not: lead and reason. */
std::string TransferRefusal(std::string_view keyword, std::string_view lead, std::string_view reason);
/** One that does not because of the file. */
std::string FileRefusal(std::string_view keyword, std::string_view lead, std::string_view file,
                        std::string_view reason);
std::string UpdateOffer(long long size, unsigned headCheckSum, unsigned bodyCheckSum);

// Leads of refusals.
inline constexpr std::string_view NotImpersonatedLead = "\n->Error unable to impersonate : ";
inline constexpr std::string_view NoDataConnectionLead = "\n->Error unable to create data connection : ";
inline constexpr std::string_view FileNotOpenedLead = "\n->Error unable to open remote file...( ";
inline constexpr std::string_view FileWithoutOffsetLead = "\n->Error unable to get remote file offset...( ";
inline constexpr std::string_view FileNotReadLead = "\n->Error unable to read from remote file...( ";
inline constexpr std::string_view FileNotRewoundLead =
    "\n->Error unable to set indicator position of remote file...( ";
inline constexpr std::string_view FileNotCreatedLead = "\n->Error unable to create remote file...( ";

// Messages of a put that was to be an update and will be whole; leads, and the message made of one.
inline constexpr std::string_view WarnNotOpenedLead = "->Warning unable to open remote file...(";
inline constexpr std::string_view WarnWithoutOffsetLead = "->Warning unable to get offset of remote file...(";
inline constexpr std::string_view WarnNotReadLead = "->Warning unable to read from remote file...(";
std::string UpdateDropped(std::string_view lead, std::string_view file, std::string_view reason);

// Messages of a get that was to be an update.
std::string UpdateTooLong(std::string_view file);
std::string UpdateHeadDiffers(std::string_view file);
std::string UpdateBodyDiffers(std::string_view file);
std::string UpdateActivated(long long updateSize, long long fileSize);
} // namespace protocol
