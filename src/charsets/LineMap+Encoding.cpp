#include "charsets/LineMap+Encoding.h"

#include "bytes/LineMap.h"
#include "charsets/LossyUTF8.h"
#include "charsets/UnicodeText.h"

#include <span>

namespace brim::LineMap {

namespace {

bool isUTF8(const TextEncoding& encoding) { return encoding.id == TextEncoding::utf8().id; }

// How many bytes one scalar takes in the set. Fixed widths are known; the rest are asked of the set.
EncodedLength encodedLength(const TextEncoding& encoding) {
    if (const auto width = encoding.unicodeUnitWidth()) {
        const int unit = *width;
        return [unit](char32_t scalar) -> std::int64_t { return unit == 2 && scalar >= 0x10000 ? 4 : unit; };
    }
    return [&encoding](char32_t scalar) -> std::int64_t {
        if (scalar < 0x80 && encoding.asciiCompatible && !encoding.stateful) return 1;
        std::string one;
        UnicodeText::appendUTF8(one, scalar);
        return static_cast<std::int64_t>(encoding.encode(one).bytes.size());
    };
}

} // namespace

std::int64_t utf16IndexForByteOffset(std::u16string_view text, std::int64_t offset, const TextEncoding& encoding) {
    if (offset < 1) return 0;
    if (isUTF8(encoding)) {
        if (const auto raw = LossyUTF8::raw(UnicodeText::toUTF8(text))) return LossyUTF8::utf16Index(offset, *raw);
        return utf16IndexForByteOffset(text, offset, ByteWidth::utf8);
    }
    if (encoding.isSingleByte()) return utf16IndexForByteOffset(text, offset, ByteWidth::singleByte);
    return utf16IndexForByteOffset(text, offset, encodedLength(encoding));
}

std::int64_t byteOffsetForUTF16Index(std::u16string_view text, std::int64_t index, const TextEncoding& encoding) {
    if (index < 1) return 0;
    if (isUTF8(encoding)) {
        if (const auto raw = LossyUTF8::raw(UnicodeText::toUTF8(text))) return LossyUTF8::byteLength(index, *raw);
        return byteOffsetForUTF16Index(text, index, ByteWidth::utf8);
    }
    if (encoding.isSingleByte()) return byteOffsetForUTF16Index(text, index, ByteWidth::singleByte);
    return byteOffsetForUTF16Index(text, index, encodedLength(encoding));
}

} // namespace brim::LineMap
