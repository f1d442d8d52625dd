#pragma once

#include "client/Subcommand.h"

/** Moves files from the server's machine. */
int RunGet(const Subcommand& self, const Arguments& arguments);
