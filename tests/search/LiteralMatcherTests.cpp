#include "search/LiteralMatcher.h"

#include "bytes/MemorySource.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace brim {
namespace {

std::uint8_t foldASCII(std::uint8_t byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<std::uint8_t>(byte | 0x20) : byte; }

/// Every start of `pattern` in `text`, overlapping ones included, the slow way.
std::vector<std::size_t> everyStart(const std::string& text, const std::string& pattern, bool ignoreCase) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i + pattern.size() <= text.size(); ++i) {
        bool equal = true;
        for (std::size_t j = 0; j < pattern.size() && equal; ++j) {
            auto a = static_cast<std::uint8_t>(text[i + j]);
            auto b = static_cast<std::uint8_t>(pattern[j]);
            if (ignoreCase) {
                a = foldASCII(a);
                b = foldASCII(b);
            }
            equal = a == b;
        }
        if (equal) starts.push_back(i);
    }
    return starts;
}

std::vector<std::size_t> scanAll(const LiteralMatcher& matcher, const std::string& text, std::size_t from = 0) {
    std::vector<std::size_t> starts;
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    LiteralMatcher::Scanner scanner(matcher, bytes, from);
    for (std::size_t at = scanner.next(); at != LiteralMatcher::Scanner::none; at = scanner.next()) starts.push_back(at);
    return starts;
}

/// Text from a small alphabet so that patterns recur, with the bytes that trip up case folding
/// by bit 5: "_", "@", "[", tab, line ends, and bytes from 0x80 up.
std::string randomText(std::mt19937& random, std::size_t length) {
    static const std::string alphabet = "aAbBcC_@[]\t\n ~\x7f" "\xc3\xa4\xe0\x80\x9f\xdf\xff";
    std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
    std::string text(length, ' ');
    for (char& c : text) c = alphabet[pick(random)];
    return text;
}

TEST(LiteralMatcher, everyStrategyAgreesWithBruteForce) {
    std::mt19937 random(20240611);
    const LiteralMatcher::Strategy strategies[] = {LiteralMatcher::Strategy::rareByte,
                                                   LiteralMatcher::Strategy::wordAtATime,
                                                   LiteralMatcher::Strategy::vector};
    for (int round = 0; round < 400; ++round) {
        const std::string text = randomText(random, std::uniform_int_distribution<std::size_t>(0, 300)(random));
        std::string pattern;
        if (!text.empty() && round % 4 != 0) {
            const std::size_t start = std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(random);
            const std::size_t length = std::uniform_int_distribution<std::size_t>(1, 9)(random);
            pattern = text.substr(start, length);
        } else {
            pattern = randomText(random, std::uniform_int_distribution<std::size_t>(1, 4)(random));
        }
        const bool ignoreCase = round % 2 == 1;
        // A matcher with a histogram of the text itself, as the engine builds it, and one without.
        const MemorySource source(std::vector<std::uint8_t>(text.begin(), text.end()));
        const ByteHistogram histogram = LiteralMatcher::byteHistogram(source);
        for (const ByteHistogram* counts : {static_cast<const ByteHistogram*>(nullptr), &histogram}) {
            LiteralMatcher matcher(pattern, ignoreCase, counts);
            const auto expected = everyStart(text, pattern, ignoreCase);
            for (const auto strategy : strategies) {
                // memchr finds one byte: the engine only picks it for a byte with one case.
                if (strategy == LiteralMatcher::Strategy::rareByte && matcher.rareLower != matcher.rareUpper) continue;
                matcher.strategy = strategy;
                SCOPED_TRACE(::testing::Message() << "round " << round << " strategy " << static_cast<int>(strategy)
                                                << " ignoreCase " << ignoreCase << " pattern size " << pattern.size());
                ASSERT_EQ(scanAll(matcher, text), expected);
            }
        }
    }
}

