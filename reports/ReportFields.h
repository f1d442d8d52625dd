#pragma once

#include <cstddef>
#include <string_view>

/** What the lines of all reports have in common. */
namespace ReportFields
{
/** A figure that could not be had: shown as "-". */
inline constexpr unsigned long long Unknown = ~0ULL;
/** Size of the buffer that a report line is built in; the line is cut there, its NUL included. */
inline constexpr size_t LineSize = 4096;
/** Size of the buffer of one figure. */
inline constexpr size_t FigureSize = 40;

/**
 * amount * fromUnit / toUnit rounded down, in decimal, or "-" when the amount is unknown; always
 * NUL-terminated within `size`. Only a result that needs more than 64 bits is wrong. Returns `buffer`.
 */
char* PrintFigure(char* buffer, size_t size, unsigned long long amount, unsigned long long fromUnit,
                  unsigned long long toUnit);

/** The Use% column: `used` in percent of used + unused, rounded up, or a dash when that cannot be told. */
char* PrintUse(char* buffer, size_t size, unsigned long long used, unsigned long long unused);

/** Appends to a NUL-terminated line of LineSize bytes, as printf would, what still fits. */
[[gnu::format(printf, 2, 3)]] void AppendToLine(char* line, const char* format, ...);
} // namespace ReportFields
