#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "client/Failure.h"
#include "client/Server.h"
#include "client/SignalWatch.h"

/** Ends the command or transfer of this number as the keyword of a kill says. */
Failure EndWork(const Server& server, std::string_view keyword, const std::string& number);

/**
 * Ends the command in whose sent line `key` stands, with all that it started. A command that is not there
 * (any more) is no failure.
 */
Failure EndCommandTree(const Server& server, std::string_view key);
/** The same for the command that is this process there. */
Failure EndProcessTree(const Server& server, int process);

/** A user's signal has come: says so, has `end` end what runs there, and dies by it. A second one dies at
 * once. */
[[noreturn]] void EndBySignal(std::optional<SignalWatch>& signals, int signal,
                              const std::function<Failure()>& end);
