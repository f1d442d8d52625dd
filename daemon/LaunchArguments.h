#pragma once

#include <optional>

#include "protocol/RequestForms.h"
#include "support/QORUnicodeString.h"

/** The arguments of a launch request, converted and checked. */
struct LaunchArguments {
    QORUnicodeString command;
    QORUnicodeString user;
    QORUnicodeString socketFlag; // field 5 as sent
    bool socketMode = false;     // the client stays attached to the command's streams
    bool interactive = false;
    bool passive = false;
    QORUnicodeString passiveHost;
    int passivePort = 0;
    long lifeTimeOut = 0; // seconds, 0 is unlimited
};

/** Nothing when an argument is bad. `kind` is one of the launch kinds. */
std::optional<LaunchArguments> ReadLaunchArguments(protocol::RequestKind kind,
                                                   const protocol::RequestFields& fields);
