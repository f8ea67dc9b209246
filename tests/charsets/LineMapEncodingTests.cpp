#include "charsets/LineMap+Encoding.h"

#include "charsets/LossyUTF8.h"
#include "charsets/UnicodeText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(LineMapEncoding, bytesAndUnitsMapInEverySet) {
    struct Case {
        const TextEncoding& encoding;
        std::string text;
    };
    const Case cases[] = {
        {TextEncoding::utf8(), "aé€😀z"},
        {TextEncoding::latin1(), "aéüz"},
        {TextEncoding::shiftJIS(), "aあｶ漢z"},
        {TextEncoding::gb18030(), "a你😀z"},
        {TextEncoding::utf16le(), "aé😀z"},
        {TextEncoding::ebcdic037(), "AB C"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.encoding.id);
        const std::u16string text = UnicodeText::toUTF16(c.text);
        const Bytes stored = c.encoding.encode(c.text).bytes;
        // Walk the scalars: at each one's first byte, the index is the units before it.
        std::int64_t byte = 0;
        std::int64_t unit = 0;
        for (const char32_t scalar : UnicodeText::toScalars(std::string_view(c.text))) {
            EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, byte, c.encoding), unit) << "byte " << byte;
            EXPECT_EQ(LineMap::byteOffsetForUTF16Index(text, unit, c.encoding), byte) << "unit " << unit;
            std::string one;
            UnicodeText::appendUTF8(one, scalar);
            byte += static_cast<std::int64_t>(c.encoding.encode(one).bytes.size());
            unit += scalar >= 0x10000 ? 2 : 1;
        }
        EXPECT_EQ(byte, static_cast<std::int64_t>(stored.size()));
        EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, byte, c.encoding), unit);
        EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, 0, c.encoding), 0);
    }
}

TEST(LineMapEncoding, aRepairedUTF8LineMapsThroughItsRawBytes) {
    LossyUTF8::forgetAll();
    // Two stray bytes and then "é": in the repaired text each stray byte is one unit.
    const Bytes raw = {'a', 0xFF, 0xFE, 0xC3, 0xA9, 'b'};
    const std::string repaired = LossyUTF8::decodeRemembering(raw);
    const std::u16string text = UnicodeText::toUTF16(repaired);
    EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, 3, TextEncoding::utf8()), 3);
    EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, 5, TextEncoding::utf8()), 4);
    EXPECT_EQ(LineMap::byteOffsetForUTF16Index(text, 4, TextEncoding::utf8()), 5);
    LossyUTF8::forgetAll();
    // Forgotten, the text's own UTF-8 is all there is: U+FFFD is three bytes.
    EXPECT_EQ(LineMap::utf16IndexForByteOffset(text, 4, TextEncoding::utf8()), 2);
}

} // namespace
} // namespace brim
