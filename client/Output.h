#pragma once

#include <string_view>

/** Writes everything, also to what does not block: 0 or the error. */
int WriteAll(int descriptor, std::string_view bytes);
int WriteToStandardOutput(std::string_view bytes);
