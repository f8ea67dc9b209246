#include "bytes/LineMap.h"

#include <algorithm>

namespace brim::LineMap {

namespace {

/// The length of the valid UTF-8 sequence at `i`, or 1 for a byte that starts none.
std::size_t sequenceLength(std::string_view text, std::size_t i) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) return 1;
    std::size_t length = 0;
    char32_t minimum = 0;
    char32_t scalar = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        minimum = 0x80;
        scalar = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        minimum = 0x800;
        scalar = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        minimum = 0x10000;
        scalar = lead & 0x07u;
    } else {
        return 1;
    }
    if (i + length > text.size()) return 1;
    for (std::size_t k = 1; k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[i + k]);
        if ((next & 0xC0) != 0x80) return 1;
        scalar = (scalar << 6) | (next & 0x3Fu);
    }
    if (scalar < minimum || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) return 1;
    return length;
}

/// Calls `step(scalar, units)` for each scalar of UTF-16 text until it returns false.
template <typename Step> void forEachScalar(std::u16string_view text, Step&& step) {
    for (std::size_t i = 0; i < text.size();) {
        char32_t scalar = text[i];
        std::int64_t units = 1;
        if (scalar >= 0xD800 && scalar <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            scalar = 0x10000 + ((scalar - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            units = 2;
        }
        if (!step(scalar, units)) return;
        i += static_cast<std::size_t>(units);
    }
}

}  // namespace

std::int64_t utf8Length(char32_t scalar) {
    if (scalar < 0x80) return 1;
    if (scalar < 0x800) return 2;
    if (scalar < 0x10000) return 3;
    return 4;
}

std::int64_t utf16IndexForUTF8Offset(std::string_view utf8, std::int64_t offset) {
    const auto limit =
        static_cast<std::size_t>(std::clamp<std::int64_t>(offset, 0, static_cast<std::int64_t>(utf8.size())));
    std::int64_t units = 0;
    for (std::size_t i = 0; i < limit;) {
        const std::size_t length = sequenceLength(utf8, i);
        units += length == 4 ? 2 : 1;
        i += length;
    }
    return units;
}

std::int64_t utf16IndexForUTF8Offset(std::u16string_view text, std::int64_t offset) {
    return utf16IndexForByteOffset(text, offset, ByteWidth::utf8);
}

std::int64_t utf16IndexForByteOffset(std::u16string_view text, std::int64_t offset, ByteWidth width) {
    if (offset < 1) return 0;
    if (width == ByteWidth::singleByte) return std::min(static_cast<std::int64_t>(text.size()), offset);
    std::int64_t bytes = 0;
    std::int64_t units = 0;
    forEachScalar(text, [&](char32_t scalar, std::int64_t scalarUnits) {
        if (bytes >= offset) return false;
        bytes += utf8Length(scalar);
        units += scalarUnits;
        return true;
    });
    return units;
}

std::int64_t utf16IndexForByteOffset(std::u16string_view text, std::int64_t offset,
                                     const EncodedLength& encodedLength) {
    if (offset < 1) return 0;
    std::int64_t bytes = 0;
    std::int64_t units = 0;
    forEachScalar(text, [&](char32_t scalar, std::int64_t scalarUnits) {
        if (bytes >= offset) return false;
        bytes += encodedLength(scalar);
        units += scalarUnits;
        return true;
    });
    return units;
}

std::int64_t utf8OffsetForUTF16Index(std::string_view utf8, std::int64_t index) {
    if (index < 1) return 0;
    std::int64_t units = 0;
    std::size_t i = 0;
    while (i < utf8.size() && units < index) {
        const std::size_t length = sequenceLength(utf8, i);
        units += length == 4 ? 2 : 1;
        i += length;
    }
    return static_cast<std::int64_t>(i);
}

std::int64_t byteOffsetForUTF16Index(std::u16string_view text, std::int64_t index, ByteWidth width) {
    if (width == ByteWidth::singleByte)
        return std::clamp<std::int64_t>(index, 0, static_cast<std::int64_t>(text.size()));
    return byteOffsetForUTF16Index(text, index, utf8Length);
}

std::int64_t byteOffsetForUTF16Index(std::u16string_view text, std::int64_t index,
                                     const EncodedLength& encodedLength) {
    if (index < 1) return 0;
    std::int64_t bytes = 0;
    std::int64_t units = 0;
    forEachScalar(text, [&](char32_t scalar, std::int64_t scalarUnits) {
        if (units >= index) return false;
        bytes += encodedLength(scalar);
        units += scalarUnits;
        return true;
    });
    return bytes;
}

}  // namespace brim::LineMap
