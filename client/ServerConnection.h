#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "client/Failure.h"
#include "client/ProxyCommand.h"
#include "client/Server.h"
#include "support/FileDescriptor.h"

/**
 * One connection to a server, direct or over the standard streams of a proxy command. Either way its
 * descriptor is a stream socket, to be polled, read with recv(), written with send() and half-closed with
 * shutdown(). It stays blocking: use MSG_DONTWAIT where waiting is no option.
 *
 * A peer that has vanished without a word is noticed after PeerTimeOut seconds: then reads and writes fail.
 * One that lives but takes nothing for a while is waited for; had it vanished after that, this is noticed
 * some minutes later. The object owns the socket and the proxy command; its destructor closes the one and
 * ends the other.
 */
class ServerConnection
{
public:
    /** Seconds: what is silent is probed, what is unacknowledged is given up. */
    static constexpr int PeerTimeOut = 40;
    /** Milliseconds. */
    static constexpr int WatchInterval = 5'000;
    /** Bytes: for Receive(), more than any answer has that is kept as a whole and is no listing. */
    static constexpr std::size_t LongestAnswer = std::size_t{64} << 10;

    Failure Connect(const Server& server) { return Connect(server, server.host, server.port); }
    /** To another port, or host, as the data connections of transfers need it. */
    Failure Connect(const Server& server, const std::string& host, int port);
    /** Owns a connection that was accepted; `name` is the peer's, for messages. */
    void TakeOver(FileDescriptor socket, const std::string& name);
    void Close();

    bool IsOpen() const { return socket_.IsOpen(); }
    int Descriptor() const { return socket_.Number(); }

    /** Sends all bytes. */
    Failure Send(std::string_view bytes);
    /** Says that nothing more will be sent. */
    void EndSending();
    /** Waits for some bytes and appends them; at the end of the stream none, and `isEnd` is set. A failure
     * once `bytes` is longer than the limit. */
    Failure Receive(std::string& bytes, bool& isEnd, std::size_t limit = SIZE_MAX);

    /** To be called every WatchInterval by whoever waits for anything else than Send() and Receive(): a peer
     * that owes an acknowledgement is from now on given up in time. */
    void WatchPeer() const;

    /** The address of this machine on the way to the server. */
    Failure FindOwnAddress(std::string& address) const;

    /** What a broken connection means, for an error number of recv() or send(). */
    Failure Broken(int error) const;

private:
    std::string name_;
    FileDescriptor socket_;
    ProxyCommand proxy_;
    /** When, on the steady clock in milliseconds, WatchPeer() has something to do. */
    mutable long long watchesAt_ = 0;
};