TEST(LiteralMatcher, caseInsensitiveAnchorsWithoutBitFiveAreFound) {
    // "_" (0x5F), "@" (0x40), "[" and tab have bit 5 clear: OR-ing the text with 0x20 must be
    // matched against the anchor with bit 5 set as well, or none of these would be found.
    for (const std::string pattern : {"foo_bar", "_", "@x", "a[b", "\t\t", "\xC3\xA4", "x\xDF"}) {
        SCOPED_TRACE(pattern);
        std::string text;
        for (int i = 0; i < 1'000; ++i) text += "some filler " + pattern + " and more\n";
        LiteralMatcher matcher(pattern, true);
        for (const auto strategy : {LiteralMatcher::Strategy::wordAtATime, LiteralMatcher::Strategy::vector}) {
            matcher.strategy = strategy;
            EXPECT_EQ(scanAll(matcher, text).size(), everyStart(text, pattern, true).size());
            EXPECT_GE(scanAll(matcher, text).size(), 1'000U);
        }
    }
}

TEST(LiteralMatcher, anchorsFollowTheHistogramAndPreferACloseRarePartner) {
    // Static ranks alone: "q" (300) beats "e" (700); ties go to the last position.
    const LiteralMatcher plain("queue", false);
    EXPECT_EQ(plain.rareIndex, 0U);
    const LiteralMatcher tie("xyzx", false);
    EXPECT_EQ(tie.rareIndex, 3U);

    // With a histogram in which "q" is everywhere and "z" is absent, "z" is the rare byte.
    ByteHistogram counts{};
    counts['q'] = 50'000;
    counts['u'] = 10'000;
    counts['e'] = 10'000;
    counts[' '] = 10'000;
    const LiteralMatcher sampled("quiz queue", false, &counts);
    EXPECT_EQ(sampled.pattern[sampled.rareIndex], 'z');
    EXPECT_TRUE(sampled.rareIsVeryRare);
    EXPECT_EQ(sampled.strategy, LiteralMatcher::Strategy::rareByte);
    // Of the partners equally rare, the nearest one wins: "i" right before "z".
    EXPECT_EQ(sampled.partnerIndex, sampled.rareIndex - 1);

    // A letter searched without case is never very rare: memchr would see only one of its cases.
    const LiteralMatcher folded("quiz", true, &counts);
    EXPECT_FALSE(folded.rareIsVeryRare);
    EXPECT_EQ(folded.rareUpper, 'Z');

    const LiteralMatcher single("x", false);
    EXPECT_EQ(single.rareIndex, single.partnerIndex);
}

TEST(LiteralMatcher, scannerStartsAtItsCursorAndSeeksForward) {
    const std::string text = "abcabcabcabc";
    LiteralMatcher matcher("abc", false);
    EXPECT_EQ(scanAll(matcher, text, 1), (std::vector<std::size_t>{3, 6, 9}));
    EXPECT_TRUE(scanAll(matcher, text, 10).empty());

    const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    LiteralMatcher::Scanner scanner(matcher, bytes);
    EXPECT_EQ(scanner.next(), 0U);
    scanner.seek(7);
    EXPECT_EQ(scanner.next(), 9U);
    scanner.seek(2);  // backwards changes nothing
    EXPECT_EQ(scanner.next(), LiteralMatcher::Scanner::none);

    // A pattern longer than the block ends the scanner at once.
    LiteralMatcher longer("abcabcabcabcabc", false);
    EXPECT_TRUE(scanAll(longer, text).empty());
}

TEST(LiteralMatcher, startsAndHighBytesComeFromOnePassAndAgreeWithTheSlowWay) {
    std::mt19937 random(8);
    const std::string alphabet = "ab_c \n";
    for (int round = 0; round < 300; ++round) {
        std::string text(std::uniform_int_distribution<std::size_t>(0, 700)(random), ' ');
        for (char& c : text) c = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(random)];
        // Sometimes one byte of 0x80 or more, anywhere: before `from`, in the lanes, in the tail.
        const bool withHigh = round % 3 == 0 && !text.empty();
        if (withHigh) text[std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(random)] = '\xC3';
        const std::string pattern = round % 2 == 0 ? "ab_" : "b";
        const bool ignoreCase = round % 4 == 1;
        const LiteralMatcher matcher(pattern, ignoreCase);
        const std::size_t from = text.empty() ? 0 : std::uniform_int_distribution<std::size_t>(0, text.size() / 4)(random);
        std::vector<std::size_t> starts = {99};  // cleared first
        const bool high = matcher.startsAndHighBytes(
            std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), from, starts);
        EXPECT_EQ(high, withHigh) << round;
        std::vector<std::size_t> expected;
        for (const std::size_t at : everyStart(text, pattern, ignoreCase)) {
            if (at >= from) expected.push_back(at);
        }
        EXPECT_EQ(starts, expected) << round;
    }
}

} // namespace
} // namespace brim
