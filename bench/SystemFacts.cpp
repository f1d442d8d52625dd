#include "bench/SystemFacts.h"

#include <cstdlib>
#include <fstream>

std::string ReadFact(const std::string& file, const std::string& label)
{
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos ||
            line.substr(0, line.find_last_not_of(" \t", colon - 1) + 1) != label)
            continue;
        const std::size_t begin = line.find_first_not_of(" \t", colon + 1);
        return begin == std::string::npos ? "" : line.substr(begin);
    }
    return "unknown";
}

double ReadNumber(const std::string& file, const std::string& label)
{
    return std::strtod(ReadFact(file, label).c_str(), nullptr);
}
