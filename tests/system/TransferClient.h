#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tests/system/DaemonUnderTest.h"

/** What a transfer is asked to do. The defaults are a whole binary file, ACTIVE, of the tests' own user. */
struct TransferOrder {
    std::string keyword; // TRANSFERPUT, TRANSFERGET, TRANSFERUPDATEPUT, TRANSFERUPDATEGET
    std::string file;
    std::string mode = "BINARY";
    bool passive = false;
    std::string partialCopy = {}; // of an update get: what the client has of the file already
    std::string user = OwnUser();
    std::string password = "secret";
    std::string lifeTimeOut = "0";
};

/**
 * The client of one transfer: its control connection, and for PASSIVE the port where it waits for the data
 * connection. The check sums that it sends are its own, not the daemon's.
 */
class TransferClient
{
public:
    /** Asks for it. */
    TransferClient(DaemonUnderTest& daemon, const TransferOrder& order);

    /** Expects an answer that begins with this keyword, and makes the data connection. */
    Client OpenData(std::string_view keyword);
    /** Takes the offer of an update put, which must say this, and replies. */
    void ReplyToOffer(const std::string& expectedOffer, std::string_view reply);
    /** What else comes on the control connection, up to its end. */
    std::string Finish() { return control_.ReadToEnd(); }
    Client& Control() { return control_; }
    /**
     * The same for a transfer that may fail: nothing when there is no data connection to be had. `said` is
     * what has been read of the answer; more of it is added.
     */
    std::optional<Client> TryToOpenData(std::string_view keyword, std::string& said);

    /** A get from its answer to its end: the bytes of the data connection, and what Finish() returns. */
    std::string Get(std::string& bytes, std::string_view keyword = "WRITE");
    std::string Put(std::string_view bytes);

private:
    Dialogue data_; // apart: nobody wants to read files in the report of a failure
    std::optional<Collector> collector_;
    Client control_;
};

/** How a transfer without a message is answered behind keyword and port, and ends. */
std::string Transferred(int code, std::string_view message = {});

/** Bytes of every value that repeat nothing for a while, so that a lost or doubled block shows. */
std::string MakeContent(size_t size);
/** CRC-32 as clients compute it. */
unsigned CheckSumOf(std::string_view bytes);
/** READINFO, and what follows it, for a file that holds this. */
std::string OfferOf(std::string_view content);
