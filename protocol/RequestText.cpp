#include "protocol/RequestText.h"

#include "protocol/RequestForms.h"
#include "protocol/Texts.h"

#include <algorithm>
#include <string.h>

namespace protocol
{

namespace
{

constexpr char SeparatorByte = '|';

/** Builds the fields of `text` from the positions of its first separators. */
RequestFields FieldsBetween(std::string_view text, const std::array<std::size_t, MostFields>& separators,
                            int separatorCount)
{
    RequestFields result;
    if (text.empty())
        return result;
    result.count = separatorCount + 1;
    std::size_t begin = 0;
    for (int i = 0; i < MostFields && i <= separatorCount; ++i) {
        const std::size_t end = i < separatorCount ? separators[static_cast<size_t>(i)] : text.size();
        result.fields[static_cast<size_t>(i)] = text.substr(begin, end - begin);
        begin = end + 1;
    }
    return result;
}

/** Notes the separators of `bytes`, which stand at `offset` of the whole. */
void NoteSeparators(std::string_view bytes, std::size_t offset,
                    std::array<std::size_t, MostFields>& separators, int& count)
{
    for (std::size_t at = bytes.find(SeparatorByte); at != std::string_view::npos;
         at = bytes.find(SeparatorByte, at + 1)) {
        if (count < MostFields)
            separators[static_cast<size_t>(count)] = offset + at;
        ++count;
    }
}

} // namespace

RequestFields SplitRequest(std::string_view text)
{
    std::array<std::size_t, MostFields> separators{};
    int count = 0;
    NoteSeparators(text, 0, separators, count);
    return FieldsBetween(text, separators, count);
}

std::string_view WithoutTerminator(std::string_view text)
{
    if (text.empty() || (text.back() != '\n' && text.back() != '\0'))
        return text;
    const bool isLineFeed = text.back() == '\n';
    text.remove_suffix(1);
    if (isLineFeed && !text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    return text;
}

bool RequestText::Append(std::string_view bytes)
{
    if (bytes.size() > Limit - bytes_.size())
        return false;
    NoteSeparators(bytes, bytes_.size(), separators_, separatorCount_);
    bytes_.reserve(FirstRoom);
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return true;
}

int RequestText::SilenceToAwait() const
{
    if (bytes_.size() < SmallestSegment)
        return 0;
    const RequestFields fields = Fields();
    const bool known = RecognizeRequest(fields, VersionIndex(fields[1])) != RequestKind::Unknown;
    const bool terminated = LengthWithoutTerminator() < bytes_.size();
    if (known && terminated)
        return 0;
    return known ? ShortSilence : LongSilence;
}

RequestFields RequestText::Fields() const
{
    return FieldsBetween(View().substr(0, LengthWithoutTerminator()), separators_, separatorCount_);
}

void RequestText::KeepFields(int count)
{
    if (count > 0 && (separatorCount_ < count || bytes_.capacity() <= FirstRoom))
        return;
    SecretBytes kept;
    if (count > 0) {
        // With the separator: else what a field ends with might be taken for the request's terminator.
        const std::size_t length = separators_[static_cast<size_t>(count - 1)] + 1;
        kept.reserve(std::max(length, FirstRoom));
        kept.assign(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(length));
    }
    kept.swap(bytes_);
    separatorCount_ = count;
}

void RequestText::WipeField(int position)
{
    const std::string_view field = Fields()[position];
    if (!field.empty())
        explicit_bzero(bytes_.data() + (field.data() - bytes_.data()), field.size());
}

} // namespace protocol
