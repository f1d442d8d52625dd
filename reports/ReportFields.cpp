#include "reports/ReportFields.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

char* ReportFields::PrintFigure(char* buffer, size_t size, unsigned long long amount,
                                unsigned long long fromUnit, unsigned long long toUnit)
{
    if (amount == Unknown) {
        snprintf(buffer, size, "-");
        return buffer;
    }
    // Divided first: whole units times the other unit is exact, and does not overflow before the result does.
    unsigned long long result = amount / toUnit * fromUnit + amount % toUnit * fromUnit / toUnit;
    snprintf(buffer, size, "%llu", result);
    return buffer;
}

char* ReportFields::PrintUse(char* buffer, size_t size, unsigned long long used, unsigned long long unused)
{
    // Any user may mount a file system that reports whatever figures it likes: in 64 bits their sum can come
    // out as nothing and divide by it.
    __extension__ using Wide = unsigned __int128;
    Wide base = static_cast<Wide>(used) + unused;
    if (used == Unknown || unused == Unknown || base == 0) {
        snprintf(buffer, size, "%*s ", 4, "- ");
        return buffer;
    }
    Wide percent = (static_cast<Wide>(used) * 100 + base - 1) / base;
    snprintf(buffer, size, "%*llu%% ", 3, static_cast<unsigned long long>(percent));
    return buffer;
}

void ReportFields::AppendToLine(char* line, const char* format, ...)
{
    size_t length = strlen(line);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line + length, LineSize - length, format, arguments);
    va_end(arguments);
}
