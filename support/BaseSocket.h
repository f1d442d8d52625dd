#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "support/QORLists.h"
#include "support/QORUnicodeString.h"

#include <netinet/in.h>

/**
 * One IPv4 stream socket: a descriptor or none, and the text of its last failure.
 *
 * The descriptor is close-on-exec from birth, and TCP's delay of small writes is off on every accepted and
 * connected one. The file status flags are never changed on a client's socket, because they are shared
 * with the command that it is given to: time-outs are realised per call. A peer that has gone makes a
 * write fail and raises no signal. Interrupted calls and short writes are handled inside.
 *
 * Results are 0 for success and nonzero for failure unless stated otherwise; after a failure
 * BaseSocketGetLastError() gives the reason and the object can still be closed, reused and destroyed.
 */
class BaseSocket
{
public:
    /** Results of AcceptConnectionFromClientWithTimeOut. */
    enum AcceptResult { Accepted = 0, AcceptFailed = 1, AcceptTimeOut = 2 };
    /** Results of ReceiveAvailable and SendAvailable below zero; zero and above are bytes. */
    enum Availability { NothingYet = -1, Broken = -2 };

    /** How long a write waits for a peer that takes nothing, in seconds. */
    static constexpr int WriteTimeOut = 900;
    static constexpr int HighestPort = 65535;

    BaseSocket() = default;
    BaseSocket(const BaseSocket&) = delete;
    /** Closes a descriptor that is still held. */
    ~BaseSocket();

    /**
     * Both objects then refer to the same descriptor (one held before is closed): the source must be
     * Reset() at once so that exactly one closes it.
     */
    BaseSocket& operator=(const BaseSocket& other);
    /** Forgets the descriptor without closing it. */
    void Reset();
    /** In a child process, where the same connection has another descriptor: that is held from now on. */
    void Renumber(const int& descriptor) { descriptor_ = descriptor; }
    void CloseBaseSocket();

    /**
     * Listens on all local interfaces at `port`, with address reuse. Port 0 lets the system choose, and
     * the choice is written back. A port above 65535 or below 0 fails with its reason. The listening
     * descriptor does not block.
     */
    int OpenServerSocket(int& port, const int& backlog);
    /** Waits at most this long (0 and 0: not at all) for one client. An AcceptResult. */
    int AcceptConnectionFromClientWithTimeOut(BaseSocket& client, sockaddr_in& clientAddress,
                                              const int& timeoutSeconds, const int& timeoutMicroseconds);
    /** True when the last accept failed because descriptors, buffers or memory had run out. */
    bool IsOutOfResources() const { return outOfResources_; }

    /** Makes the socket if there is none and binds it, with address reuse. */
    int Bind(const sockaddr_in& localAddress);
    /** Connects to a name or dotted address within the time; `localAddress` is bound first unless null. */
    int OpenConnectionToServerNonBlocking(const QORUnicodeString& host, const int& port,
                                          const int& timeoutSeconds, const sockaddr_in* localAddress);
    /** The same on a socket that Bind() has bound; a failure closes it, so that it is bound anew. */
    int OpenConnectionToServerNonBlockingAfterBind(const QORUnicodeString& host, const int& port,
                                                   const int& timeoutSeconds);
    /**
     * True when the last Bind or connection failed because the local address or port is in use or not
     * available (EADDRINUSE, EADDRNOTAVAIL), so that an unbound socket may still get through.
     */
    bool IsLocalAddressUnavailable() const { return localAddressUnavailable_; }

    // Blocking transfer, for workers and clients. A write fails when the peer takes nothing for
    // WriteTimeOut seconds.
    int WriteToBaseSocket(const QORUnicodeString& text);
    /** The same, for a client that reads the text as it arrives. */
    int OnlineWriteToBaseSocket(const QORUnicodeString& text);
    /** What has arrived within the time; nonzero on time-out, on a closed connection and on failure. */
    int ReadFromBaseSocketNonBlocking(QORUnicodeString& text, const int& timeoutSeconds);
    /** Sends exactly `length` raw bytes: 0, or -1 on failure. */
    int WriteBinaryFileToBaseSocket(const char* buffer, const int& length);
    /**
     * Receives up to `length` raw bytes: the count, 0 when the peer has closed, -1 on failure or time-out.
     * A null `*buffer` is replaced by a new block that the caller frees with delete[]; one that is not
     * null must hold `length` bytes and is used as it is, so that a loop needs one block in all.
     */
    int ReadBinaryFileFromBaseSocketNonBlocking(char** buffer, const int& length, const int& timeoutSeconds);

    // Transfer that never waits, for the daemon's loop.
    /** Bytes received, 0 when the peer has closed its side, or an Availability. */
    long ReceiveAvailable(char* buffer, std::size_t length);
    /** Bytes that the socket took (perhaps fewer than given), or an Availability. */
    long SendAvailable(std::string_view bytes);
    /** Whether bytes, or the end, or a failure, are there to be received within so many milliseconds. */
    bool CanReceiveWithin(const int& milliseconds) const;
    /** Whether there is room, or a failure to be told, for what is sent. */
    bool CanSendWithin(const int& milliseconds) const;
    /** Ends the sending side: the peer sees the end of the stream once it has read what was sent. */
    void ShutdownSending();
    /** Ends the connection for everybody who holds it; the descriptor stays open. */
    void ShutdownBoth();

    /** This machine's host name when `address` is null, else the name of that address. */
    int GetHostName(QORUnicodeString& name, const sockaddr_in* address);
    /**
     * Dotted address of `hostName`. When this machine's own name does not resolve: the first address of an
     * interface that is up, loopback last, so that a machine without name service starts.
     */
    int GetHostAddress(QORUnicodeString& address, const QORUnicodeString& hostName);
    int GetHostAddress(QORUnicodeString& address, const sockaddr_in* peer);
    int GetSocketName(sockaddr_in& address);

    /** The descriptor, -1 when there is none. */
    int GetBaseSocketNumber() const { return descriptor_; }
    /** Nonzero while the socket is open. */
    int GetBaseSocketStatus() const { return descriptor_ >= 0; }
    QORUnicodeString BaseSocketGetLastError() const { return lastError_; }

private:
    // Each makes the text of the failure and returns 1.
    int Fail(int error, const char* operation);
    int Fail(const char* reason, const char* operation);
    int FailAndClose(int error, const char* operation);

    int MakeSocket();
    int LookUpServer(const QORUnicodeString& host, int port, std::vector<sockaddr_in>& servers);
    /** Connects the socket that is held to one address; closes it on failure. */
    int ConnectToAddress(const sockaddr_in& server, long long deadline);

    int descriptor_ = -1;
    bool outOfResources_ = false;
    bool localAddressUnavailable_ = false;
    std::string lastError_;
};
