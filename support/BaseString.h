#pragma once

#include "support/QORLists.h"
#include "support/QORUnicodeString.h"

/**
 * Utilities around texts: the trace, the command line, time, and files. Static members only; nothing here
 * throws or knows of requests and commands.
 */
class BaseString
{
public:
    BaseString() = delete;

    // The trace goes to standard output, one write per line. A piece with `endOfLine` 0 leaves its line
    // open, the piece with 1 ends it. The writer never waits for a reader: a line that the descriptor has
    // no room for is dropped and counted, and "N trace line(s) lost" is written before the next line that
    // finds room.
    static void PutTrace(const char* text, const int& endOfLine);
    static void PutTrace(const QORUnicodeString& text, const int& endOfLine);
    static void PutTrace(const QORUnicodeString& a, const QORUnicodeString& b, const int& endOfLine);
    static void PutTrace(const QORUnicodeString& a, const QORUnicodeString& b, const QORUnicodeString& c,
                         const int& endOfLine);
    static void PutTrace(const QORUnicodeString& a, const int& number, const QORUnicodeString& b,
                         const int& endOfLine);

    /** Nonzero when `option` is one of the arguments, compared whole and with its case. */
    static int CheckOption(const QORListValQORUnicodeString& arguments, const QORUnicodeString& option);
    /** Nonzero when `option` stands in the list with an argument behind it, which goes to `value`. */
    static int CheckOptionWithArgument(const QORListValQORUnicodeString& arguments,
                                       const QORUnicodeString& option, QORUnicodeString& value);

    /** Local time as 2026-11-22 20:15:04. 0, or -1 when `seconds` cannot be told as a date. */
    static int CreateFormatedDate(QORUnicodeString& out, const long& seconds);

    /**
     * Seconds since the epoch on a clock that starts at the wall clock and then runs steadily: setting the
     * system's clock moves no life time-out.
     */
    static long GetTimeInSec();
    /** The same clock, split into seconds and the milliseconds within the second. */
    static void GetTimeInMilliSec(long& seconds, long& milliseconds);

    /** 0 when `path` is a regular file that may be read, else 1 with a one-line reason. `mode` is 0. */
    static int CheckFile(const QORUnicodeString& path, QORUnicodeString& error, const int& mode);
    /**
     * 0 when `path` is a directory in which this process may make files, else -1 with a one-line reason.
     * `mode` 1 asks for write permission, 0 only for a directory that can be entered.
     */
    static int CheckDirectory(const QORUnicodeString& path, QORUnicodeString& error, const int& mode);
    /** Size in bytes, or -1 with a one-line reason. */
    static long long GetSizeOfFileOrDirectory(const QORUnicodeString& path, QORUnicodeString& error);
    /** Reads at most `maxBytes` from the start of the file; the count read, or -1. No terminator. */
    static int ConvertBinaryFileToBuffer(const QORUnicodeString& path, char* buffer, const int& maxBytes);

    /**
     * Splits `text` at every separator character and appends the fields to `out`, empty ones included:
     * "a||b" gives three, "a|" two, "" none. With `maxFields` above 0 the last field keeps the rest
     * unsplit; -1 is no limit. The number of fields appended.
     */
    static int CreateListOfString(QORListValQORUnicodeString& out, const QORUnicodeString& text,
                                  const QORUnicodeString& separators, const int& maxFields);
    /** `out` becomes the list's elements joined by `separator`. */
    static void CreateString(QORUnicodeString& out, const QORListValQORUnicodeString& list,
                             const QORUnicodeString& separator);
};
