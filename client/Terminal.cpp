#include "client/Terminal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include <sys/ioctl.h>
#include <unistd.h>

namespace
{
constexpr int UsualColumns = 80;
constexpr int UsualLines = 24;
constexpr std::string_view Ellipsis = "...";

bool Continues(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/** Characters that draw nothing, but command the terminal, end a line or turn the direction of writing. */
struct CodeRange {
    unsigned first;
    unsigned last;
};
constexpr CodeRange Unprintable[] = {{0x80, 0x9F},     {0x200B, 0x200F}, {0x2028, 0x202E},
                                     {0x2060, 0x206F}, {0xD800, 0xDFFF}, {0xFEFF, 0xFEFF}};
constexpr unsigned HighestCode = 0x10FFFF;
/** The lowest code that takes so many bytes: written with more than it needs, one is not sound. */
constexpr std::array<unsigned, 5> LowestCode = {0, 0, 0x80, 0x800, 0x10000};

bool IsPrintable(unsigned code)
{
    return code <= HighestCode &&
           std::none_of(std::begin(Unprintable), std::end(Unprintable),
                        [code](const CodeRange& one) { return code >= one.first && code <= one.last; });
}

/** The length of the sound, visible UTF-8 character that the text begins with; 0 when there is none. */
std::size_t LengthOfCharacter(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    if (first >= 0x20 && first < 0x7F)
        return 1;
    std::size_t length = 0;
    if (first >= 0xC0 && first < 0xE0)
        length = 2;
    else if (first >= 0xE0 && first < 0xF0)
        length = 3;
    else if (first >= 0xF0 && first < 0xF8)
        length = 4;
    if (length == 0 || text.size() < length)
        return 0;
    unsigned code = first & (0x7FU >> length);
    for (const char byte : text.substr(1, length - 1)) {
        if (!Continues(byte))
            return 0;
        code = code << 6 | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    return code >= LowestCode[length] && IsPrintable(code) ? length : 0;
}

winsize SizeOf(int descriptor)
{
    winsize size = {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0)
        return {};
    return size;
}

/** Where the character behind the given number of columns begins. */
std::size_t OffsetOf(std::string_view text, int columns)
{
    std::size_t offset = 0;
    while (offset < text.size() && (columns > 0 || Continues(text[offset]))) {
        if (!Continues(text[offset]))
            --columns;
        ++offset;
    }
    while (offset < text.size() && Continues(text[offset]))
        ++offset;
    return offset;
}
} // namespace

bool Terminal::IsCapable(int descriptor)
{
    const char* const kind = getenv("TERM");
    return isatty(descriptor) == 1 && kind != nullptr && *kind != '\0' && std::string_view(kind) != "dumb";
}

bool Terminal::MayColor(int descriptor)
{
    const char* const forbidden = getenv("NO_COLOR");
    return IsCapable(descriptor) && (forbidden == nullptr || *forbidden == '\0');
}

int Terminal::ColumnsOf(int descriptor)
{
    const int columns = SizeOf(descriptor).ws_col;
    return columns > 0 ? columns : UsualColumns;
}

int Terminal::LinesOf(int descriptor)
{
    const int lines = SizeOf(descriptor).ws_row;
    return lines > 0 ? lines : UsualLines;
}

std::string Terminal::MakePrintable(std::string_view text)
{
    std::string printable;
    while (!text.empty()) {
        const std::size_t length = LengthOfCharacter(text);
        if (length > 0) {
            printable.append(text.substr(0, length));
        } else {
            std::array<char, 5> code;
            snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(text.front()));
            printable.append(code.data());
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return printable;
}

int Terminal::CountColumns(std::string_view text)
{
    return static_cast<int>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !Continues(byte); }));
}

std::string Terminal::CutToColumns(std::string_view text, int columns)
{
    columns = std::max(columns, 0);
    if (CountColumns(text) <= columns)
        return std::string(text);
    const int kept = std::max(columns - static_cast<int>(Ellipsis.size()), 0);
    return std::string(text.substr(0, OffsetOf(text, kept)))
        .append(Ellipsis.substr(0, static_cast<std::size_t>(columns - kept)));
}

std::string Terminal::CutFrontToColumns(std::string_view text, int columns)
{
    columns = std::max(columns, 0);
    const int length = CountColumns(text);
    if (length <= columns)
        return std::string(text);
    const int kept = std::max(columns - static_cast<int>(Ellipsis.size()), 0);
    return std::string(Ellipsis.substr(0, static_cast<std::size_t>(columns - kept)))
        .append(text.substr(OffsetOf(text, length - kept)));
}
