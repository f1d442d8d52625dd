#pragma once

#include <string>
#include <string_view>

/**
 * The texts that cross the wire, each written once under a name that says when it is sent. Clients parse
 * them byte for byte: spellings such as "successfull", "ressource temporarely" or "inconsistant" are part
 * of the protocol.
 */
namespace protocol
{
/** Names this server and its version. */
inline constexpr const char* Banner = "RuvelServer V1.8.3 January 27, 2005 (Unix)";
/** Stands between the fields of a request and of every list-shaped answer. */
inline constexpr const char* Separator = "|";

/** The first line of every answer. */
inline constexpr std::string_view BannerLine = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n";
/** Begins every line of an answer. */
inline constexpr std::string_view LineLead = "->";

// How a finished command or transfer ends: the lead, the decimal code or NoCode, a newline.
inline constexpr std::string_view ReturnCodeLead = "->ProcessReturnCode = ";
/** Stands for a code where a process could not be made to end, or none was started. */
inline constexpr std::string_view NoCode = "NoThing";
inline constexpr std::string_view NoReturnCodeLine = "->ProcessReturnCode = NoThing\n";
/** ReturnCodeLead + code + "\n". */
std::string ReturnCodeLine(int code);

// Lines that follow the banner line of an answer to a request that is not served.
inline constexpr std::string_view MessageEmpty = "->Error message is empty\n";
inline constexpr std::string_view MessageNotRecognized = "->Error message not recognized\n";
inline constexpr std::string_view ClientTooOld =
    "->Bad version of RuvelControl, please install a newer version\n";
inline constexpr std::string_view ServerTooOld =
    "->Bad version of RuvelServer, please install a newer version\n";
inline constexpr std::string_view BadParameters = "->Error bad parameters\n";

/** "Error not owner : " + owner + " : " + requesting user: the reason, without lead and newline. */
std::string NotOwner(std::string_view owner, std::string_view user);

/** Sent before everything has been ended; the socket is closed once it has. */
inline constexpr std::string_view Closed = "->RuvelServer closed\n";

// Answers to the identifier request: the bare word.
inline constexpr std::string_view Running = "RUNNING";
inline constexpr std::string_view NotFound = "NOTFOUND";
/** First item of the answer to a passive launch; the identifier follows. */
inline constexpr std::string_view Identifier = "ID";
/** First item of a transfer request's answer when the daemon itself refuses it; the second is the banner
 * line with the reason behind it. */
inline constexpr std::string_view Error = "ERROR";
inline constexpr std::string_view FileInUse =
    "->Error ressource temporarely unavailable, remote file used by other file transfer(s)";
inline constexpr std::string_view TransferNotStarted = "->Error unable to start file transfer\n";

// The listing's counting lines: number, then text.
inline constexpr std::string_view FoundLead = "->Found ";
inline constexpr std::string_view LaunchedSinceBeginning =
    " launched command(s) and file transfer(s) since beginning";
inline constexpr std::string_view ActiveLogTransfers = " active log transfer(s)";
inline constexpr std::string_view ActiveCommands = " active command(s)";
inline constexpr std::string_view ActiveTransfers = " active file transfer(s)";

/** Follows the listing in place of the reports on the machine. */
inline constexpr std::string_view ReportNotStarted = "->Error unable to start system report\n";

// What supervision tells a client, the code following.
inline constexpr std::string_view LogNotStarted = "->Error unable to start log transfer\n";
inline constexpr std::string_view TransferExpired =
    "->File transfer terminated due to expired life timeout\n->ProcessReturnCode = ";
inline constexpr std::string_view CommandExpired =
    "->Command killed due to expired life timeout\n->ProcessReturnCode = ";
// The two differ in "transfer(s)" against "file transfer(s)" and must.
inline constexpr std::string_view ShutdownTransfer =
    "->RuvelServer shutdown, all log transfer(s) terminated, command(s) killed and transfer(s) "
    "terminated\n->ProcessReturnCode = ";
inline constexpr std::string_view ShutdownCommand =
    "->RuvelServer shutdown, all log transfer(s) terminated, command(s) killed and file transfer(s) "
    "terminated\n->ProcessReturnCode = ";

// Kill requests.
inline constexpr std::string_view KillBadNumberLead =
    "->Error unable to kill command or terminate file transfer N(";
inline constexpr std::string_view KillCommandLead = "->Error unable to kill command N(";
inline constexpr std::string_view KillTransferLead = "->Error unable to kill file transfer N(";
inline constexpr std::string_view KillBadNumberEnd = ") : bad number";
inline constexpr std::string_view KillNotOwnerEnd = ") : not owner";
/** "->File transfer N(" number "), terminated by user (" user ")\n->ProcessReturnCode = " */
std::string TransferTerminated(std::string_view number, std::string_view user);
/** "->Command N(" number + words + "\n->ProcessReturnCode = "; words such as "), killed". */
std::string CommandKilled(std::string_view number, std::string_view words);
inline constexpr std::string_view Killed = "), killed";
inline constexpr std::string_view TreeKilled = "), tree killed";
inline constexpr std::string_view ForceKilled = "), force killed";
inline constexpr std::string_view TreeForceKilled = "), tree force killed";
} // namespace protocol
