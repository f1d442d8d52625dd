#pragma once

#include "client/Subcommand.h"

/** A shell at the server, fed from standard input line by line. */
int RunShell(const Subcommand& self, const Arguments& arguments);
