#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

/** A subcommand's own arguments, told apart from those of a command to run before any is read. */
struct Arguments {
    /** Up to the first "--": options, perhaps with words behind them. */
    std::vector<std::string> own;
    /** Behind "--", which only says that no options follow. */
    std::vector<std::string> behindDashes;
    bool hasDashes = false;
};

/** One row of the table: a further subcommand is a further row in Subcommands.cpp and one function. */
struct Subcommand {
    std::string_view name;
    /** One line for the list in --help, and the first one of the subcommand's own help. */
    std::string_view summary;
    /** Reads the arguments with a SubcommandParser, does the work, and returns what to exit with. */
    int (*run)(const Subcommand& self, const Arguments& arguments);
};

/** All of them, in the order in which help lists them. */
std::span<const Subcommand> Subcommands();

/** The whole program: picks the subcommand and runs it. The exit code. */
int RunProgram(int argc, const char* const* argv);
