#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace protocol
{
inline std::string Concatenate(std::initializer_list<std::string_view> pieces)
{
    std::string text;
    for (std::string_view piece : pieces)
        text.append(piece);
    return text;
}
} // namespace protocol
