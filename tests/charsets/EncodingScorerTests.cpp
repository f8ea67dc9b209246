#include "charsets/EncodingScorer.h"

#include "charsets/UnicodeText.h"

#include "EncodingPrinting.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using EncodingScorer::LetterGroup;

Bytes in(const TextEncoding& encoding, std::string_view text) { return encoding.encode(text).bytes; }

std::optional<double> scoreOf(std::string_view text) {
    return EncodingScorer::score(std::u32string_view(UnicodeText::toScalars(text)));
}

TEST(EncodingScorer, lettersBelongToTheirGroupsInOrder) {
    struct Case {
        char32_t letter;
        std::optional<LetterGroup> group;
    };
    const Case cases[] = {
        {U'é', LetterGroup::shared},  {U'â', LetterGroup::shared},   // shared is tested before western
        {U'ä', LetterGroup::western}, {U'ß', LetterGroup::western},
        {U'ł', LetterGroup::central}, {U'ż', LetterGroup::central},  // central is tested before Baltic
        {U'ğ', LetterGroup::turkish}, {U'ı', LetterGroup::turkish},  // and Turkish before the rare letters
        {U'ā', LetterGroup::baltic},  {U'Ų', LetterGroup::baltic},
        {U'þ', std::nullopt},         {U'a', std::nullopt},          {U'ж', std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<std::uint32_t>(c.letter));
        EXPECT_EQ(EncodingScorer::group(c.letter), c.group);
    }
}

TEST(EncodingScorer, readingsThatCannotBeAreAbsentAndControlsRuleOut) {
    EXPECT_FALSE(scoreOf("plain ASCII only").has_value());
    EXPECT_FALSE(scoreOf("").has_value());
    // US-ASCII refuses a byte above 0x7F outright.
    EXPECT_FALSE(EncodingScorer::score(Bytes{'c', 'a', 'f', 0xE9}, TextEncoding::ascii()).has_value());
    // A C1 control or a replacement character scores -20.
    EXPECT_EQ(scoreOf("a\u0085b"), -20.0);
    EXPECT_EQ(scoreOf("a\uFFFDb"), -20.0);
    // An incomplete last character of a multi-byte set is dropped, not held against the reading.
    EXPECT_TRUE(EncodingScorer::score(Bytes{0xC3, 0xA9, 'x', 0xC3}, TextEncoding::utf8()).has_value());
}

TEST(EncodingScorer, believableTextScoresAboveItsMisreadings) {
    struct Case {
        std::string good;
        std::string bad;
    };
    const Case cases[] = {
        {"Größe prüfen", "GrĂ¶Ăźe prĂĽfen"},                       // UTF-8 read as Windows-1250
        {"Grüße aus Köln", "Gr��e aus K�ln"},
        {"Árvíztűrő tükörfúrógép", "Árvíztûrõ tükörfúrógép"},       // one language against a mixture
        {"съешь же ещё этих булок", "ЯЗЕЬЭ ФЕ ЕЭ╦ ЩРХУ АСКНЙ"},     // KOI8-R read as Windows-1251
        {"Τάχιστη αλώπηξ", "ÔÜ÷éóôç áëþðçî"},                       // Greek read as Latin-1
        {"word—word «quoted»", "word¶word »quoted«"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.good);
        ASSERT_TRUE(scoreOf(c.good).has_value());
        ASSERT_TRUE(scoreOf(c.bad).has_value());
        EXPECT_GT(*scoreOf(c.good), *scoreOf(c.bad));
    }
}

TEST(EncodingScorer, tiesGoToTheCommonerSetUnlessTheTotalsTellThemApart) {
    // German reads the same in Windows-1250, Windows-1252 and Latin-1: a tie, which Windows-1252 wins
    // whatever the order of the candidates.
    const Bytes german = in(TextEncoding::cp1252(), "Über die Größe der Äpfel");
    const std::vector<TextEncoding> candidates = {TextEncoding::cp1250(), TextEncoding::latin1(), TextEncoding::cp1252()};
    const auto best = EncodingScorer::best(german, candidates);
    ASSERT_TRUE(best.has_value());
    EXPECT_EQ(best->encoding, TextEncoding::cp1252());
    EXPECT_EQ(best->score, *EncodingScorer::score(german, TextEncoding::cp1252()));
    // The same text, so there is nothing to say as a second reading.
    EXPECT_FALSE(EncodingScorer::closeSecond(german, candidates, *best).has_value());
    // No reading at all.
    EXPECT_FALSE(EncodingScorer::best(Bytes{0xE9}, std::vector<TextEncoding>{TextEncoding::ascii()}).has_value());
    EXPECT_EQ(EncodingScorer::tieOrder().front(), "utf8");
    EXPECT_EQ(EncodingScorer::tieOrder().back(), "cp437");
}

TEST(EncodingScorer, chineseFormsAndCommonCharactersAreCounted) {
    const std::u32string simplified = UnicodeText::toScalars(std::string_view("这个国家的人们说中国话"));
    const auto forms = EncodingScorer::chineseForms(simplified);
    EXPECT_EQ(forms.simplified, 7);   // 这 个 国 们 说 国 话
    EXPECT_EQ(forms.traditional, 0);
    const auto traditional = EncodingScorer::chineseForms(UnicodeText::toScalars(std::string_view("這個國家")));
    EXPECT_EQ(traditional.traditional, 3);
    EXPECT_EQ(traditional.simplified, 0);
    // Korean: every syllable of this is a common one; in Chinese terms it has no ideographs at all.
    const std::u32string korean = UnicodeText::toScalars(std::string_view("안녕하세요 감사합니다"));
    EXPECT_DOUBLE_EQ(EncodingScorer::commonShare(korean, EncodingScorer::CommonSet::korean), 1.0);
    EXPECT_DOUBLE_EQ(EncodingScorer::commonShare(korean, EncodingScorer::CommonSet::chinese), 0.0);
    EXPECT_DOUBLE_EQ(EncodingScorer::commonShare(UnicodeText::toScalars(std::string_view("abc")),
                                                 EncodingScorer::CommonSet::chinese),
                     0.0);
    EXPECT_DOUBLE_EQ(EncodingScorer::commonShare(UnicodeText::toScalars(std::string_view("的一鼹")),
                                                 EncodingScorer::CommonSet::chinese),
                     2.0 / 3.0);
}

} // namespace
} // namespace brim
