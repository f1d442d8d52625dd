#pragma once

#include "client/Subcommand.h"

/** Where collect listens, and where submit --detach sends logs, when nothing else is said. */
inline constexpr int DefaultCollectorPort = 5679;

/** Takes the logs of commands that were left to themselves, one file for each, until it is stopped. */
int RunCollect(const Subcommand& self, const Arguments& arguments);
