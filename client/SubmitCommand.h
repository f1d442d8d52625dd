#pragma once

#include "client/Subcommand.h"

/** Runs a command that nobody watches: waits for its log, or leaves with its identifier. */
int RunSubmit(const Subcommand& self, const Arguments& arguments);
/** Tells whether a command that was left to itself is still at work. */
int RunState(const Subcommand& self, const Arguments& arguments);
