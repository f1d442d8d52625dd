#pragma once

#include <string>
#include <vector>

#include "support/Account.h"

/**
 * The environment of one command, as execve takes it. Entries of the process' own environment are pointed
 * to, not copied: valid until that is changed.
 */
class CommandEnvironment
{
public:
    /** The process' own, with this mark (NAME=value) in place of any other. */
    explicit CommandEnvironment(const std::string& mark);
    /** What a login of `account` has, with the mark; of the process' own only the folder for temporary
     * files, the language and the time zone. */
    CommandEnvironment(const std::string& mark, const Account& account);
    CommandEnvironment(const CommandEnvironment&) = delete;
    CommandEnvironment& operator=(const CommandEnvironment&) = delete;

    const char* const* Entries() const { return entries_.data(); }

    /**
     * Puts what a login of this process' own user has into the process' environment where it lacks it or has
     * it empty. Programs count on it: one that runs "$SHELL" without a look does nothing at all else.
     */
    static void CompleteOwn();

private:
    std::vector<std::string> made_;
    std::vector<const char*> entries_;
};
