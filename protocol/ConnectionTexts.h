#pragma once

#include <string>
#include <string_view>

/**
 * The texts about live work: the lines that describe it in a listing, and what a worker sends to its client.
 * Clients parse them byte for byte; odd spellings, blanks and missing brackets are part of the protocol.
 */
namespace protocol
{
// Lines that describe live work, the listing's prefix before them. The order of the keys is fixed.
/** The line by which a passive client asks for its command; host and port are the daemon's. */
std::string CommandIdentifier(std::string_view host, int port, int number, std::string_view user,
                              std::string_view beginDate);
std::string CommandAttributes(int number, unsigned long processId, std::string_view user,
                              std::string_view beginDate, std::string_view command);
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
std::string TransferAttributes(const TransferDescription& transfer);
/** Behind a command's attributes while its log is delivered. */
std::string ReturnCodeAttribute(int code);
/** Behind the line of work whose worker has published its progress. */
std::string StatusAttribute(std::string_view status);

// A worker's progress; bytes, time and rate follow the lead.
inline constexpr std::string_view SentLead = "sent ";
inline constexpr std::string_view ReceivedLead = "Receive ";
/** While the part of a file that both sides have is summed up. */
std::string IntegrityProgress(long long bytesDone, long long bytesInAll);

// The delivery of a log, between the banner line and the return code line.
/** The checker's reason and a newline follow. */
inline constexpr std::string_view LogNotCheckedLead = "->Error unable to check log command file : ";
inline constexpr std::string_view LogWithoutSize = "->Error unable to get log command file stat\n";
inline constexpr std::string_view LogNotOpened = "->Error unable to open log command file\n";
inline constexpr std::string_view LogNotRead = "->Error reading log command file\n";
/** Behind the bytes of a log that was cut. */
inline constexpr std::string_view LogLimitReached =
    "\n->Error maximum size of log command file reached (10M)\n";
} // namespace protocol
