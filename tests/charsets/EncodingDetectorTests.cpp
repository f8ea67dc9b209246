#include "charsets/EncodingDetector.h"

#include "bytes/MemorySource.h"
#include "charsets/EncodingScorer.h"
#include "common/Localization.h"

#include "EncodingPrinting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Kind = EncodingDetector::UTF8Result::Kind;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

/// UTF-8 text written in `encoding` by our own converters; the test fails if a character is lost.
Bytes in(const TextEncoding& encoding, std::string_view text) {
    const EncodedText encoded = encoding.encode(text);
    EXPECT_EQ(encoded.unwritable, 0) << encoding.id;
    return encoded.bytes;
}

EncodingDetection detect(const Bytes& bytes, std::string_view name = {},
                         const TextEncoding& fallback = TextEncoding::cp1252()) {
    return EncodingDetector::detect(MemorySource(bytes), fallback, name);
}

std::string repeated(std::string_view text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

/// The legacy reason, with the number of readings the detector scores for these bytes.
std::string legacyReason(bool c1, std::int64_t high, double score) {
    const auto count = EncodingDetector::legacyCandidates(c1, TextEncoding::cp1252()).size();
    return L("8-bit, best of %d readings (%d high bytes, score %.1f)", count, high, score);
}

/// Reasons and names are checked by their English text.
class EnglishEnvironment final : public ::testing::Environment {
public:
    void SetUp() override { Localization::setCurrent(AppLanguage::english); }
};
[[maybe_unused]] const auto* const english = ::testing::AddGlobalTestEnvironment(new EnglishEnvironment);

/// A source of `size` bytes that are generated, not stored: a 10 GB file costs nothing. It counts the
/// bytes read, so a test can see that detection reads samples only.
class GeneratedSource final : public ByteSource {
public:
    GeneratedSource(std::int64_t size, std::string pattern) : size_(size), pattern_(std::move(pattern)) {}
    [[nodiscard]] std::int64_t count() const override { return size_; }
    void read(ByteRange range, std::uint8_t* destination) const override {
        const ByteRange clamped = range.clampedTo(size_);
        bytesRead_ += clamped.length();
        for (std::int64_t offset = clamped.lower; offset < clamped.upper; ++offset) {
            *destination++ = static_cast<std::uint8_t>(pattern_[static_cast<std::size_t>(offset) % pattern_.size()]);
        }
    }
    void withBytes(ByteRange range, const std::function<void(std::span<const std::uint8_t>)>& body) const override {
        std::vector<std::uint8_t> copy(static_cast<std::size_t>(range.clampedTo(size_).length()));
        read(range, copy.data());
        body(copy);
    }
    [[nodiscard]] std::int64_t bytesRead() const { return bytesRead_; }

private:
    std::int64_t size_;
    std::string pattern_;
    mutable std::atomic<std::int64_t> bytesRead_{0};
};

// MARK: marks, Unicode forms and UTF-8

TEST(EncodingDetector, anEmptyFileIsUTF8) {
    const auto detection = detect({});
    EXPECT_EQ(detection.encoding, TextEncoding::utf8());
    EXPECT_EQ(detection.confidence, 1.0);
    EXPECT_EQ(detection.reason, "empty file");
    EXPECT_FALSE(detection.hasBOM);
}

TEST(EncodingDetector, byteOrderMarksDecide) {
    struct Case {
        Bytes bytes;
        const TextEncoding& encoding;
    };
    const Case cases[] = {
        {{0xEF, 0xBB, 0xBF, 'h', 'e', 'l', 'l', 'o'}, TextEncoding::utf8()},
        {{0xFF, 0xFE, 'h', 0}, TextEncoding::utf16le()},
        {{0xFE, 0xFF, 0, 'h'}, TextEncoding::utf16be()},
        {{0xFF, 0xFE, 0, 0, 'h', 0, 0, 0}, TextEncoding::utf32le()},   // not UTF-16 LE with a NUL
        {{0, 0, 0xFE, 0xFF, 0, 0, 0, 'h'}, TextEncoding::utf32be()},
        {{0xFF, 0xFE}, TextEncoding::utf16le()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.encoding.id);
        const auto detection = detect(c.bytes);
        EXPECT_EQ(detection.encoding, c.encoding);
        EXPECT_TRUE(detection.hasBOM);
        EXPECT_EQ(detection.confidence, 1.0);
        EXPECT_EQ(detection.reason, "byte order mark");
    }
}

TEST(EncodingDetector, utf16WithoutAMarkIsFound) {
    const std::string german = "Die Größe des Fensters lässt sich ändern, über das Menü oder mit der Maus.\n";
    for (const auto* form : {&TextEncoding::utf16le(), &TextEncoding::utf16be()}) {
        SCOPED_TRACE(form->id);
        const auto detection = detect(in(*form, german));
        EXPECT_EQ(detection.encoding, *form);
        EXPECT_FALSE(detection.hasBOM);
        EXPECT_EQ(detection.confidence, 0.85);
        EXPECT_EQ(detection.reason, "NUL byte pattern");
    }
    // Under 16 bytes there is too little to go on: "Hi!" in UTF-16 LE has its NULs, but reads as 7-bit text.
    const auto tooShort = detect(in(TextEncoding::utf16le(), "Hi!"));
    EXPECT_EQ(tooShort.encoding, TextEncoding::utf8());
    EXPECT_EQ(tooShort.reason, "7-bit ASCII");
}

TEST(EncodingDetector, utf16OfOtherAlphabetsAndOfIdeographsIsFoundByItsCodeUnits) {
    const std::string texts[] = {
        "Съешь же ещё этих мягких французских булок, да выпей чаю. Широкая электрификация.\n",
        "Ξεσκεπάζω την ψυχοφθόρα βδελυγμία. Καλημέρα κόσμε, τι κάνεις σήμερα;\n",
        "דג סקרן שט בים מאוכזב ולפתע מצא חברה. שלום עולם ומה שלומך היום?\n",
        "我能吞下玻璃而不伤身体。\n天地玄黄，宇宙洪荒。日月盈昃，辰宿列张。\n寒来暑往，秋收冬藏。\n",
        "いろはにほへと　ちりぬるを\nわかよたれそ　つねならむ\nうゐのおくやま　けふこえて\n",
    };
    for (const auto& text : texts) {
        for (const auto* form : {&TextEncoding::utf16le(), &TextEncoding::utf16be()}) {
            SCOPED_TRACE(form->id + ": " + text);
            const auto detection = detect(in(*form, text));
            EXPECT_EQ(detection.encoding, *form);
            EXPECT_EQ(detection.reason, "the pattern of UTF-16 code units");
        }
    }
    // UTF-32 without a mark, whose every unit is a scalar.
    for (const auto* form : {&TextEncoding::utf32le(), &TextEncoding::utf32be()}) {
        SCOPED_TRACE(form->id);
        EXPECT_EQ(detect(in(*form, "Grüße aus Köln und Zürich!\n")).encoding, *form);
    }
}

TEST(EncodingDetector, textAndBinaryAreNotMistakenForUnicodeForms) {
    std::mt19937 random(11);
    std::uniform_int_distribution<int> byte(0, 255);
    Bytes noise(4'096);
    for (auto& b : noise) b = static_cast<std::uint8_t>(byte(random));
    const Bytes cases[] = {
        noise,
        bytesOf(repeated("plain ASCII text, line after line.\n", 50)),
        in(TextEncoding::cp1251(), repeated("Съешь же ещё этих мягких булок.\n", 40)),
        in(TextEncoding::shiftJIS(), repeated("こんにちは、世界。今日は良い天気です。\n", 40)),
        Bytes(5'000, 0),
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto detection = detect(cases[i]);
        EXPECT_FALSE(detection.encoding.unicodeUnitWidth().has_value()) << detection.encoding.id;
    }
}

TEST(EncodingDetector, utf8ValidationHandlesTheEdgeCases) {
    struct Case {
        std::string_view bytes;
        Kind kind;
        std::int64_t sequences;
    };
    const Case cases[] = {
        {"", Kind::ascii, 0},
        {"plain\n", Kind::ascii, 0},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", Kind::valid, 3},
        {"\xC0\x80", Kind::invalid, 0},                 // overlong NUL
        {"\xE0\x80\x80", Kind::invalid, 0},             // overlong three-byte form
        {"\xF0\x80\x80\x80", Kind::invalid, 0},         // overlong four-byte form
        {"\xED\xA0\x80", Kind::invalid, 0},             // a surrogate
        {"\xF4\x90\x80\x80", Kind::invalid, 0},         // above U+10FFFF
        {"\xF5\x80\x80\x80", Kind::invalid, 0},
        {"caf\xE9 au lait", Kind::invalid, 0},          // Latin-1
        {"\xC3\xA9" "\xC3", Kind::valid, 1},            // cut by the end of the sample: not invalid
        {"\xC3\xA9" "\xF0\x9F\x98", Kind::valid, 1},
        {"abc\xE2\x82", Kind::ascii, 0},
        {"\xC3\xA9" "\xC3" "x", Kind::invalid, 0},      // cut in the middle: invalid
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.bytes));
        const auto result = EncodingDetector::validateUTF8(bytesOf(c.bytes));
        EXPECT_EQ(result.kind, c.kind);
        if (c.kind == Kind::valid) {
            EXPECT_EQ(result.multiByteSequences, c.sequences);
        }
    }
}

TEST(EncodingDetector, trimmingDropsHalfCharactersOnly) {
    struct Case {
        std::string_view bytes;
        bool trimmingEnd;
        std::string_view trimmed;
    };
    const Case cases[] = {
        {"\x98\x80" "abc", true, "abc"},                        // the tail of a character at the start
        {"\x80\x80\x80\x80" "a", true, "\x80" "a"},             // at most three
        {"ab\xC3\xA9", true, "ab\xC3\xA9"},                     // a whole character stays
        {"ab\xF0\x9F\x98", true, "ab"},                         // half of one goes
        {"ab\xF0\x9F\x98", false, "ab\xF0\x9F\x98"},
        {"plain ascii", true, "plain ascii"},
        {"\xE2", true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.bytes));
        const Bytes bytes = bytesOf(c.bytes);
        const auto trimmed = EncodingDetector::trimmedToCharacterBoundaries(bytes, c.trimmingEnd);
        EXPECT_EQ(std::string(trimmed.begin(), trimmed.end()), c.trimmed);
    }
}

