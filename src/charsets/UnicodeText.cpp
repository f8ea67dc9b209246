#include "charsets/UnicodeText.h"

#include "charsets/LossyUTF8.h"

#include <span>

namespace brim::UnicodeText {

namespace {

bool isHigh(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLow(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// Calls `body` with each scalar of UTF-16 text.
template <typename Body>
void forEachScalar(std::u16string_view text, Body&& body) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        if (isHigh(unit) && i + 1 < text.size() && isLow(text[i + 1])) {
            body(static_cast<char32_t>(0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00)));
            ++i;
        } else if (isHigh(unit) || isLow(unit)) {
            body(U'\uFFFD');
        } else {
            body(static_cast<char32_t>(unit));
        }
    }
}

// Calls `body` with each scalar of UTF-8 text, one U+FFFD per ill-formed stretch.
template <typename Body>
void forEachScalar(std::string_view text, Body&& body) {
    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        const std::uint8_t lead = bytes[i];
        if (lead < 0x80) {
            body(static_cast<char32_t>(lead));
            ++i;
            continue;
        }
        const LossyUTF8::Step s = LossyUTF8::step(bytes, i);
        if (!s.valid) {
            body(U'\uFFFD');
        } else {
            char32_t scalar = s.length == 2 ? (lead & 0x1Fu) : s.length == 3 ? (lead & 0x0Fu) : (lead & 0x07u);
            for (std::size_t k = 1; k < s.length; ++k) scalar = (scalar << 6) | (bytes[i + k] & 0x3Fu);
            body(scalar);
        }
        i += s.length;
    }
}

} // namespace

void appendUTF8(std::string& out, char32_t scalar) {
    if ((scalar >= 0xD800 && scalar <= 0xDFFF) || scalar > 0x10FFFF) scalar = 0xFFFD;
    if (scalar < 0x80) {
        out.push_back(static_cast<char>(scalar));
    } else if (scalar < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (scalar >> 6)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    } else if (scalar < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (scalar >> 12)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (scalar >> 18)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    }
}

void appendUTF16(std::u16string& out, char32_t scalar) {
    if ((scalar >= 0xD800 && scalar <= 0xDFFF) || scalar > 0x10FFFF) scalar = 0xFFFD;
    if (scalar < 0x10000) {
        out.push_back(static_cast<char16_t>(scalar));
    } else {
        const char32_t value = scalar - 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    }
}

std::string toUTF8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 2);
    forEachScalar(text, [&](char32_t scalar) { appendUTF8(out, scalar); });
    return out;
}

std::u16string toUTF16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    forEachScalar(text, [&](char32_t scalar) { appendUTF16(out, scalar); });
    return out;
}

std::u32string toScalars(std::u16string_view text) {
    std::u32string out;
    out.reserve(text.size());
    forEachScalar(text, [&](char32_t scalar) { out.push_back(scalar); });
    return out;
}

std::u32string toScalars(std::string_view text) {
    std::u32string out;
    out.reserve(text.size());
    forEachScalar(text, [&](char32_t scalar) { out.push_back(scalar); });
    return out;
}

std::u16string repairedUTF16(std::u16string_view text) {
    std::u16string out;
    out.reserve(text.size());
    forEachScalar(text, [&](char32_t scalar) { appendUTF16(out, scalar); });
    return out;
}

} // namespace brim::UnicodeText
