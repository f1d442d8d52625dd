#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/** One line of the server's listing: a command, the delivery of a log, or a file transfer. */
struct ListedWork {
    int number = 0;
    std::string user;
    std::string beginDate;
    /** How far its worker is, in the server's words; empty when it has not said. */
    std::string status;

    // Commands and logs.
    long processId = 0;
    /** As it was sent. */
    std::string command;
    /** Logs only: the command's code. */
    int returnCode = 0;

    // Transfers.
    long lifeTimeOut = 0;
    bool isGet = false;
    bool isAscii = false;
    bool isPassive = false;
    std::string file;
};

/** The answer to a request for a listing. */
struct Listing {
    long startedSinceBeginning = 0;
    std::vector<ListedWork> logs;
    std::vector<ListedWork> commands;
    std::vector<ListedWork> transfers;
    /** What the server tells about its machine, line by line without lead; empty unless it was asked for. */
    std::vector<std::string> report;
};

/**
 * Reads a whole answer; nothing when it is no listing. A command is shown as it was sent and may hold any
 * text, newlines included: what does not begin as an entry goes on with the one before it.
 */
std::optional<Listing> ParseListing(std::string_view answer);
