#include "support/BaseString.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>

#include "support/Clock.h"
#include "support/TraceWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
void Trace(std::initializer_list<std::string_view> pieces, int endOfLine)
{
    for (std::string_view piece : pieces)
        TraceWriter::Append(piece);
    if (endOfLine != 0)
        TraceWriter::EndLine();
}

void SetError(QORUnicodeString& error, int systemError)
{
    error = strerror(systemError);
}

/** The last argument has no value behind it: an option there is absent. */
int FindOption(const QORListValQORUnicodeString& arguments, const QORUnicodeString& option, int last)
{
    for (int i = 1; i <= last; ++i) {
        if (arguments[i] == option)
            return i;
    }
    return 0;
}

/** 0 when `path` gives this process' effective user the rights, else the system's error. */
int CheckAccess(const QORUnicodeString& path, int rights)
{
    return faccessat(AT_FDCWD, path.ConvertToChar(), rights, AT_EACCESS) == 0 ? 0 : errno;
}

int ReadUpTo(int descriptor, char* buffer, int maxBytes)
{
    int count = 0;
    while (count < maxBytes) {
        ssize_t got = read(descriptor, buffer + count, static_cast<size_t>(maxBytes - count));
        if (got == 0)
            break;
        if (got < 0 && errno != EINTR)
            return -1;
        if (got > 0)
            count += static_cast<int>(got);
    }
    return count;
}
} // namespace

void BaseString::PutTrace(const char* text, const int& endOfLine)
{
    Trace({text == nullptr ? "" : text}, endOfLine);
}

void BaseString::PutTrace(const QORUnicodeString& text, const int& endOfLine)
{
    Trace({text.View()}, endOfLine);
}

void BaseString::PutTrace(const QORUnicodeString& a, const QORUnicodeString& b, const int& endOfLine)
{
    Trace({a.View(), b.View()}, endOfLine);
}

void BaseString::PutTrace(const QORUnicodeString& a, const QORUnicodeString& b, const QORUnicodeString& c,
                          const int& endOfLine)
{
    Trace({a.View(), b.View(), c.View()}, endOfLine);
}

void BaseString::PutTrace(const QORUnicodeString& a, const int& number, const QORUnicodeString& b,
                          const int& endOfLine)
{
    Trace({a.View(), std::to_string(number), b.View()}, endOfLine);
}

int BaseString::CheckOption(const QORListValQORUnicodeString& arguments, const QORUnicodeString& option)
{
    return FindOption(arguments, option, arguments.Size());
}

int BaseString::CheckOptionWithArgument(const QORListValQORUnicodeString& arguments,
                                        const QORUnicodeString& option, QORUnicodeString& value)
{
    int position = FindOption(arguments, option, arguments.Size() - 1);
    if (position != 0)
        value = arguments[position + 1];
    return position;
}

int BaseString::CreateFormatedDate(QORUnicodeString& out, const long& seconds)
{
    time_t instant = seconds;
    tm local;
    char text[64];
    if (localtime_r(&instant, &local) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return -1;
    out = text;
    return 0;
}

long BaseString::GetTimeInSec()
{
    return static_cast<long>(Clock::EpochMilliseconds() / 1000);
}

void BaseString::GetTimeInMilliSec(long& seconds, long& milliseconds)
{
    long long now = Clock::EpochMilliseconds();
    seconds = static_cast<long>(now / 1000);
    milliseconds = static_cast<long>(now % 1000);
}

int BaseString::CheckFile(const QORUnicodeString& path, QORUnicodeString& error, const int&)
{
    struct stat status;
    if (stat(path.ConvertToChar(), &status) != 0) {
        SetError(error, errno);
        return 1;
    }
    if (!S_ISREG(status.st_mode)) {
        error = S_ISDIR(status.st_mode) ? strerror(EISDIR) : "Not a regular file";
        return 1;
    }
    int refused = CheckAccess(path, R_OK);
    if (refused != 0)
        SetError(error, refused);
    return refused == 0 ? 0 : 1;
}

int BaseString::CheckDirectory(const QORUnicodeString& path, QORUnicodeString& error, const int& mode)
{
    struct stat status;
    if (stat(path.ConvertToChar(), &status) != 0) {
        SetError(error, errno);
        return -1;
    }
    int refused = S_ISDIR(status.st_mode) ? CheckAccess(path, mode == 1 ? W_OK | X_OK : X_OK) : ENOTDIR;
    if (refused != 0)
        SetError(error, refused);
    return refused == 0 ? 0 : -1;
}

long long BaseString::GetSizeOfFileOrDirectory(const QORUnicodeString& path, QORUnicodeString& error)
{
    struct stat status;
    if (stat(path.ConvertToChar(), &status) != 0) {
        SetError(error, errno);
        return -1;
    }
    return status.st_size;
}

int BaseString::ConvertBinaryFileToBuffer(const QORUnicodeString& path, char* buffer, const int& maxBytes)
{
    // Not blocking: a pipe that was put in the file's place would hold the opening up for ever.
    int descriptor = open(path.ConvertToChar(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0)
        return -1;
    int count = ReadUpTo(descriptor, buffer, maxBytes);
    close(descriptor);
    return count;
}

int BaseString::CreateListOfString(QORListValQORUnicodeString& out, const QORUnicodeString& text,
                                   const QORUnicodeString& separators, const int& maxFields)
{
    std::string_view rest = text.View();
    if (rest.empty())
        return 0;
    int count = 1;
    for (; maxFields <= 0 || count < maxFields; ++count) {
        size_t end = rest.find_first_of(separators.View());
        if (end == std::string_view::npos)
            break;
        out.Append(QORUnicodeString(rest.substr(0, end)));
        rest.remove_prefix(end + 1);
    }
    out.Append(QORUnicodeString(rest));
    return count;
}

void BaseString::CreateString(QORUnicodeString& out, const QORListValQORUnicodeString& list,
                              const QORUnicodeString& separator)
{
    std::string joined;
    for (int i = 1; i <= list.Size(); ++i) {
        if (i > 1)
            joined += separator.View();
        joined += list[i].View();
    }
    out = QORUnicodeString(std::move(joined));
}
