#pragma once

#include <string>
#include <string_view>

/** What a terminal is shown, and whether there is one. */
namespace Terminal
{
/** A terminal that knows how to go back in a line: not a file or pipe, and not TERM=dumb or without TERM. */
bool IsCapable(int descriptor);
/** The same, and NO_COLOR does not forbid colours. */
bool MayColor(int descriptor);
/** Columns of the terminal, 80 when it does not tell. */
int ColumnsOf(int descriptor);
/** Lines of the terminal, 24 when it does not tell. */
int LinesOf(int descriptor);

/**
 * The text with everything that a terminal could take for an instruction made visible: what others have sent
 * or named must not move the cursor. UTF-8 stays, but for marks that are not seen or turn the direction of
 * writing; these, other bytes and control characters become "\x1b" and so on.
 */
std::string MakePrintable(std::string_view text);
/** The columns that a printable text takes, each character counted as one. */
int CountColumns(std::string_view text);
/** At most so many columns of a printable text, with "..." in place of what was cut off at its end. */
std::string CutToColumns(std::string_view text, int columns);
/** The same, cut in front: what a path ends with tells more. */
std::string CutFrontToColumns(std::string_view text, int columns);
} // namespace Terminal
