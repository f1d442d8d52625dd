#pragma once

#include <optional>

#include "protocol/RequestForms.h"
#include "support/QORUnicodeString.h"

/** The arguments of a transfer request, converted and checked. */
struct TransferArguments {
    QORUnicodeString user;
    QORUnicodeString remoteFile;
    bool get = false; // named from the client's side: a get sends a file of this machine
    bool ascii = false;
    bool update = false;
    long lifeTimeOut = 0; // seconds, 0 is unlimited
    bool passive = false; // the daemon connects to the client
    QORUnicodeString passiveHost;
    int passivePort = 0;
    // Of an update get: what the client already has. An update put has the daemon tell its own.
    long long updateSize = -1; // bytes
    unsigned headCheckSum = 0;
    unsigned bodyCheckSum = 0;
};

/** Nothing when an argument is bad. `kind` is one of the transfer kinds. */
std::optional<TransferArguments> ReadTransferArguments(protocol::RequestKind kind,
                                                       const protocol::RequestFields& fields);
