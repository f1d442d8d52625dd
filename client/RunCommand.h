#pragma once

#include "client/Subcommand.h"

/** The subcommand that runs a command here and now, its standard streams joined to this process' own. */
int RunCommand(const Subcommand& self, const Arguments& arguments);

/** True when standard output and standard error are the same file, so that nothing keeps them apart. */
bool IsSameOutput();
