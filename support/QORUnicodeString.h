#pragma once

#include <string>
#include <string_view>

/**
 * A text with value semantics. It holds bytes: length in characters and in bytes are the same, and a NUL
 * inside is kept. Positions are 0-based. No operation throws anything but std::bad_alloc.
 */
class QORUnicodeString
{
public:
    /** How SearchSubString walks: Forward is from the start position to the end. */
    enum QORSearchMode { Forward };

    QORUnicodeString() = default;
    /** A null pointer gives the empty text. */
    QORUnicodeString(const char* text);
    QORUnicodeString(std::string_view text) : text_(text) {}
    QORUnicodeString(std::string text) : text_(std::move(text)) {}

    QORUnicodeString& operator=(const char* text);

    QORUnicodeString& Append(const QORUnicodeString& other);
    void Reset() { text_.clear(); }

    /** Replaces the contents with the number as printf would write it with `format`. */
    void BuildFromNum(int number, const char* format);
    void BuildFromNum(unsigned int number, const char* format);
    void BuildFromNum(long number, const char* format);
    void BuildFromNum(unsigned long number, const char* format);
    void BuildFromNum(long long number, const char* format);

    /**
     * Reads the whole text as one decimal number: an optional sign (no '-' for an unsigned target), then
     * digits and nothing else. Nonzero when a number was read; 0, and the target untouched, when the text
     * is empty, holds anything else (blanks included) or does not fit. `format` names the target's type
     * ("%d", "%u", "%ld", "%lld") for the reader.
     */
    int ConvertToNum(int* number, const char* format) const;
    int ConvertToNum(unsigned int* number, const char* format) const;
    int ConvertToNum(long* number, const char* format) const;
    int ConvertToNum(long long* number, const char* format) const;

    /** NUL-terminated view, valid until the text is next changed. */
    const char* ConvertToChar() const { return text_.c_str(); }
    /** The same bytes with their length, for texts that may hold a NUL. */
    std::string_view View() const { return text_; }

    int GetLengthInByte() const { return static_cast<int>(text_.size()); }
    int GetLengthInChar() const { return static_cast<int>(text_.size()); }

    /** Position of the first occurrence of `what` at or after `start`, -1 when there is none. */
    int SearchSubString(const QORUnicodeString& what, int start, QORSearchMode mode) const;
    /** At most `length` characters from `start`; a part outside the text is left out. */
    QORUnicodeString SubString(int start, int length) const;

    /** Lower-cases the ASCII letters in place, whatever the locale. */
    void ToLower();

    friend bool operator==(const QORUnicodeString& a, const QORUnicodeString& b) = default;

private:
    std::string text_;
};
