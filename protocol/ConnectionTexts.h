#pragma once

#include <string>
#include <string_view>

/**
 * The texts about commands and their logs: the lines that describe them in a listing, and what delivers a
 * log. Clients parse them byte for byte; odd spellings, blanks and missing brackets are part of the protocol.
 */
namespace protocol
{
// Lines that describe a command, the listing's prefix before them. The order of the keys is fixed.
/** The line by which a passive client asks for its command; host and port are the daemon's. */
std::string CommandIdentifier(std::string_view host, int port, int number, std::string_view user,
                              std::string_view beginDate);
std::string CommandAttributes(int number, unsigned long processId, std::string_view user,
                              std::string_view beginDate, std::string_view command);
/** Behind a command's attributes while its log is delivered. */
std::string ReturnCodeAttribute(int code);
/** Behind the line of work whose worker has published its progress. */
std::string StatusAttribute(std::string_view status);

// A worker's progress; bytes, time and rate follow the lead.
inline constexpr std::string_view SentLead = "sent ";
inline constexpr std::string_view ReceivedLead = "Receive ";

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
