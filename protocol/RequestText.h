#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "support/SecretBytes.h"

namespace protocol
{

/** No served request has more fields. */
inline constexpr int MostFields = 12;

/**
 * The fields of one request. `count` is the true number of fields; only the first MostFields of them are
 * kept, since a request with more is of no form. The views belong to whoever holds the request's bytes.
 */
struct RequestFields {
    int count = 0;
    std::array<std::string_view, MostFields> fields;

    /** Field `position`, 1-based; empty beyond the last one. */
    std::string_view operator[](int position) const
    {
        return position >= 1 && position <= MostFields ? fields[static_cast<size_t>(position - 1)]
                                                       : std::string_view();
    }
};

/** The whole text split at every separator, empty fields kept; the empty text has none. */
RequestFields SplitRequest(std::string_view text);

/** What a client wrote, less one trailing terminator (CR LF, LF or NUL). */
std::string_view WithoutTerminator(std::string_view text);

/**
 * A request as it arrives. On the wire it is what one client write delivers, without length or terminator,
 * so the end must be told from what has come: a text shorter than the smallest segment is whole as soon as
 * it is there, a longer one when it ends with a terminator and is of a known form, or after a silence.
 *
 * Field boundaries are noted as bytes come in, so that judging costs the same however long the request is
 * and into however many pieces a client cuts it. Owned by the waiting client. It may hold a password, so
 * that only this process has the bytes: no child that it forks.
 */
class RequestText
{
public:
    /** One segment on any network, in bytes: nothing shorter is ever cut by the way. */
    static constexpr std::size_t SmallestSegment = 536;
    /** A request past this many bytes is a failed read. */
    static constexpr std::size_t Limit = 1024 * 1024;
    /** Silences, in milliseconds, after which what has arrived is taken for the whole. The long one is for
     * a text that is of no form yet: a lost segment may still be on its way. */
    static constexpr int ShortSilence = 20;
    static constexpr int LongSilence = 1000;

    RequestText() = default;
    RequestText(const RequestText&) = delete;
    RequestText& operator=(const RequestText&) = delete;

    /** Takes what has arrived; false once the request is past the limit. */
    bool Append(std::string_view bytes);
    bool IsEmpty() const { return bytes_.empty(); }
    std::size_t Size() const { return bytes_.size(); }
    /** 0 when the request is whole, else the silence in milliseconds after which it is. */
    int SilenceToAwait() const;
    /** The fields, one trailing terminator (CR LF, LF or NUL) dropped. Valid until the next change. */
    RequestFields Fields() const;
    /** Gives back the memory of all but the first `count` fields, where that is worth it; they themselves,
     * and that they are ended by a separator, stay. Field views become invalid. */
    void KeepFields(int count);
    /** Overwrites one field in place: a password that has been handed on. Field views stay valid. */
    void WipeField(int position);

private:
    /** Room for an ordinary request, in bytes: a page, which is as little as there is of such memory. */
    static constexpr std::size_t FirstRoom = 4096;

    std::string_view View() const { return {bytes_.data(), bytes_.size()}; }
    std::size_t LengthWithoutTerminator() const { return WithoutTerminator(View()).size(); }

    SecretBytes bytes_;
    int separatorCount_ = 0;
    std::array<std::size_t, MostFields> separators_{};
};

} // namespace protocol
