#include "shell/RowLayout.h"

#include "store/TextDocument.h"

#include <algorithm>

namespace brim::shell {
namespace {

inline constexpr char32_t replacement = 0xFFFD;

char32_t visible(char32_t scalar) {
    if (scalar < 0x20 && scalar != '\t') return 0x2400 + scalar;
    if (scalar == 0x7F) return 0x2421;
    return scalar;
}

void append(RowText& row, char32_t scalar, std::int64_t byte) {
    scalar = visible(scalar);
    if (scalar >= 0x10000) {
        row.text.append(QChar(QChar::highSurrogate(scalar)));
        row.text.append(QChar(QChar::lowSurrogate(scalar)));
        row.byteOfUnit.push_back(byte);
        row.byteOfUnit.push_back(byte);
    } else {
        row.text.append(QChar(static_cast<char16_t>(scalar)));
        row.byteOfUnit.push_back(byte);
    }
}

// One UTF-8 character at the front of `bytes`: its scalar and length, or U+FFFD and 1 for a stray byte.
std::pair<char32_t, std::size_t> decodeUTF8(std::span<const std::uint8_t> bytes) {
    const std::uint8_t lead = bytes[0];
    if (lead < 0x80) return {lead, 1};
    std::size_t length = 0;
    char32_t scalar = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        scalar = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        scalar = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        scalar = lead & 0x07u;
    } else {
        return {replacement, 1};
    }
    if (length > bytes.size()) return {replacement, 1};
    for (std::size_t i = 1; i < length; ++i) {
        if ((bytes[i] & 0xC0) != 0x80) return {replacement, 1};
        scalar = (scalar << 6) | (bytes[i] & 0x3Fu);
    }
    // Overlong forms, surrogates and values past U+10FFFF are stray bytes too.
    if ((length == 3 && scalar < 0x800) || (length == 4 && (scalar < 0x10000 || scalar > 0x10FFFF)) ||
        (scalar >= 0xD800 && scalar <= 0xDFFF)) {
        return {replacement, 1};
    }
    return {scalar, length};
}

// Scalars of a UTF-16 string.
std::vector<char32_t> scalarsOf(const std::u16string& text) {
    std::vector<char32_t> scalars;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        if (QChar::isHighSurrogate(unit) && i + 1 < text.size() && QChar::isLowSurrogate(text[i + 1])) {
            scalars.push_back(QChar::surrogateToUcs4(unit, text[i + 1]));
            ++i;
        } else {
            scalars.push_back(unit);
        }
    }
    return scalars;
}

} // namespace

int RowText::unitForByte(std::int64_t byte) const {
    const auto found = std::lower_bound(byteOfUnit.begin(), byteOfUnit.end(), byte);
    if (found == byteOfUnit.end()) return static_cast<int>(text.size());
    return static_cast<int>(found - byteOfUnit.begin());
}

RowText decodeRow(const TextDocument& document, std::int64_t from, std::int64_t to) {
    RowText row;
    row.windowStart = from;
    const auto bytes = document.table().bytes({from, std::max(from, to)});
    const TextEncoding& encoding = document.encoding;
    row.text.reserve(static_cast<qsizetype>(bytes.size()));
    row.byteOfUnit.reserve(bytes.size() + 1);
    std::size_t i = 0;
    const std::span<const std::uint8_t> all(bytes);
    if (encoding.id == "utf8") {
        while (i < bytes.size()) {
            const auto [scalar, length] = decodeUTF8(all.subspan(i));
            // A character cut by the window's end waits for the next window.
            if (scalar == replacement && length == 1 && bytes[i] >= 0xC2 && bytes.size() - i < 4 &&
                to < document.byteCount()) {
                break;
            }
            append(row, scalar, from + static_cast<std::int64_t>(i));
            i += length;
        }
    } else if (encoding.isSingleByte()) {
        const auto scalars = scalarsOf(encoding.decodeToUTF16(all));
        if (scalars.size() == bytes.size()) {
            for (; i < bytes.size(); ++i) append(row, scalars[i], from + static_cast<std::int64_t>(i));
        } else {
            for (; i < bytes.size(); ++i) {
                const auto one = scalarsOf(encoding.decodeToUTF16(all.subspan(i, 1)));
                append(row, one.empty() ? replacement : one.front(), from + static_cast<std::int64_t>(i));
            }
        }
    } else {
        // Multi-byte legacy sets: the shortest run of bytes that reads strictly as one character.
        while (i < bytes.size()) {
            if (bytes[i] < 0x80 && encoding.asciiCompatible) {
                append(row, bytes[i], from + static_cast<std::int64_t>(i));
                ++i;
                continue;
            }
            std::size_t length = 0;
            char32_t scalar = replacement;
            for (std::size_t candidate = 1; candidate <= 4 && i + candidate <= bytes.size(); ++candidate) {
                const auto decoded = encoding.decodeStrictly(all.subspan(i, candidate));
                if (!decoded) continue;
                const auto scalars = scalarsOf(*decoded);
                if (scalars.size() == 1) {
                    scalar = scalars.front();
                    length = candidate;
                    break;
                }
            }
            if (length == 0) length = 1;
            append(row, scalar, from + static_cast<std::int64_t>(i));
            i += length;
        }
    }
    row.windowEnd = from + static_cast<std::int64_t>(i);
    row.byteOfUnit.push_back(row.windowEnd);
    return row;
}

} // namespace brim::shell
