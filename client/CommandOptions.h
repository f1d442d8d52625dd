#pragma once

#include <optional>
#include <string>

#include "client/SubcommandParser.h"

/** How the words of a subcommand that runs a command are to be taken. */
struct CommandOptions {
    bool isLine = false;
    /** As given: a duration. */
    std::string lifeTimeOut = "0";

    /** Seconds, 0 for never. */
    long LifeTimeOut() const { return ReadDuration(lifeTimeOut).value_or(0); }
};

void AddCommandOptions(CLI::App& app, CommandOptions& options);
/** The words as one shell line; a complaint, and the code to exit with, when they are none. */
std::optional<int> JoinCommand(const SubcommandParser& parser, const CommandOptions& options,
                               std::string& line);
