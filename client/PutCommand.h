#pragma once

#include "client/Subcommand.h"

/** Moves files to the server's machine. */
int RunPut(const Subcommand& self, const Arguments& arguments);
