#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "support/FileDescriptor.h"

// A client's side of the protocol, as bare as it can be, so that little but the server is measured.
// What goes wrong is thrown: a benchmark has nothing to go on with.

/** Throws the system's reason, with what was tried in front. */
[[noreturn]] void ThrowSystemError(const std::string& what);

/** A connection to a port of this machine; a receive buffer of 0 bytes leaves the choice to the system. */
FileDescriptor ConnectTo(int port, int receiveBufferBytes = 0);
/** True when a connection to the port of this machine can be made. */
bool IsAccepting(int port);
/** A socket that listens on a free port of this machine, which is stored. */
FileDescriptor ListenOnFreePort(int& port);
void Send(const FileDescriptor& connection, std::string_view bytes);
/** What comes until `text` has come, `text` included. */
std::string ReadUntil(const FileDescriptor& connection, std::string_view text);
/** What comes until the other side has no more to say. */
std::string ReadToEnd(const FileDescriptor& connection);

/** The name of the account that runs this program, which a daemon in single user mode asks for. */
std::string OwnUser();
/** A launch without life time-out by the newest client; `mode` is SOCKET or NOSOCKET. */
std::string LaunchRequest(std::string_view mode, std::string_view command);
std::string InfoRequest();

/** How long one launch took, in microseconds. */
struct LaunchTimes {
    double sinceConnect; // from before the connection was made to the return line
    double sinceRequest; // from before the request was sent
};
/** Makes a request whose answer ends with a good return line, and throws when it does not. */
LaunchTimes TimeLaunch(int port, const std::string& request);
/** From connecting to the end of the stream, microseconds; a request of "" is none. */
double TimeAnswer(int port, const std::string& request);

/** Microseconds on the steady clock. */
double NowInMicroseconds();
