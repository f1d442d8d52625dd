#pragma once

#include <string>
#include <string_view>

#include "support/FileDescriptor.h"
#include "tests/system/Waiting.h"

/** What was said on the connections of one test, for the report of a failure. */
class Dialogue
{
public:
    void Record(int connection, std::string_view what, std::string_view bytes = {});
    const std::string& Text() const { return text_; }

private:
    std::string text_;
};

/**
 * One TCP connection between a test and the daemon, driven byte by byte. Every read has a deadline; past it
 * the test fails and the read returns what has come so far. What a read does not return stays for the next.
 */
class Client
{
public:
    /** Connects to a port of this machine, from 127.0.0.`host`. A receive buffer of 0 bytes leaves the choice
     * to the system. */
    Client(int port, Dialogue& dialogue, int receiveBufferBytes = 0, unsigned host = 1);
    /** Takes over a connection that was accepted. */
    Client(Dialogue& dialogue, FileDescriptor connection);

    void Send(std::string_view bytes);
    /** Says that nothing more will be sent. */
    void HalfClose();
    /** Vanishes: the other side's next write or read fails. */
    void Reset();

    /** Everything up to and with the first `text`. */
    std::string ReadUntil(std::string_view text);
    std::string ReadExactly(size_t bytes);
    /** Everything up to the end of the stream, then closes. A stream that was reset instead is a failure. */
    std::string ReadToEnd();
    /** Up to and with the first `text`, or what came before the connection ended in whatever way; without a
     * text always the latter. */
    std::string ReadUntilOrEnd(std::string_view text = {});
    /** Expects the connection to go, in an orderly way or not, without a further byte; then closes. */
    void ExpectDropped();

    /** True when the end of the stream or a byte that has not been read is there; waits for nothing. */
    bool HasArrived() const;

    /** The port at the other end. */
    int PeerPort() const;

private:
    enum class Arrival { Bytes, End, Reset, Late };
    Arrival ReceiveMore(const Deadline& deadline);
    /** Bytes when there is enough. */
    template <class Condition>
    Arrival Receive(Condition isEnough);
    /** Where the first `text` ends, or all that came if it did not; none comes when it is empty. */
    size_t Receive(std::string_view text, Arrival& arrival);
    std::string Take(size_t bytes);

    FileDescriptor connection_;
    Dialogue& dialogue_;
    std::string arrived_;
};

/** Listens on a port of this machine for the connections that the daemon makes to its client. */
class Collector
{
public:
    explicit Collector(Dialogue& dialogue);

    int Port() const { return port_; }
    /** Somebody has connected and waits to be accepted. */
    bool HasArrived() const;
    Client Accept();

private:
    FileDescriptor listener_;
    int port_;
    Dialogue& dialogue_;
};