TEST(EncodingDetector, asciiAndUTF8SayWhatTheyAre) {
    const auto ascii = detect(bytesOf("just ASCII\n"));
    EXPECT_EQ(ascii.encoding, TextEncoding::utf8());
    EXPECT_EQ(ascii.confidence, 1.0);
    EXPECT_EQ(ascii.reason, "7-bit ASCII");

    const auto few = detect(bytesOf("Größe"));
    EXPECT_EQ(few.encoding, TextEncoding::utf8());
    EXPECT_EQ(few.confidence, 0.9);
    EXPECT_EQ(few.reason, "valid UTF-8 (2 multi-byte sequences)");

    const auto many = detect(bytesOf("Größe über Straße, Äpfel"));
    EXPECT_EQ(many.confidence, 0.99);
    EXPECT_EQ(many.reason, "valid UTF-8 (5 multi-byte sequences)");

    // Only NUL bytes: no text, but an answer.
    EXPECT_EQ(detect(Bytes(100, 0)).encoding, TextEncoding::utf8());
}

TEST(EncodingDetector, aBigUTF8FileStaysUTF8WhereThePiecesAreCut) {
    // Rows of two-byte characters whose length puts a character across the cut of every piece.
    std::string row = "Zürich;Größe;Übergröße;äöü;";
    std::string text;
    while (text.size() < 2'000'001) text += row + std::to_string(text.size()) + "é\n";
    const auto detection = detect(bytesOf(text));
    EXPECT_EQ(detection.encoding, TextEncoding::utf8());
    EXPECT_EQ(detection.confidence, 0.99);
    EXPECT_TRUE(detection.reason.starts_with("valid UTF-8 (")) << detection.reason;
}

