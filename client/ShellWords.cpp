#include "client/ShellWords.h"

#include <string_view>

namespace
{
// Means itself to every shell; '=' and '~' are left out because of where they may stand.
constexpr std::string_view PlainBytes =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%+,-./:@_";

/** Plain words stay as they are, since the line is what listings show. */
std::string QuoteWord(const std::string& word)
{
    if (!word.empty() && word.find_first_not_of(PlainBytes) == std::string::npos)
        return word;
    std::string quoted = "'";
    for (const char byte : word) {
        if (byte == '\'')
            quoted += "'\\''";
        else
            quoted += byte;
    }
    return quoted += '\'';
}
} // namespace

std::string JoinShellWords(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty())
            line += ' ';
        line += QuoteWord(word);
    }
    return line;
}
