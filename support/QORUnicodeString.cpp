#include "support/QORUnicodeString.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace
{
/** The number as printf writes it; a format that asks for more than fits here is cut. */
template <class Number>
std::string Format(Number number, const char* format)
{
    char buffer[128];
    int length = snprintf(buffer, sizeof buffer, format, number);
    if (length < 0)
        return {};
    return std::string(buffer, std::min(static_cast<size_t>(length), sizeof buffer - 1));
}

template <class Number>
int ReadWholeNumber(const std::string& text, Number* number)
{
    const char* begin = text.data();
    const char* end = begin + text.size();
    // from_chars knows no plus sign, and "+-1" must not become a number by skipping one.
    if (end - begin > 1 && *begin == '+' && begin[1] != '-')
        ++begin;
    Number read{};
    auto [stop, error] = std::from_chars(begin, end, read);
    if (error != std::errc() || stop != end)
        return 0;
    *number = read;
    return 1;
}
} // namespace

QORUnicodeString::QORUnicodeString(const char* text)
{
    if (text != nullptr)
        text_ = text;
}

QORUnicodeString& QORUnicodeString::operator=(const char* text)
{
    if (text != nullptr)
        text_ = text;
    else
        text_.clear();
    return *this;
}

QORUnicodeString& QORUnicodeString::Append(const QORUnicodeString& other)
{
    text_ += other.text_;
    return *this;
}

void QORUnicodeString::BuildFromNum(int number, const char* format)
{
    text_ = Format(number, format);
}
void QORUnicodeString::BuildFromNum(unsigned int number, const char* format)
{
    text_ = Format(number, format);
}
void QORUnicodeString::BuildFromNum(long number, const char* format)
{
    text_ = Format(number, format);
}
void QORUnicodeString::BuildFromNum(unsigned long number, const char* format)
{
    text_ = Format(number, format);
}
void QORUnicodeString::BuildFromNum(long long number, const char* format)
{
    text_ = Format(number, format);
}

int QORUnicodeString::ConvertToNum(int* number, const char*) const
{
    return ReadWholeNumber(text_, number);
}
int QORUnicodeString::ConvertToNum(unsigned int* number, const char*) const
{
    return ReadWholeNumber(text_, number);
}
int QORUnicodeString::ConvertToNum(long* number, const char*) const
{
    return ReadWholeNumber(text_, number);
}
int QORUnicodeString::ConvertToNum(long long* number, const char*) const
{
    return ReadWholeNumber(text_, number);
}

int QORUnicodeString::SearchSubString(const QORUnicodeString& what, int start, QORSearchMode) const
{
    size_t position = text_.find(what.text_, static_cast<size_t>(std::max(start, 0)));
    return position == std::string::npos ? -1 : static_cast<int>(position);
}

QORUnicodeString QORUnicodeString::SubString(int start, int length) const
{
    long long size = static_cast<long long>(text_.size());
    long long first = std::clamp<long long>(start, 0, size);
    long long last = std::clamp<long long>(static_cast<long long>(start) + length, first, size);
    return QORUnicodeString(
        std::string_view(text_).substr(static_cast<size_t>(first), static_cast<size_t>(last - first)));
}

void QORUnicodeString::ToLower()
{
    for (char& character : text_) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
}