TEST(EncodingDetector, aFileThatEndsInHalfACharacterIsStillUTF8) {
    const auto detection = detect(bytesOf("Größe überall\xC3"));
    EXPECT_EQ(detection.encoding, TextEncoding::utf8());
}

TEST(EncodingDetector, detectionReadsSamplesOnlyWhateverTheSize) {
    const GeneratedSource small(1'000'000, "Grüße aus Köln. ");
    const GeneratedSource huge(10'000'000'000, "Grüße aus Köln. ");
    const auto smallAnswer = EncodingDetector::detect(small, TextEncoding::cp1252(), "");
    const auto hugeAnswer = EncodingDetector::detect(huge, TextEncoding::cp1252(), "");
    EXPECT_EQ(hugeAnswer.encoding, TextEncoding::utf8());
    EXPECT_EQ(hugeAnswer.encoding, smallAnswer.encoding);
    EXPECT_LE(huge.bytesRead(), 4 * 262'144);
    EXPECT_LE(small.bytesRead(), 4 * 262'144);
}

// MARK: names

TEST(EncodingDetector, aNameSpeaksOnlyForBytesThatAreNotUTF8) {
    const Bytes latin = in(TextEncoding::latin2(), "Žluťoučký kůň úpěl ďábelské ódy");
    const auto named = detect(latin, "notes.latin2.txt");
    EXPECT_EQ(named.encoding, TextEncoding::latin2());
    EXPECT_EQ(named.confidence, 0.9);
    EXPECT_EQ(named.reason, "named by the file: ISO-8859-2");
    // Valid UTF-8 named as Latin-1 stays UTF-8.
    EXPECT_EQ(detect(bytesOf("Grüße"), "greeting.latin1.txt").encoding, TextEncoding::utf8());
}

TEST(EncodingDetector, anEBCDICNameReadsTheTextForItsPage) {
    const Bytes german = in(TextEncoding::ebcdic273(), "Größe der Äpfel, Übergröße der Birnen: grün und süß.");
    const auto named = detect(german, "customers.ebcdic");
    EXPECT_EQ(named.encoding, TextEncoding::ebcdic273());
    EXPECT_EQ(named.confidence, 0.95);
    EXPECT_EQ(named.reason, "named by the file, page read from the text");
    const auto exact = detect(german, "customers.cp273");
    EXPECT_EQ(exact.encoding, TextEncoding::ebcdic273());
    EXPECT_EQ(exact.reason, "named by the file: EBCDIC 273 (Germany, Austria)");
    // Pure ASCII content: the name is ignored.
    EXPECT_EQ(detect(bytesOf("plain words"), "customers.ebcdic").encoding, TextEncoding::utf8());
    // A page named by the start of the name, for bytes that are not UTF-8.
    const auto base = detect(in(TextEncoding::ebcdic037(), "HELLO WORLD, ALL IS WELL"), "cp1047.dat");
    EXPECT_EQ(base.encoding.id, "ebcdic1047");
    EXPECT_EQ(base.confidence, 0.9);
    EXPECT_EQ(base.reason, "named by the file: EBCDIC 1047 (Latin 1, Open Systems)");
}

// MARK: EBCDIC

TEST(EncodingDetector, ebcdicTextIsFoundAndItsPageChosen) {
    struct Case {
        std::string text;
        const TextEncoding& written;
        std::string expected;
    };
    const Case cases[] = {
        // Umlauts between letters tell 273 from the rest.
        {repeated("Die Größe der Äpfel und Birnen ist für Müller nicht übel.\n", 4), TextEncoding::ebcdic273(), "ebcdic273"},
        // Nothing tells the pages apart: 037, the one to be wrong about.
        {repeated("THE QUICK BROWN FOX JUMPS OVER THE LAZY DOG 1234567890\n", 4), TextEncoding::ebcdic037(), "ebcdic037"},
        // Quoted fields: quotation marks alone must not choose a page that makes letters of them.
        {repeated("\"SMITH\",\"JOHN\",\"12 MAIN STREET\",\"SPRINGFIELD\",\"0042\"\n", 4), TextEncoding::ebcdic037(), "ebcdic037"},
        // Greek and Cyrillic pages keep their letters outside the Latin ranges.
        {repeated("Καλημέρα σας, αυτό είναι ένα κείμενο στα ελληνικά για δοκιμή.\n", 4), TextEncoding::ebcdic875(), "ebcdic875"},
        {repeated("Это проверка русского текста в кодировке для больших машин.\n", 4), *TextEncoding::byId("ebcdic1025"), "ebcdic1025"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        const Bytes bytes = in(c.written, c.text);
        const auto detection = detect(bytes);
        EXPECT_TRUE(detection.encoding.isEBCDIC());
        // The Latin pages are told apart; of the Cyrillic ones, a page that reads the text the same will do.
        if (c.written.id == "ebcdic1025") {
            EXPECT_EQ(detection.encoding.decode(bytes), c.text) << detection.encoding.id;
        } else {
            EXPECT_EQ(detection.encoding.id, c.expected);
        }
    }
    const auto german = detect(in(TextEncoding::ebcdic273(), cases[0].text));
    EXPECT_EQ(german.confidence, 0.8);
    EXPECT_EQ(german.reason, "EBCDIC letter and digit ranges");
    const auto greek = detect(in(TextEncoding::ebcdic875(), cases[3].text));
    EXPECT_EQ(greek.reason, "EBCDIC spaces, page read from the text");
}

TEST(EncodingDetector, aRecordFileWithBinaryFieldsIsEBCDICNotChinese) {
    Bytes records;
    std::mt19937 random(3);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int record = 0; record < 60; ++record) {
        const Bytes name = in(TextEncoding::ebcdic037(), "CUSTOMER NAME " + std::to_string(1000 + record) + " ACCOUNT ");
        records.insert(records.end(), name.begin(), name.end());
        for (int k = 0; k < 4; ++k) records.push_back(static_cast<std::uint8_t>(byte(random)));   // packed decimal
        records.push_back(0x0C);
    }
    const auto detection = detect(records);
    EXPECT_TRUE(detection.encoding.isEBCDIC()) << detection.encoding.id;
}

TEST(EncodingDetector, japaneseEBCDICPagesAreToldApartByTheirShiftedText) {
    // A stand-in for the mixed pages' codec: it only has to say how plausible the bytes are.
    struct Plausible final : StatefulCodec {
        explicit Plausible(double value) : value_(value) {}
        [[nodiscard]] std::string key() const override { return "plausible" + std::to_string(value_); }
        [[nodiscard]] std::string decode(std::span<const std::uint8_t>) const override { return {}; }
        [[nodiscard]] EncodedText encode(std::string_view) const override { return {}; }
        [[nodiscard]] std::string menuGroup() const override { return "ebcdic"; }
        [[nodiscard]] bool isEBCDIC() const override { return true; }
        [[nodiscard]] std::optional<double> plausibility(std::span<const std::uint8_t>) const override { return value_; }
        double value_;
    };
    TextEncoding page939;
    page939.id = "ebcdic939";
    page939.stateful = std::make_shared<Plausible>(0.95);
    TextEncoding page1399 = page939;
    page1399.id = "ebcdic1399";
    page1399.stateful = std::make_shared<Plausible>(0.92);

    // Lower-case Latin words beside the shifted Kanji: the Latin page.
    Bytes latin = in(TextEncoding::ebcdic037(), "order number ");
    latin.insert(latin.end(), {0x0E, 0x45, 0x41, 0x45, 0x42, 0x0F});
    const Bytes more = in(TextEncoding::ebcdic037(), " shipped today to the customer as agreed");
    latin.insert(latin.end(), more.begin(), more.end());
    const auto found = EncodingDetector::detectJapaneseEBCDIC(latin, page939, page1399);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->encoding.id, "ebcdic939");
    EXPECT_EQ(found->confidence, 0.85);
    EXPECT_EQ(found->reason, "EBCDIC with Kanji between shift-out and shift-in");
    // JIS X 0213 reads better: its pair.
    page1399.stateful = std::make_shared<Plausible>(0.99);
    EXPECT_EQ(EncodingDetector::detectJapaneseEBCDIC(latin, page939, page1399)->encoding.id, "ebcdic1399");
    // Random bytes with a shift in them are not Japanese.
    page1399.stateful = std::make_shared<Plausible>(0.2);
    page939.stateful = std::make_shared<Plausible>(0.3);
    EXPECT_FALSE(EncodingDetector::detectJapaneseEBCDIC(latin, page939, page1399).has_value());
}

// MARK: CJK

TEST(EncodingDetector, cjkSetsAreFoundOnRealText) {
    struct Case {
        std::string text;
        const TextEncoding& encoding;
    };
    const Case cases[] = {
        {"你好，世界。这是一个简单的测试，我们说中国话。", TextEncoding::gb18030()},
        {"謝謝你的幫助。這是一個簡單的測試，我們說中國話。", TextEncoding::big5()},
        {"こんにちは、世界。今日はいい天気ですね。", TextEncoding::shiftJIS()},
        {"こんにちは、世界。今日はいい天気ですね。", TextEncoding::eucJP()},
        {"안녕하세요. 오늘은 날씨가 좋습니다. 감사합니다.", TextEncoding::eucKR()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.encoding.id);
        const auto detection = detect(in(c.encoding, c.text));
        EXPECT_EQ(detection.encoding, c.encoding);
        EXPECT_TRUE(detection.reason.starts_with("valid " + c.encoding.localisedName() + ", ")) << detection.reason;
    }
    // The share of CJK characters is in the reason: 7 of "こんにちは、世界" are, the comma is not.
    const auto hello = detect(in(TextEncoding::shiftJIS(), "こんにちは、世界"));
    EXPECT_EQ(hello.reason, "valid Shift-JIS, 88% CJK");
    EXPECT_DOUBLE_EQ(hello.confidence, 0.6 + 0.3 * 7.0 / 8.0);
}

TEST(EncodingDetector, sevenBitISO2022IsReadByItsEscapes) {
    const auto japanese = detect(in(TextEncoding::iso2022JP(), "こんにちは、世界。今日はいい天気ですね。"));
    EXPECT_EQ(japanese.encoding, TextEncoding::iso2022JP());
    // Without escapes, 7-bit text is UTF-8.
    EXPECT_EQ(detect(bytesOf("no escapes here ~{ at all")).encoding, TextEncoding::utf8());
}

TEST(EncodingDetector, accentedLatinIsNotReadAsChinese) {
    const auto detection = detect(in(TextEncoding::cp1252(), "crème brûlée, café au lait, pâté, déjà vu"));
    EXPECT_EQ(detection.encoding, TextEncoding::cp1252());
}

// MARK: 8-bit

TEST(EncodingDetector, aLittleGermanInMuchASCIIReadsAsWestern) {
    std::string text = repeated("int value = compute(input); // nothing special here\n", 150);
    text += "// Größe prüfen\n";
    text += repeated("return value; // and more of the same\n", 150);
    const auto detection = detect(in(TextEncoding::cp1252(), text));
    EXPECT_EQ(detection.encoding, TextEncoding::cp1252());
    EXPECT_EQ(detection.reason, legacyReason(false, 3, 7.5));
    // Three high bytes in that much text: little to go on.
    EXPECT_DOUBLE_EQ(detection.confidence, 0.75 - 0.15 - 0.1);
}

TEST(EncodingDetector, singleByteSetsAreToldApartOnRealText) {
    struct Case {
        std::string text;
        const TextEncoding& encoding;
    };
    const std::string russian = "Съешь же ещё этих мягких французских булок, да выпей чаю. В чащах юга жил бы цитрус.";
    const Case cases[] = {
        {"Zażółć gęślą jaźń. Pchnąć w tę łódź jeża lub ośm skrzyń fig.", TextEncoding::cp1250()},
        {"Příliš žluťoučký kůň úpěl ďábelské ódy. Nechť již hříšné saxofony ďáblů rozezvučí síň.", TextEncoding::cp1250()},
        {"Árvíztűrő tükörfúrógép. Öt szép szűz lány őrült írót nyúz.", TextEncoding::cp1250()},
        {"Le cœur déçu mais l'âme plutôt naïve, Louÿs rêva de crapaüter en canoë au delà des îles.", TextEncoding::cp1252()},
        {"Über der Straße schweben größere Ballons als früher; Äpfel und Öl sind günstig.", TextEncoding::cp1252()},
        {russian, TextEncoding::cp1251()},
        {russian, TextEncoding::koi8r()},
        {"Pijamalı hasta yağız şoföre çabucak güvendi. Ağaç ışığı gördü.", TextEncoding::cp1254()},
        {"Τάχιστη αλώπηξ βαφής ψημένη γη, δρασκελίζει υπέρ νωθρού κυνός.", TextEncoding::cp1253()},
        {"Įlinkdama fechtuotojo špaga sublykčiojusi pragręžė apvalų arbūzą.", TextEncoding::cp1257()},
        {"Größe über Straße: Äpfel, Öl und Brötchen für Müller.", TextEncoding::macRoman()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.encoding.id + ": " + c.text);
        const auto detection = detect(in(c.encoding, c.text));
        // A set that reads the bytes the same is as right as the one they were written in.
        EXPECT_EQ(detection.encoding.decode(in(c.encoding, c.text)), c.text) << detection.encoding.id;
    }
    // Mac Roman umlauts are worse as Windows-1252, and Windows-1252's worse as Mac Roman.
    const std::string umlauts = "Größe über Straße: Äpfel, Öl und Brötchen für Müller.";
    const Bytes mac = in(TextEncoding::macRoman(), umlauts);
    const Bytes windows = in(TextEncoding::cp1252(), umlauts);
    EXPECT_GT(*EncodingScorer::score(mac, TextEncoding::macRoman()), *EncodingScorer::score(mac, TextEncoding::cp1252()));
    EXPECT_GT(*EncodingScorer::score(windows, TextEncoding::cp1252()), *EncodingScorer::score(windows, TextEncoding::macRoman()));
}

TEST(EncodingDetector, moreSingleByteSetsOfTheCatalogue) {
    struct Case {
        std::string text;
        const char* id;
    };
    const Case cases[] = {
        {"דג סקרן שט בים מאוכזב ולפתע מצא לו חברה. שלום עולם, מה שלומך היום?", "cp1255"},
        {"نص حكيم له سر قاطع وذو شأن عظيم مكتوب على ثوب أخضر ومغلف بجلد أزرق.", "cp1256"},
        {"เป็นมนุษย์สุดประเสริฐเลิศคุณค่า กว่าบรรดาฝูงสัตว์เดรัจฉาน", "cp874"},
        {"Съешь же ещё этих мягких французских булок, да выпей чаю. В чащах юга жил бы цитрус.", "cp866"},
        {"Чуєш їх, доцю, га? Кумедна ж ти, прощайся без ґольфів! Жебракують філософи.", "koi8u"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        const TextEncoding* encoding = TextEncoding::byId(c.id);
        ASSERT_NE(encoding, nullptr);
        const Bytes bytes = in(*encoding, c.text);
        const auto detection = detect(bytes);
        EXPECT_EQ(detection.encoding.decode(bytes), c.text) << detection.encoding.id;
    }
}

TEST(EncodingDetector, aFewAccentedLettersAloneHaveAnAlternative) {
    const auto detection = detect(in(TextEncoding::cp1252(), "x è y à z ò"));
    EXPECT_EQ(detection.encoding, TextEncoding::cp1252());
    EXPECT_LE(detection.confidence, 0.6);
    ASSERT_TRUE(detection.alternative.has_value());
    EXPECT_NE(detection.alternative->decode(in(TextEncoding::cp1252(), "x è y à z ò")), "x è y à z ò");
}

TEST(EncodingDetector, bytes0x80To0x9FRuleOutTheISOSets) {
    const Bytes quoted = in(TextEncoding::cp1252(), "He said “fine” – and left… for good.");
    const auto detection = detect(quoted);
    EXPECT_EQ(detection.encoding, TextEncoding::cp1252());
    const auto readings = EncodingDetector::legacyCandidates(true, TextEncoding::cp1252()).size();
    EXPECT_TRUE(detection.reason.starts_with("8-bit, best of " + std::to_string(readings) + " readings (4 high bytes, score "))
        << detection.reason;
    for (const auto& candidate : EncodingDetector::legacyCandidates(true, TextEncoding::cp1252())) {
        EXPECT_FALSE(candidate.id.starts_with("latin") || candidate.id.starts_with("iso")) << candidate.id;
    }
}

TEST(EncodingDetector, theFallbackIsScoredAndAnswersWhenNothingReads) {
    const TextEncoding& thai = *TextEncoding::byId("cp1162");
    auto candidates = EncodingDetector::legacyCandidates(false, thai);
    EXPECT_EQ(candidates.back(), thai);
    // A set among the candidates already is not added twice.
    EXPECT_EQ(EncodingDetector::legacyCandidates(false, TextEncoding::cp1252()).size(), candidates.size() - 1);
}

TEST(EncodingDetector, anyBytesGetAnAnswer) {
    std::mt19937 random(2026);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<std::size_t> length(1, 3'000);
    for (int round = 0; round < 60; ++round) {
        Bytes bytes(length(random));
        const int kind = round % 3;
        for (auto& b : bytes) {
            const int value = byte(random);
            b = static_cast<std::uint8_t>(kind == 0 ? value : kind == 1 ? (value % 2 ? value : 0x0E + value % 2) : value | 0x80);
        }
        SCOPED_TRACE(round);
        const auto detection = detect(bytes);
        EXPECT_FALSE(detection.encoding.id.empty());
        EXPECT_FALSE(detection.reason.empty());
        EXPECT_GE(detection.confidence, 0.0);
        EXPECT_LE(detection.confidence, 1.0);
    }
}

} // namespace
} // namespace brim
