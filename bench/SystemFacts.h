#pragma once

#include <string>

/** What stands behind "LABEL:" in a file of the system's, without the blanks; "unknown" where there is
 * none. */
std::string ReadFact(const std::string& file, const std::string& label);
/** The number that it begins with; 0 where there is none. */
double ReadNumber(const std::string& file, const std::string& label);
