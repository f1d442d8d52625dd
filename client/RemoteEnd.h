#pragma once

#include <string_view>

#include "client/Failure.h"
#include "client/Server.h"

/**
 * Ends the command in whose sent line `key` stands, with all that it started. A command that is not there
 * (any more) is no failure.
 */
Failure EndCommandTree(const Server& server, std::string_view key);
