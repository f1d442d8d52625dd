#pragma once

#include <cstddef>
#include <string_view>

/**
 * Conversion of line ends in ASCII transfers, block by block: files here end lines with LF, clients with
 * CR LF.
 */
namespace LineEnds
{
/** Puts a CR before every LF; `out` has room for twice the block. Bytes written. */
std::size_t Expand(std::string_view block, char* out);

/**
 * The way back: drops the CR of every CR LF, also of one that was split across blocks. A lone CR stays. A CR
 * that ends a block is held back until it is known what follows it.
 */
class Reducer
{
public:
    /**
     * Converts the `length` bytes that begin at `room` + 1, in place: room[0] is for a CR that was held
     * back. The result is a part of the room.
     */
    std::string_view Reduce(char* room, std::size_t length);
    /** What is still held back at the end of the data: one CR or nothing. */
    std::string_view TakeHeldBack();

private:
    bool isCrHeldBack_ = false;
};
} // namespace LineEnds
