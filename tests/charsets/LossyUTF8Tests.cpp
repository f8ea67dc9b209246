#include "charsets/LossyUTF8.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

constexpr std::string_view replacement = "\xEF\xBF\xBD";

TEST(LossyUTF8, eachIllFormedStretchIsOneReplacement) {
    struct Case {
        std::string_view bytes;
        std::string_view repaired;
    };
    const Case cases[] = {
        {"plain", "plain"},
        {"caf\xC3\xA9", "caf\xC3\xA9"},
        {"\x80", "\xEF\xBF\xBD"},                               // a lone continuation byte
        {"\xC3", "\xEF\xBF\xBD"},                               // a lead at the end
        {"\xE2\x82" "x", "\xEF\xBF\xBD" "x"},                   // two bytes of three: one stretch
        {"\xF0\x9F\x98" "\xF0\x9F\x98\x80", "\xEF\xBF\xBD\xF0\x9F\x98\x80"},
        {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},               // overlong: C0 starts nothing
        {"\xE0\x80\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"}, // overlong three-byte form
        {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"}, // a surrogate
        {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"}, // above U+10FFFF
        {"\xF5\xFF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.bytes));
        EXPECT_EQ(LossyUTF8::repaired(bytesOf(c.bytes)), c.repaired);
        EXPECT_EQ(LossyUTF8::isValid(bytesOf(c.bytes)), c.bytes == c.repaired);
    }
}

TEST(LossyUTF8, offsetsMapThroughTheRepairedText) {
    // "a", a stray byte, "é", a three-byte character, an emoji (two UTF-16 units), "z".
    const Bytes line = bytesOf("a\xFF\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z");
    //                    byte:   0 1   2       4           7              11
    //                  unit:    0 1   2       3           4 (and 5)      6
    EXPECT_EQ(LossyUTF8::utf16Index(0, line), 0);
    EXPECT_EQ(LossyUTF8::utf16Index(1, line), 1);
    EXPECT_EQ(LossyUTF8::utf16Index(2, line), 2);
    EXPECT_EQ(LossyUTF8::utf16Index(3, line), 3);    // inside "é": lands after it
    EXPECT_EQ(LossyUTF8::utf16Index(7, line), 4);
    EXPECT_EQ(LossyUTF8::utf16Index(11, line), 6);
    EXPECT_EQ(LossyUTF8::utf16Index(99, line), 7);
    EXPECT_EQ(LossyUTF8::byteLength(2, line), 2);
    EXPECT_EQ(LossyUTF8::byteLength(5, line), 11);   // inside the pair: the whole character
    EXPECT_EQ(LossyUTF8::byteLength(99, line), 12);
    EXPECT_EQ(LossyUTF8::byteOffsets(line), (std::vector<std::int64_t>{0, 1, 2, 4, 7, 7, 11, 12}));
}

TEST(LossyUTF8, offsetMapsAgreeOnRandomBytes) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 200; ++round) {
        Bytes bytes(static_cast<std::size_t>(round % 40));
        for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(random) % 3 == 0 ? 0x80 + byte(random) % 0x80 : byte(random));
        const auto offsets = LossyUTF8::byteOffsets(bytes);
        const std::string text = LossyUTF8::repaired(bytes);
        std::int64_t units = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            if ((c & 0xC0) != 0x80) units += c >= 0xF0 ? 2 : 1;
        }
        ASSERT_EQ(static_cast<std::int64_t>(offsets.size()), units + 1);
        for (std::int64_t u = 0; u <= units; ++u) {
            // Every unit's start maps back to the unit (the second half of a pair to the first).
            const std::int64_t index = LossyUTF8::utf16Index(offsets[static_cast<std::size_t>(u)], bytes);
            EXPECT_TRUE(index == u || index == u - 1) << round << " " << u;
            EXPECT_GE(LossyUTF8::byteLength(u, bytes), offsets[static_cast<std::size_t>(u)]);
        }
    }
}

TEST(LossyUTF8, remembersTheNewestLinesOnly) {
    LossyUTF8::forgetAll();
    EXPECT_FALSE(LossyUTF8::raw("anything").has_value());
    const Bytes stray = bytesOf("ab\xFF");
    const std::string text = LossyUTF8::decodeRemembering(stray);
    EXPECT_EQ(text, std::string("ab") + std::string(replacement));
    EXPECT_EQ(LossyUTF8::raw(text), stray);
    // A clean line is not remembered.
    EXPECT_EQ(LossyUTF8::decodeRemembering(bytesOf("clean")), "clean");
    EXPECT_FALSE(LossyUTF8::raw("clean").has_value());
    // 513 newer texts push the first one out; the 513 stay.
    for (int i = 0; i < 513; ++i) LossyUTF8::remember("line " + std::to_string(i), bytesOf("x\xFE"));
    EXPECT_FALSE(LossyUTF8::raw(text).has_value());
    EXPECT_TRUE(LossyUTF8::raw("line 0").has_value());
    EXPECT_TRUE(LossyUTF8::raw("line 512").has_value());
    LossyUTF8::forgetAll();
    EXPECT_FALSE(LossyUTF8::raw("line 512").has_value());
}

} // namespace
} // namespace brim
