#pragma once

#include <string>
#include <vector>

/** One line that a POSIX shell splits into exactly these words again, whatever bytes they hold. */
std::string JoinShellWords(const std::vector<std::string>& words);
