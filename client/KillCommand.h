#pragma once

#include "client/Subcommand.h"

/** Ends commands and transfers by the numbers that the listing shows. */
int RunKill(const Subcommand& self, const Arguments& arguments);
/** Ends the server. */
int RunShutdown(const Subcommand& self, const Arguments& arguments);
