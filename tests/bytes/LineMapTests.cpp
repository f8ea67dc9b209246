#include "bytes/LineMap.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace brim {
namespace {

/// UTF-16 of valid UTF-8, the plain way.
std::u16string utf16Of(std::string_view utf8) {
    std::u16string out;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        char32_t scalar = lead;
        std::size_t length = 1;
        if (lead >= 0xF0) {
            length = 4;
            scalar = lead & 0x07u;
        } else if (lead >= 0xE0) {
            length = 3;
            scalar = lead & 0x0Fu;
        } else if (lead >= 0xC0) {
            length = 2;
            scalar = lead & 0x1Fu;
        }
        for (std::size_t k = 1; k < length; ++k)
            scalar = (scalar << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3Fu);
        if (scalar >= 0x10000) {
            out.push_back(static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(scalar));
        }
        i += length;
    }
    return out;
}

TEST(LineMap, anOffsetInsideACharacterLandsAfterIt) {
    // a (1 byte), é (2), € (3), 𝄞 (4 bytes, 2 units), b (1).
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E"
                             "b";
    const std::u16string decoded = utf16Of(text);
    ASSERT_EQ(decoded.size(), 6u);
    const std::int64_t expected[] = {0, 1, 2, 2, 3, 3, 3, 5, 5, 5, 5, 6, 6, 6};
    for (std::int64_t offset = 0; offset < 14; ++offset) {
        SCOPED_TRACE(offset);
        EXPECT_EQ(LineMap::utf16IndexForUTF8Offset(text, offset), expected[offset]);
        EXPECT_EQ(LineMap::utf16IndexForUTF8Offset(decoded, offset), expected[offset]);
        EXPECT_EQ(LineMap::utf16IndexForByteOffset(decoded, offset, LineMap::ByteWidth::utf8),
                  expected[offset]);
    }
    // Index 4 is the second half of the pair, which lands after the pair.
    const std::int64_t bytesForIndex[] = {0, 1, 3, 6, 10, 10, 11};
    for (std::int64_t index = 0; index <= 6; ++index) {
        SCOPED_TRACE(index);
        EXPECT_EQ(LineMap::utf8OffsetForUTF16Index(text, index), bytesForIndex[index]);
        EXPECT_EQ(LineMap::byteOffsetForUTF16Index(decoded, index, LineMap::ByteWidth::utf8),
                  bytesForIndex[index]);
    }
}

TEST(LineMap, bothDirectionsAgreeOnRandomText) {
    const char* pieces[] = {"x", " ", "\xC3\xBC", "\xE4\xB8\xAD", "\xF0\x9F\x98\x80", "\xD0\x96"};
    std::mt19937 random(3);
    for (int trial = 0; trial < 50; ++trial) {
        std::string text;
        for (int i = 0; i < 40; ++i)
            text += pieces[random() % std::size(pieces)];
        const std::u16string decoded = utf16Of(text);
        for (std::int64_t offset = 0; offset <= static_cast<std::int64_t>(text.size()) + 2; ++offset) {
            const std::int64_t index = LineMap::utf16IndexForUTF8Offset(text, offset);
            ASSERT_EQ(index, LineMap::utf16IndexForByteOffset(decoded, offset, LineMap::ByteWidth::utf8));
            // Back again: at a character boundary exactly, inside one at its end.
            const std::int64_t back = LineMap::utf8OffsetForUTF16Index(text, index);
            ASSERT_GE(back, std::min<std::int64_t>(offset, static_cast<std::int64_t>(text.size())));
            ASSERT_EQ(back, LineMap::byteOffsetForUTF16Index(decoded, index, LineMap::ByteWidth::utf8));
            const bool boundary =
                offset >= static_cast<std::int64_t>(text.size()) ||
                (static_cast<unsigned char>(text[static_cast<std::size_t>(offset)]) & 0xC0) != 0x80;
            if (boundary) {
                ASSERT_EQ(back, std::min<std::int64_t>(offset, static_cast<std::int64_t>(text.size())));
            }
        }
    }
}

TEST(LineMap, singleByteAndOtherWidths) {
    const std::u16string text = u"caf\u00E9!";
    EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, 3, LineMap::ByteWidth::singleByte), 3);
    EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, 99, LineMap::ByteWidth::singleByte), 5);
    EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, -1, LineMap::ByteWidth::singleByte), 0);
    EXPECT_EQ(LineMap::byteOffsetForUTF16Index(text, 4, LineMap::ByteWidth::singleByte), 4);
    // An encoding where everything past ASCII takes two bytes, as a double-byte set does.
    const LineMap::EncodedLength twoPastASCII = [](char32_t scalar) -> std::int64_t {
        return scalar < 0x80 ? 1 : 2;
    };
    const std::u16string mixed = u"ab\u4E2D\u6587c";
    const std::int64_t expected[] = {0, 1, 2, 3, 3, 4, 4, 5, 5};
    for (std::int64_t offset = 0; offset < 9; ++offset) {
        SCOPED_TRACE(offset);
        EXPECT_EQ(LineMap::utf16IndexForByteOffset(mixed, offset, twoPastASCII), expected[offset]);
    }
    EXPECT_EQ(LineMap::byteOffsetForUTF16Index(mixed, 3, twoPastASCII), 4);
    EXPECT_EQ(LineMap::byteOffsetForUTF16Index(mixed, 5, twoPastASCII), 7);
}

TEST(LineMap, strayBytesCountAsOneUnitEach) {
    // A lone continuation byte, a lead byte without its tail, an overlong form: one U+FFFD each.
    const std::string text = "a\x80"
                             "b\xE2\x82"
                             "c\xC0\xAF";
    EXPECT_EQ(LineMap::utf16IndexForUTF8Offset(text, static_cast<std::int64_t>(text.size())), 8);
    EXPECT_EQ(LineMap::utf16IndexForUTF8Offset(text, 2), 2);
    EXPECT_EQ(LineMap::utf8OffsetForUTF16Index(text, 5), 5);
}

}  // namespace
}  // namespace brim
