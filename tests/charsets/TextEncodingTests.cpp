#include "charsets/TextEncoding.h"

#include "EncodingPrinting.h"

#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

std::string textOf(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

TEST(TextEncoding, everydaySetsCarryTheirTextThereAndBack) {
    struct Case {
        const TextEncoding& encoding;
        std::string text;
    };
    const Case cases[] = {
        {TextEncoding::utf8(), "Grüße, 世界 🎉"},
        {TextEncoding::utf16le(), "Grüße, 世界 🎉"},
        {TextEncoding::utf16be(), "Grüße, 世界 🎉"},
        {TextEncoding::utf32le(), "Grüße, 世界 🎉"},
        {TextEncoding::utf32be(), "Grüße, 世界 🎉"},
        {TextEncoding::ascii(), "plain text ~"},
        {TextEncoding::latin1(), "Grüße aus Köln ½"},
        {TextEncoding::latin2(), "Žluťoučký kůň úpěl"},
        {TextEncoding::latin9(), "Prix: 5 € œuvre"},
        {TextEncoding::cp1250(), "Zażółć gęślą jaźń „cytat”"},
        {TextEncoding::cp1251(), "Съешь же ещё этих мягких булок"},
        {TextEncoding::cp1252(), "“Quotes” – and € too"},
        {TextEncoding::cp1253(), "Καλημέρα κόσμε"},
        {TextEncoding::cp1254(), "Ağaç ışığı şöyle"},
        {TextEncoding::cp1257(), "Ąžuolas ėjo į šlaitą"},
        {TextEncoding::macRoman(), "Größe • café ﬁ"},
        {TextEncoding::koi8r(), "Широкая электрификация"},
        {TextEncoding::cp437(), "╔═╗ ½ ü"},
        {TextEncoding::cp850(), "Ñandú ½ ø"},
        {TextEncoding::shiftJIS(), "こんにちは、世界。ｶﾀｶﾅ"},
        {TextEncoding::eucJP(), "こんにちは、世界"},
        {TextEncoding::iso2022JP(), "abc こんにちは def"},
        {TextEncoding::gb18030(), "你好，世界 😀"},
        {TextEncoding::big5(), "謝謝你的幫助"},
        {TextEncoding::eucKR(), "안녕하세요 세계"},
        {TextEncoding::ebcdicUS(), "HELLO, world! 123"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.encoding.id);
        const EncodedText encoded = c.encoding.encode(c.text);
        EXPECT_EQ(encoded.unwritable, 0);
        EXPECT_EQ(c.encoding.decode(encoded.bytes), c.text);
        EXPECT_TRUE(c.encoding.decodeStrictly(encoded.bytes).has_value());
    }
}

TEST(TextEncoding, decodingRepairsEachBadStretchWithOneReplacement) {
    // UTF-8: each maximal ill-formed subpart becomes one U+FFFD, so what follows survives.
    EXPECT_EQ(TextEncoding::utf8().decode(bytesOf("a\xC3(b")), "a\xEF\xBF\xBD(b");
    EXPECT_EQ(TextEncoding::utf8().decode(bytesOf("\xE2\x82")), "\xEF\xBF\xBD");
    EXPECT_EQ(TextEncoding::utf8().decode(bytesOf("\xF0\x9F\x8E x")), "\xEF\xBF\xBD x");
    EXPECT_EQ(TextEncoding::utf8().decode(bytesOf("\xC0\xAF")), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_FALSE(TextEncoding::utf8().decodeStrictly(bytesOf("a\xFF")).has_value());
    // A system converter: strict reading refuses, repairing reading keeps the rest.
    EXPECT_FALSE(TextEncoding::ascii().decodeStrictly(bytesOf("caf\xE9")).has_value());
    EXPECT_EQ(TextEncoding::ascii().decode(bytesOf("caf\xE9!")), "caf\xEF\xBF\xBD!");
    EXPECT_FALSE(TextEncoding::shiftJIS().decodeStrictly(bytesOf("\x82\xA0\x82")).has_value());
    const std::string repaired = TextEncoding::shiftJIS().decode(bytesOf("\x82\xA0\x82"));
    EXPECT_TRUE(repaired.starts_with("あ")) << repaired;
    EXPECT_TRUE(repaired.ends_with("\xEF\xBF\xBD")) << repaired;
    // UTF-16 with a lone surrogate and an odd trailing byte.
    const std::string utf16 = TextEncoding::utf16le().decode(Bytes{'a', 0, 0x00, 0xD8, 'b', 0, 'c'});
    EXPECT_EQ(utf16, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
}

TEST(TextEncoding, decodingRandomBytesNeverFailsInAnySet) {
    std::mt19937 random(20'261'122);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<std::size_t> length(0, 300);
    for (const auto& encoding : TextEncoding::all()) {
        SCOPED_TRACE(encoding.id);
        for (int round = 0; round < 8; ++round) {
            Bytes bytes(length(random));
            for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(random));
            const std::string text = encoding.decode(bytes);
            // The text is always well-formed UTF-8, whatever came in.
            const auto again = TextEncoding::utf8().decodeStrictly(bytesOf(text));
            ASSERT_TRUE(again.has_value());
            EXPECT_EQ(bytes.empty(), text.empty());
        }
    }
}

TEST(TextEncoding, encodingSaysWhatItCouldNotWrite) {
    const EncodedText latin = TextEncoding::latin1().encode("Grüße 世界");
    EXPECT_EQ(textOf(latin.bytes), "Gr\xFC\xDF" "e ??");
    EXPECT_EQ(latin.unwritable, 2);
    // A character beyond the basic plane is one character, and one "?".
    const EncodedText ascii = TextEncoding::ascii().encode("a😀b");
    EXPECT_EQ(textOf(ascii.bytes), "a?b");
    EXPECT_EQ(ascii.unwritable, 1);
    // EBCDIC writes its own question mark, 0x6F.
    const EncodedText ebcdic = TextEncoding::ebcdic037().encode("A€");
    EXPECT_EQ(ebcdic.bytes, (Bytes{0xC1, 0x6F}));
    EXPECT_EQ(ebcdic.unwritable, 1);
    const EncodedText system = TextEncoding::ebcdicUS().encode("A€");
    EXPECT_EQ(system.bytes, (Bytes{0xC1, 0x6F}));

    const UnwritableReport report = TextEncoding::cp1252().unwritable("Ünïcödé: 日本日本 ≠ ok", 2);
    EXPECT_EQ(report.count, 5);
    EXPECT_EQ(report.examples, (std::vector<std::string>{"日", "本"}));
    EXPECT_EQ(TextEncoding::utf8().unwritable("anything 日本", 3).count, 0);
}

TEST(TextEncoding, propertiesOfTheEverydaySets) {
    EXPECT_EQ(Bytes(TextEncoding::utf8().bom().begin(), TextEncoding::utf8().bom().end()), (Bytes{0xEF, 0xBB, 0xBF}));
    EXPECT_EQ(Bytes(TextEncoding::utf16le().bom().begin(), TextEncoding::utf16le().bom().end()), (Bytes{0xFF, 0xFE}));
    EXPECT_EQ(Bytes(TextEncoding::utf16be().bom().begin(), TextEncoding::utf16be().bom().end()), (Bytes{0xFE, 0xFF}));
    EXPECT_EQ(Bytes(TextEncoding::utf32le().bom().begin(), TextEncoding::utf32le().bom().end()), (Bytes{0xFF, 0xFE, 0, 0}));
    EXPECT_EQ(Bytes(TextEncoding::utf32be().bom().begin(), TextEncoding::utf32be().bom().end()), (Bytes{0, 0, 0xFE, 0xFF}));
    EXPECT_TRUE(TextEncoding::cp1252().bom().empty());

    EXPECT_EQ(TextEncoding::utf16be().unicodeUnitWidth(), 2);
    EXPECT_EQ(TextEncoding::utf32le().unicodeUnitWidth(), 4);
    EXPECT_FALSE(TextEncoding::utf8().unicodeUnitWidth().has_value());

    // NEL is one byte where 0x85 means U+0085: Latin-1 yes; Windows-1252 (an ellipsis), UTF-8 and
    // EBCDIC no.
    EXPECT_TRUE(TextEncoding::latin1().readsNELAsOneByte());
    EXPECT_FALSE(TextEncoding::cp1252().readsNELAsOneByte());
    EXPECT_FALSE(TextEncoding::utf8().readsNELAsOneByte());
    EXPECT_FALSE(TextEncoding::ebcdicUS().readsNELAsOneByte());

    for (const auto* encoding : {&TextEncoding::ebcdicUS(), &TextEncoding::ebcdic037(), &TextEncoding::ebcdic875()}) {
        EXPECT_TRUE(encoding->isEBCDIC()) << encoding->id;
        EXPECT_FALSE(encoding->asciiCompatible) << encoding->id;
    }
    EXPECT_FALSE(TextEncoding::latin1().isEBCDIC());
    EXPECT_TRUE(TextEncoding::latin2().isSingleByte());
    EXPECT_TRUE(TextEncoding::ebcdic273().isSingleByte());
    EXPECT_FALSE(TextEncoding::shiftJIS().isSingleByte());
    EXPECT_FALSE(TextEncoding::utf8().isSingleByte());
}

TEST(TextEncoding, ibmPCPagesStayASCIIBelow0x80) {
    // ICU's DOS pages move 0x1A, 0x1C and 0x7F; a DOS file is ASCII there.
    for (const auto* encoding : {&TextEncoding::cp437(), &TextEncoding::cp850()}) {
        SCOPED_TRACE(encoding->id);
        EXPECT_TRUE(encoding->asciiCompatible);
        EXPECT_EQ(encoding->decode(Bytes{0x1A, 0x1C, 0x7F}), "\x1A\x1C\x7F");
    }
    EXPECT_EQ(TextEncoding::cp437().decode(Bytes{0xC9, 0xCD, 0xBB}), "╔═╗");
}

TEST(TextEncoding, gb18030IsICUs2005Mapping) {
    // GB18030-2005 reads FE51 as a private-use character; the 2022 edition moved it to U+20087.
    EXPECT_EQ(TextEncoding::gb18030().decode(Bytes{0xFE, 0x51}), "\xEE\xA0\x96");
}

TEST(TextEncoding, ebcdicPageTablesAgreeWithICU) {
    for (const auto& page : TextEncoding::ebcdicPages()) {
        const std::string number = page.id.substr(6);
        // Page 1155 is IBM's table from before the lira sign, which ICU 72 put at 0x9A.
        if (number == "1155") continue;
        UErrorCode status = U_ZERO_ERROR;
        UConverter* converter = ucnv_open(("ibm-" + std::to_string(std::stoi(number))).c_str(), &status);
        if (U_FAILURE(status)) continue;   // a page ICU's data lacks comes from IBM's own table
        SCOPED_TRACE(page.id);
        for (int b = 0x40; b < 0x100; ++b) {
            const char byte = static_cast<char>(b);
            UChar unit[4] = {};
            UErrorCode one = U_ZERO_ERROR;
            const int32_t length = ucnv_toUChars(converter, unit, 4, &byte, 1, &one);
            if (U_FAILURE(one) || length != 1 || unit[0] == 0xFFFD || unit[0] == 0x1A) continue;
            EXPECT_EQ((*page.table)[static_cast<std::size_t>(b)], unit[0]) << "byte " << b;
        }
        ucnv_close(converter);
    }
}

TEST(TextEncoding, theFamilyIsBuiltInMenuOrderWithUniqueIDs) {
    const auto& all = TextEncoding::all();
    const auto& everyday = TextEncoding::everydayIDs();
    ASSERT_EQ(everyday.size(), 25u);
    EXPECT_EQ(everyday.front(), "utf8");
    EXPECT_EQ(everyday.back(), "euckr");
    for (std::size_t i = 0; i < everyday.size(); ++i) EXPECT_EQ(all[i].id, everyday[i]);
    EXPECT_EQ(all[25].id, "ebcdic");
    const std::size_t catalogue = TextEncoding::catalogue().size();
    ASSERT_GT(catalogue, 100u);
    EXPECT_EQ(all[26].id, TextEncoding::catalogue().front().id);
    EXPECT_EQ(all[26 + catalogue].id, "ebcdic037");
    std::set<std::string> ids;
    for (const auto& encoding : all) EXPECT_TRUE(ids.insert(encoding.id).second) << encoding.id;

    // The catalogue's EBCDIC row is a page like the others.
    const TextEncoding* latinEBCDIC = TextEncoding::byId("ebcdiclatin1");
    ASSERT_NE(latinEBCDIC, nullptr);
    EXPECT_TRUE(latinEBCDIC->isEBCDIC());
    EXPECT_FALSE(latinEBCDIC->asciiCompatible);

    const auto& differing = TextEncoding::ebcdicDistinguishingBytes();
    EXPECT_TRUE(differing[0x7F]);
    EXPECT_FALSE(differing[0x6B]);   // the comma is a comma on every page
    EXPECT_FALSE(differing[0xC1]);   // and A is A
    EXPECT_EQ(TextEncoding::ebcdicDetectionPages().size(), 17u);
    EXPECT_EQ(TextEncoding::ebcdicPage("1047").id, "ebcdic1047");
    EXPECT_EQ(TextEncoding::ebcdicPage("9999").id, "ebcdic");
}

TEST(TextEncoding, namesAndSpellingsFindTheirSets) {
    struct Case {
        std::string_view name;
        const char* id;   // null: no set
    };
    const Case named[] = {
        {"utf8", "utf8"},           {"UTF-8", "utf8"},         {"ISO-8859-1", "latin1"},
        {"Latin-1", "latin1"},      {"windows-1252", "cp1252"}, {"Shift_JIS", "shiftjis"},
        {"x-mac-roman", "macroman"}, {"KOI8-U", "koi8u"},      {"ibm037", "ebcdic037"},
        {"gbk", "gbk"},             {"cp932", "cp932"},        {"EBCDIC (US)", "ebcdic"},
        // Claimed by the everyday EBCDIC set and by a catalogue row: the first in menu order wins.
        {"ebcdic-cp-us", "ebcdic"}, {"no such set", nullptr},
    };
    for (const auto& c : named) {
        SCOPED_TRACE(c.name);
        const TextEncoding* found = TextEncoding::named(c.name);
        if (c.id == nullptr) {
            EXPECT_EQ(found, nullptr);
        } else {
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(found->id, c.id);
        }
    }
    const Case spelled[] = {
        {"mainframe", "ebcdic"}, {"ansi", "cp1252"},     {"sjis", "shiftjis"},   {"u8", "utf8"},
        {"cp1047", "ebcdic1047"}, {"ebcdic37", "ebcdic037"}, {"IBM-273", "ebcdic273"}, {"x1251", "cp1251"},
        {"codepage65001", "utf8"}, {"page949", "euckr"}, {"cp12345", nullptr},   {"cp", nullptr},
    };
    for (const auto& c : spelled) {
        SCOPED_TRACE(c.name);
        const TextEncoding* found = TextEncoding::encodingSpelled(c.name);
        if (c.id == nullptr) {
            EXPECT_EQ(found, nullptr);
        } else {
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(found->id, c.id);
        }
    }
    const Case files[] = {
        {"data.cp1047.txt", "ebcdic1047"}, {"customers.ebcdic", "ebcdic"}, {"notes.latin1", "latin1"},
        {"report.KOI8-R.txt", "koi8r"},   {"cp1047", nullptr},            {"plain.txt", nullptr},
        // The first piece is never examined.
        {"cp1047.txt", nullptr},          {"archive.2023.csv", nullptr},
    };
    for (const auto& c : files) {
        SCOPED_TRACE(c.name);
        const TextEncoding* found = TextEncoding::namedByFile(c.name);
        if (c.id == nullptr) {
            EXPECT_EQ(found, nullptr);
        } else {
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(found->id, c.id);
        }
    }
    const Case baseNames[] = {
        {"cp1047.dat", "ebcdic1047"}, {"IBM037", "ebcdic037"}, {"ebcdic273.bin", "ebcdic273"},
        {"cp1252.txt", nullptr},      {"data.cp1047", nullptr}, {"cpx", nullptr},
    };
    for (const auto& c : baseNames) {
        SCOPED_TRACE(c.name);
        const TextEncoding* found = TextEncoding::ebcdicPageNamedByBaseName(c.name);
        if (c.id == nullptr) {
            EXPECT_EQ(found, nullptr);
        } else {
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(found->id, c.id);
        }
    }
}

TEST(TextEncoding, valuesCompareByTheirFields) {
    EXPECT_EQ(TextEncoding::latin1(), *TextEncoding::byId("latin1"));
    EXPECT_NE(TextEncoding::latin1(), TextEncoding::latin9());
    TextEncoding renamed = TextEncoding::latin1();
    renamed.displayName = "Something else";
    EXPECT_NE(renamed, TextEncoding::latin1());
    EXPECT_EQ(std::hash<TextEncoding>{}(renamed), std::hash<TextEncoding>{}(TextEncoding::latin1()));
}

} // namespace
} // namespace brim
