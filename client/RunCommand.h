#pragma once

#include "client/Subcommand.h"

/**
 * Runs a command in SOCKET mode: its output goes to standard output as it arrives, and it sees the end of
 * its input at once. The code to exit with: the command's own, 124 when its life time-out ended it, or
 * ClientFailure after one line on standard error.
 */
int RunCommand(const Subcommand& self, const Arguments& arguments);
