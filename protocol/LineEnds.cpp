#include "protocol/LineEnds.h"

#include <cstring>
#include <utility>

std::size_t LineEnds::Expand(std::string_view block, char* out)
{
    char* const begin = out;
    while (!block.empty()) {
        const std::size_t lineFeed = block.find('\n');
        const std::size_t length = lineFeed == std::string_view::npos ? block.size() : lineFeed;
        memcpy(out, block.data(), length);
        out += length;
        block.remove_prefix(length);
        if (lineFeed == std::string_view::npos)
            break;
        *out++ = '\r';
        *out++ = '\n';
        block.remove_prefix(1);
    }
    return static_cast<std::size_t>(out - begin);
}

std::string_view LineEnds::Reducer::Reduce(char* room, std::size_t length)
{
    if (length == 0)
        return {};
    const char* const end = room + 1 + length;
    char* const begin = isCrHeldBack_ && room[1] != '\n' ? room : room + 1;
    if (begin == room)
        room[0] = '\r';
    char* out = room + 1;
    const char* next = out;
    isCrHeldBack_ = false;
    while (next < end) {
        const auto left = static_cast<std::size_t>(end - next);
        const void* found = memchr(next, '\r', left);
        const std::size_t kept =
            found == nullptr ? left : static_cast<std::size_t>(static_cast<const char*>(found) - next);
        memmove(out, next, kept);
        out += kept;
        next += kept;
        if (next == end)
            break;
        if (next + 1 == end)
            isCrHeldBack_ = true;
        else if (next[1] != '\n')
            *out++ = '\r';
        ++next;
    }
    return {begin, static_cast<std::size_t>(out - begin)};
}

std::string_view LineEnds::Reducer::TakeHeldBack()
{
    return std::exchange(isCrHeldBack_, false) ? "\r" : std::string_view();
}
