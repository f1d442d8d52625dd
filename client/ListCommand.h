#pragma once

#include "client/Subcommand.h"

/** Shows what the server runs: once, as JSON, or again and again in place. */
int RunList(const Subcommand& self, const Arguments& arguments);
