#pragma once

#include <string>
#include <string_view>

#include "client/FileSums.h"
#include "client/ServerConnection.h"
#include "support/BaseSocket.h"

/** A transfer as it is asked for. */
struct TransferRequest {
    bool isGet = false;
    bool isAscii = false;
    /** BINARY only. A put is then offered what the server has; a get tells what is here. */
    bool isUpdate = false;
    /** The server connects to us. */
    bool isPassive = false;
    /** Seconds, 0 for no limit. */
    long lifeTimeOut = 0;
    /** On the server's machine. */
    std::string file;
    /** Of a get in update mode: what is here. */
    FileFacts own = {};
};

/** What the server says first, or after our reply to an offer. */
struct TransferAnswer {
    enum Kind {
        Offer, // the server has what `offered` tells: Reply() to it
        All,   // the data connection carries the whole file
        Rest   // a get's data connection carries what is behind the part that is here
    };
    Kind kind = All;
    FileFacts offered = {};
    /** With Rest: the size of the file when it was looked at. */
    long long sizeInAll = 0;
};

/**
 * The control connection of one transfer.
 *
 * | step        | here                        | the server                                        |
 * |-------------|-----------------------------|---------------------------------------------------|
 * | Begin       | request                     | offer, or where the data connection is, or refusal |
 * | Reply       | to an offer: all, rest      | where the data connection is, or refusal          |
 * | Decline     | to an offer: neither        | ends the transfer, the file is as it was          |
 * | OpenData    | connects, or is connected to | accepts, or connects                              |
 * | Conclude    | -                           | how the transfer ended                            |
 *
 * The server must outlive it.
 */
class TransferExchange
{
public:
    explicit TransferExchange(const Server& server) : server_(server) {}

    Failure Begin(const TransferRequest& request, TransferAnswer& answer);
    Failure Reply(bool wantsRest, TransferAnswer& answer);
    Failure Decline();
    Failure OpenData(ServerConnection& data);
    /**
     * Waits for the server's word that the transfer has ended; anything but success is a failure. `data` is
     * open, and gets nothing more but its end, or closed.
     */
    Failure Conclude(const ServerConnection& data);

private:
    Failure ReceiveEnd(const ServerConnection& data);
    Failure Listen(std::string& host, int& port);
    Failure SendRequest(const TransferRequest& request);
    Failure ReceiveMore();
    Failure ReceiveAnswer(TransferAnswer& answer);
    bool ReadAnswer(TransferAnswer& answer);
    Failure ReadRefusal();
    Failure ReceiveEarlyEnd();
    Failure AcceptData(ServerConnection& data);

    const Server& server_;
    ServerConnection control_;
    BaseSocket listening_;
    bool isPassive_ = false;
    int dataPort_ = 0;
    /** What has arrived and is not used up. */
    std::string arrived_;
    bool isAtEnd_ = false;
};
