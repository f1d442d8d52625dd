#pragma once

#include <string>

#include "client/Failure.h"

/**
 * Where a password comes from. It is what stands before the first newline; a file that others than its
 * owner can read or write is refused, as is one of another owner than this user or root.
 */
Failure ReadPasswordFile(const std::string& path, std::string& password);
/** Reads up to the first newline and no byte further, so that what follows is left to others. */
Failure ReadPasswordDescriptor(int descriptor, std::string& password);
/** Asks on the terminal, without echo. Leaves the password empty when there is no terminal. */
Failure AskForPassword(const std::string& user, const std::string& serverName, std::string& password);
