#include "search/SearchEngine.h"

#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "search/ExpressionSyntax.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace brim {
namespace {

MemorySource sourceOf(std::string_view text) { return MemorySource(std::vector<std::uint8_t>(text.begin(), text.end())); }

SearchQuery literal(std::string pattern, bool caseSensitive = true, bool wholeWord = false) {
    SearchQuery query;
    query.pattern = std::move(pattern);
    query.caseSensitive = caseSensitive;
    query.wholeWord = wholeWord;
    return query;
}

SearchQuery regex(std::string pattern, bool caseSensitive = true, bool wholeWord = false) {
    SearchQuery query = literal(std::move(pattern), caseSensitive, wholeWord);
    query.isRegex = true;
    return query;
}

bool isWordByte(unsigned char c) { return std::isalnum(c) != 0 || c == '_' || c >= 0x80; }
unsigned char foldASCII(unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c | 0x20) : c; }

/// The matches a literal search must find: leftmost first, never overlapping, A-Z folded when
/// case is ignored, and with whole words bounded by bytes that are no letter, digit, "_" or
/// byte from 0x80 up.
std::vector<ByteRange> naiveFind(const std::string& text, const std::string& pattern, bool caseSensitive, bool wholeWord) {
    std::vector<ByteRange> found;
    const std::size_t m = pattern.size();
    std::size_t i = 0;
    while (m > 0 && i + m <= text.size()) {
        bool equal = true;
        for (std::size_t j = 0; j < m && equal; ++j) {
            const auto a = static_cast<unsigned char>(text[i + j]);
            const auto b = static_cast<unsigned char>(pattern[j]);
            equal = caseSensitive ? a == b : foldASCII(a) == foldASCII(b);
        }
        if (equal && wholeWord) {
            const bool before = i > 0 && isWordByte(static_cast<unsigned char>(text[i - 1]));
            const bool after = i + m < text.size() && isWordByte(static_cast<unsigned char>(text[i + m]));
            equal = !before && !after;
        }
        if (equal) {
            found.push_back({static_cast<std::int64_t>(i), static_cast<std::int64_t>(i + m)});
            i += m;
        } else {
            ++i;
        }
    }
    return found;
}

std::vector<ByteRange> findAllRanges(const ByteSource& source, const SearchQuery& query) {
    return SearchEngine::findAll(source, query, std::numeric_limits<std::int64_t>::max(), 0).matches;
}

TEST(SearchEngine, literalSearchAgreesWithANaiveSearchOnRandomText) {
    std::mt19937 random(7);
    const std::string alphabet = "abAB_@\t\n .x\xc3\xa0";
    for (int round = 0; round < 300; ++round) {
        std::string text(std::uniform_int_distribution<std::size_t>(0, 2'000)(random), ' ');
        for (char& c : text) c = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(random)];
        std::string pattern;
        const std::size_t length = std::uniform_int_distribution<std::size_t>(1, 6)(random);
        for (std::size_t i = 0; i < length; ++i) {
            pattern += alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 3)(random)];
        }
        const bool caseSensitive = round % 3 != 0;
        const bool wholeWord = round % 4 == 0;
        SCOPED_TRACE(::testing::Message() << "round " << round << " pattern '" << pattern << "' case " << caseSensitive
                                        << " word " << wholeWord);
        const auto source = sourceOf(text);
        const auto expected = naiveFind(text, pattern, caseSensitive, wholeWord);
        const auto result = SearchEngine::findAll(source, literal(pattern, caseSensitive, wholeWord), 1'000'000, 0);
        ASSERT_EQ(result.matches, expected);
        ASSERT_EQ(result.total, static_cast<std::int64_t>(expected.size()));
        // The same matches through the expression engine, with the pattern escaped.
        if (caseSensitive) {
            SearchQuery asExpression = literal(ExpressionSyntax::escaped(pattern), caseSensitive, false);
            asExpression.isRegex = true;
            if (!wholeWord) {
                ASSERT_EQ(findAllRanges(source, asExpression), expected);
            }
        }
    }
}

TEST(SearchEngine, expressionsAgreeWithStdRegexOnRandomPatterns) {
    // Patterns that never match empty, over text with line ends; "." stops at a line end in both.
    std::mt19937 random(17);
    const std::vector<std::string> atoms = {"a", "b", ".", "[ab]", "[^a\\n]", "c", "\\d", "\\s"};
    const std::vector<std::string> quantifiers = {"", "", "*", "+", "?", "{1,2}"};
    const std::string alphabet = "aabbc 1\n";
    for (int round = 0; round < 200; ++round) {
        std::string pattern = atoms[random() % atoms.size()];
        const auto more = random() % 4;
        for (unsigned i = 0; i < more; ++i) pattern += atoms[random() % atoms.size()] + quantifiers[random() % quantifiers.size()];
        std::string text(random() % 300, ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        SCOPED_TRACE(::testing::Message() << "round " << round << " pattern " << pattern);
        std::vector<ByteRange> expected;
        const std::regex reference(pattern);
        for (auto it = std::sregex_iterator(text.begin(), text.end(), reference); it != std::sregex_iterator(); ++it) {
            const auto start = static_cast<std::int64_t>(it->position());
            expected.push_back({start, start + static_cast<std::int64_t>(it->length())});
        }
        ASSERT_EQ(findAllRanges(sourceOf(text), regex(pattern)), expected);
    }
}

TEST(SearchEngine, matchesAcrossBlockSeamsAreFoundOnceInParallelAndInOrder) {
    // Over 16 MiB, so the blocks of 8 MiB are searched in parallel and merged.
    const std::int64_t block = SearchEngine::blockSize;
    std::string text;
    text.reserve(static_cast<std::size_t>(2 * block + 3'000'000));
    while (text.size() < static_cast<std::size_t>(2 * block + 3'000'000)) text += "lorem ipsum dolor sit amet\n";
    // Needles at every offset around both seams, and runs of "a" that make "aa" overlap them.
    const std::string needle = "NEEDLE";
    for (const std::int64_t seam : {block, 2 * block}) {
        for (std::int64_t shift = -8; shift <= 2; shift += 2) {
            text.replace(static_cast<std::size_t>(seam + shift * 40), needle.size(), needle);
        }
        for (std::int64_t shift = -6; shift <= 0; ++shift) {
            text.replace(static_cast<std::size_t>(seam + shift), 1, "N");
        }
        text.replace(static_cast<std::size_t>(seam - 3), needle.size(), needle);  // straddles the seam
        text.replace(static_cast<std::size_t>(seam - 1'003), 7, "aaaaaaa");
        text.replace(static_cast<std::size_t>(seam - 5 - 2'000), 11, "aaaaaaaaaaa");
    }
    text.replace(static_cast<std::size_t>(block - 1), 2, "aa");
    text.replace(static_cast<std::size_t>(block + 1), 3, "aaa");
    const auto source = sourceOf(text);
    for (const std::string pattern : {"NEEDLE", "aa", "ipsum", "a", "EDLE\nlo"}) {
        for (const bool caseSensitive : {true, false}) {
            SCOPED_TRACE(pattern + (caseSensitive ? " case-sensitive" : " ignoring case"));
            const auto expected = naiveFind(text, pattern, caseSensitive, false);
            const auto result = SearchEngine::findAll(source, literal(pattern, caseSensitive), 10'000'000, 0);
            EXPECT_EQ(result.total, static_cast<std::int64_t>(expected.size()));
            EXPECT_TRUE(result.matches == expected);
        }
    }
}

TEST(SearchEngine, mappedAndInMemoryDocumentsGiveTheSameMatches) {
    testing::TemporaryFolder folder;
    std::string text;
    std::mt19937 random(3);
    for (int i = 0; i < 200'000; ++i) text += (random() % 7 == 0 ? "alpha Beta\n" : "gamma delta beta\n");
    const auto path = folder.write("big.txt", text);
    const MappedSource mapped(path);
    const auto memory = sourceOf(text);
    for (const auto& query : {literal("beta", false), literal("Beta"), regex("^gamma\\s+\\w+"), regex("b[ei]ta", false, true)}) {
        SCOPED_TRACE(query.pattern);
        const auto a = SearchEngine::findAll(mapped, query, 50'000, 16);
        const auto b = SearchEngine::findAll(memory, query, 50'000, 16);
        EXPECT_EQ(a.matches, b.matches);
        EXPECT_EQ(a.total, b.total);
        EXPECT_EQ(a.spread, b.spread);
        EXPECT_GT(a.total, 0);
    }
}

TEST(SearchEngine, expressionsFindWhatTheyShouldAcrossLinesAndWindows) {
    const auto source = sourceOf("alpha beta\nALPHA bita\nbeta ALPHA\n\nlast line");
    struct Case {
        SearchQuery query;
        std::vector<ByteRange> expected;
    };
    const Case cases[] = {
        {regex("b[ei]ta"), {{6, 10}, {17, 21}, {22, 26}}},
        {regex("^ALPHA"), {{11, 16}}},                   // line starts, not only the text's
        {regex("^alpha", false), {{0, 5}, {11, 16}}},
        {regex("a$"), {{9, 10}, {20, 21}}},              // before each line end
        {regex("^$"), {{33, 33}}},                       // the empty line
        {regex("line\\z"), {{39, 43}}},
        {regex("a\\nA"), {{9, 12}}},                     // a match may run over a line end
        {regex("beta", false, true), {{6, 10}, {22, 26}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.query.pattern);
        EXPECT_EQ(findAllRanges(source, c.query), c.expected);
    }
    // Two adjacent matches of "aa" in "aaaa" count as two, in either engine.
    EXPECT_EQ(SearchEngine::findAll(sourceOf("aaaa"), literal("aa"), 10, 0).total, 2);
    EXPECT_EQ(SearchEngine::findAll(sourceOf("aaaa"), regex("aa"), 10, 0).total, 2);
    // An empty match never stalls the loop: one at each position of "ab" and at the end.
    EXPECT_EQ(findAllRanges(sourceOf("ab"), regex("x*")), (std::vector<ByteRange>{{0, 0}, {1, 1}, {2, 2}}));
    EXPECT_EQ(findAllRanges(sourceOf("aab"), regex("a*")), (std::vector<ByteRange>{{0, 2}, {2, 2}, {3, 3}}));
}

TEST(SearchEngine, expressionsOverManyWindowsMatchASingleRunOverTheWholeText) {
    // Lines of varied length over several windows of 1 MiB; the window seams fall at line ends,
    // and a pattern with a literal prefix takes the candidate path while one without does not.
    std::mt19937 random(11);
    std::string text;
    while (text.size() < 5'000'000) {
        const int words = static_cast<int>(random() % 12);
        for (int w = 0; w < words; ++w) text += (random() % 5 == 0) ? "connection " : (random() % 3 ? "reset " : "Conn ");
        text += (random() % 50 == 0) ? "\xff\xfe stray " : "";
        text += "\n";
    }
    const auto source = sourceOf(text);
    const auto withPrefix = SearchEngine::findAll(source, regex("connection \\w+"), 10'000'000, 0);
    const auto withoutPrefix = SearchEngine::findAll(source, regex("(?:connection) \\w+"), 10'000'000, 0);
    EXPECT_GT(withPrefix.total, 10'000);
    EXPECT_EQ(withPrefix.matches, withoutPrefix.matches);
    const auto caseless = SearchEngine::findAll(source, regex("conn\\w*", false), 10'000'000, 0);
    const auto caselessOpen = SearchEngine::findAll(source, regex("(?:conn)\\w*", false), 10'000'000, 0);
    EXPECT_EQ(caseless.matches, caselessOpen.matches);
    // The literal search agrees with the expression engine on the same plain text.
    EXPECT_EQ(findAllRanges(source, literal("connection r")), findAllRanges(source, regex("connection r")));
}

TEST(SearchEngine, strayBytesNeverHideAMatchAndOffsetsStayTrue) {
    const std::string text = "caf\xE9 x\xFF\xFEy n\xC3\xA4he \xF0\x9F\x98\x80ok\n\xC3 end";
    const auto source = sourceOf(text);
    EXPECT_EQ(findAllRanges(source, regex("x.+y")), (std::vector<ByteRange>{{5, 9}}));
    EXPECT_EQ(findAllRanges(source, regex("n.he")), (std::vector<ByteRange>{{10, 15}}));
    EXPECT_EQ(findAllRanges(source, regex("\\x{1F600}ok")), (std::vector<ByteRange>{{16, 22}}));
    EXPECT_EQ(findAllRanges(source, regex("^.\\s*end")), (std::vector<ByteRange>{{23, 28}}));
    EXPECT_EQ(findAllRanges(source, regex("caf.")), (std::vector<ByteRange>{{0, 4}}));
    // Well-formed text beyond ASCII is searched as it is, at the places its prefix stands.
    const auto wellFormed = sourceOf("n\xC3\xA4he, nahe, n\xF0\x9F\x98\x80he\nnhe");
    EXPECT_EQ(findAllRanges(wellFormed, regex("n.he")), (std::vector<ByteRange>{{0, 5}, {7, 11}, {13, 20}}));
    EXPECT_EQ(findAllRanges(wellFormed, regex("n\\X*?e")), (std::vector<ByteRange>{{0, 5}, {7, 11}, {13, 20}, {21, 24}}));
}

TEST(SearchEngine, caseIsFoldedBeyondASCIIOnlyThroughTheExpressionEngine) {
    const auto source = sourceOf("Äpfel und äpfel, STRASSE und Straße");
    // A non-ASCII pattern without case goes to the expression engine, which folds Unicode.
    EXPECT_FALSE(SearchEngine::literalMatcher(literal("ÄPFEL", false), source));
    EXPECT_EQ(SearchEngine::findAll(source, literal("ÄPFEL", false), 10, 0).total, 2);
    // With case, or with an ASCII pattern, the literal scanner is byte-exact beyond A-Z.
    EXPECT_TRUE(SearchEngine::literalMatcher(literal("äpfel", true), source));
    EXPECT_EQ(SearchEngine::findAll(source, literal("äpfel", true), 10, 0).total, 1);
    EXPECT_EQ(SearchEngine::findAll(source, literal("strasse", false), 10, 0).total, 1);
    // The Kelvin sign folds to "k" in the expression engine; a prefix scan must not lose it.
    const auto kelvin = sourceOf("\xE2\x84\xAAilo and kilo and KILO");
    EXPECT_EQ(SearchEngine::findAll(kelvin, regex("kilo", false), 10, 0).total, 3);
}

TEST(SearchEngine, wholeWordsOnEachPath) {
    const auto source = sourceOf("a àa a_b a1 (a) ña a");
    // Literal: every byte from 0x80 up is a word byte, so "a" in "àa" and "ña" is no word.
    EXPECT_EQ(findAllRanges(source, literal("a", true, true)),
              (std::vector<ByteRange>{{0, 1}, {14, 15}, {21, 22}}));
    // Expression path: Unicode word characters; "à" and "ñ" are letters too.
    EXPECT_EQ(findAllRanges(source, regex("a", true, true)), (std::vector<ByteRange>{{0, 1}, {14, 15}, {21, 22}}));
    // A whole-word candidate that fails lets a later one in the same run through.
    EXPECT_EQ(findAllRanges(sourceOf("foofoo foo"), literal("foo", true, true)), (std::vector<ByteRange>{{7, 10}}));
    // Word bytes are looked at across the edge of a block.
    std::string text(static_cast<std::size_t>(SearchEngine::blockSize) - 2, ' ');
    text += "xfoo foo";
    EXPECT_EQ(findAllRanges(sourceOf(text), literal("foo", true, true)).size(), 1U);
}

TEST(SearchEngine, limitsCountEverythingAndSpreadReachesTheEnd) {
    std::string text;
    for (int i = 0; i < 30'000; ++i) text += "x hit y\n";
    const auto source = sourceOf(text);
    for (const auto& query : {literal("hit"), regex("h.t")}) {
        SCOPED_TRACE(query.pattern);
        const auto result = SearchEngine::findAll(source, query, 10'000, 8);
        EXPECT_EQ(result.total, 30'000);
        ASSERT_EQ(result.matches.size(), 10'000U);
        EXPECT_EQ(result.matches.back(), (ByteRange{9'999 * 8 + 2, 9'999 * 8 + 5}));
        ASSERT_FALSE(result.spread.empty());
        EXPECT_LE(result.spread.size(), 8U);
        EXPECT_GT(result.spread.back(), static_cast<std::int64_t>(text.size()) * 3 / 4);
        EXPECT_TRUE(std::is_sorted(result.spread.begin(), result.spread.end()));
        EXPECT_FALSE(result.cancelled);
        // Counting only keeps nothing.
        EXPECT_TRUE(SearchEngine::findAll(source, query, 0, 0).matches.empty());
    }
}

TEST(SearchEngine, anEmptyPatternFindsNothingAnywhere) {
    const auto source = sourceOf("some text");
    for (const auto& query : {literal(""), regex("")}) {
        EXPECT_EQ(SearchEngine::findAll(source, query, 10, 8).total, 0);
        EXPECT_FALSE(SearchEngine::findNext(source, query, 0));
        EXPECT_FALSE(SearchEngine::scanBackward(source, query, 9));
        EXPECT_TRUE(SearchEngine::collect(source, query, {0, 9}, 10).empty());
        EXPECT_TRUE(SearchEngine::matches(source, query, {0, 9}, 10).empty());
    }
}

TEST(SearchEngine, cancellingReturnsWhatWasFoundSoFar) {
    std::string text;
    while (text.size() < 40'000'000) text += "one two three four five six seven\n";
    const auto source = sourceOf(text);
    for (const auto& query : {literal("four"), regex("f\\w+e")}) {
        SCOPED_TRACE(query.pattern);
        std::atomic<int> asked{0};
        const IsCancelled isCancelled = [&asked] { return ++asked > 3; };
        std::vector<double> fractions;
        const auto result = SearchEngine::findAll(source, query, 100, 0, [&](double f) { fractions.push_back(f); }, isCancelled);
        EXPECT_TRUE(result.cancelled);
        EXPECT_FALSE(result.timedOut);
        EXPECT_GT(result.total, 0);
        EXPECT_LT(result.total, static_cast<std::int64_t>(text.size() / 34));
        EXPECT_EQ(result.matches.size(), 100U);
        EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
        // findNext says nothing once cancelled, and throws nothing.
        EXPECT_FALSE(SearchEngine::findNext(source, literal("absent"), 0, {}, [] { return true; }));
    }
}

TEST(SearchEngine, aRunawayExpressionIsStoppedAndSaidSo) {
    std::string text = "ok aaa\n";
    text += std::string(40, 'a') + "!\n";
    text += "after ok\n";
    const auto source = sourceOf(text);
    const auto query = regex("(a+)+$");
    const auto started = std::chrono::steady_clock::now();
    const auto result = SearchEngine::findAll(source, query, 100, 0);
    EXPECT_TRUE(result.timedOut);
    EXPECT_FALSE(result.cancelled);
    EXPECT_EQ(result.total, 1);  // "aaa" on the first line, before the runaway
    try {
        (void)SearchEngine::findNext(source, query, 7);
        ADD_FAILURE() << "no error";
    } catch (const BrimError& error) {
        EXPECT_STREQ(error.what(), "The expression takes too long on this text and was stopped. Make it more specific.");
    }
    // The marks on screen give what they have and never throw.
    EXPECT_NO_THROW((void)SearchEngine::matches(source, query, {0, static_cast<std::int64_t>(text.size())}, 10));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
}

TEST(SearchEngine, findNextWrapsAroundAndScanBackwardFindsThePrevious) {
    const auto source = sourceOf("needle one, needle two, needle three");
    auto query = literal("needle");
    EXPECT_EQ(SearchEngine::findNext(source, query, 1), (SearchHit{{12, 18}}));
    EXPECT_FALSE(SearchEngine::findNext(source, query, 25));
    query.wrapAround = true;
    EXPECT_EQ(SearchEngine::findNext(source, query, 25), (SearchHit{{0, 6}}));
    // A match that begins before `from` and ends after it is found by the wrapped leg.
    EXPECT_EQ(SearchEngine::findNext(source, query, 26), (SearchHit{{0, 6}}));
    const auto straddling = sourceOf("xx needle");
    EXPECT_EQ(SearchEngine::findNext(straddling, query, 5), (SearchHit{{3, 9}}));
    auto expression = regex("needle \\w+");
    expression.wrapAround = true;
    EXPECT_EQ(SearchEngine::findNext(source, expression, 30), (SearchHit{{0, 10}}));

    EXPECT_EQ(SearchEngine::scanBackward(source, literal("needle"), 30), (SearchHit{{24, 30}}));
    EXPECT_EQ(SearchEngine::scanBackward(source, literal("needle"), 29), (SearchHit{{12, 18}}));
    EXPECT_FALSE(SearchEngine::scanBackward(source, literal("needle"), 5));
    EXPECT_EQ(SearchEngine::scanBackward(source, regex("needle \\w+"), 36), (SearchHit{{24, 36}}));
    EXPECT_EQ(SearchEngine::scanBackward(source, regex("needle \\w+"), 35), (SearchHit{{12, 22}}));
    // Backward over more than one block.
    std::string text = "target";
    text += std::string(static_cast<std::size_t>(SearchEngine::blockSize) * 2, '.');
    EXPECT_EQ(SearchEngine::scanBackward(sourceOf(text), literal("target"), static_cast<std::int64_t>(text.size())),
              (SearchHit{{0, 6}}));
    std::string lines;
    lines += "target\n";
    for (int i = 0; i < 100'000; ++i) lines += "filler line\n";
    EXPECT_EQ(SearchEngine::scanBackward(sourceOf(lines), regex("t.rget"), static_cast<std::int64_t>(lines.size())),
              (SearchHit{{0, 6}}));
}

TEST(SearchEngine, collectStaysInsideItsRange) {
    const auto source = sourceOf("ab ab ab ab\nab ab");
    EXPECT_EQ(SearchEngine::collect(source, literal("ab"), {2, 12}, 10),
              (std::vector<ByteRange>{{3, 5}, {6, 8}, {9, 11}}));
    EXPECT_EQ(SearchEngine::collect(source, literal("ab"), {2, 12}, 2), (std::vector<ByteRange>{{3, 5}, {6, 8}}));
    // The expression path starts at the line holding the range, and drops what reaches out.
    EXPECT_EQ(SearchEngine::collect(source, regex("ab ab"), {1, 14}, 10), (std::vector<ByteRange>{{3, 8}}));
    EXPECT_EQ(SearchEngine::collect(source, regex("^ab"), {4, 17}, 10), (std::vector<ByteRange>{{12, 14}}));
}

TEST(SearchEngine, badExpressionsThrowTheEnginesMessageInOurWords) {
    const auto source = sourceOf("text");
    struct Case {
        const char* pattern;
        const char* message;
    };
    const Case cases[] = {
        {"(ab", "Invalid pattern: missing closing parenthesis (at character 4)"},
        {"a{2,1}", "Invalid pattern: numbers out of order in {} quantifier (at character 6)"},
        {"[[a-z]&&[^aeiou]]",
         "Invalid pattern: set operations in a character class (&& and --) are not supported; write the class out instead."},
        {"(?<=a+)b", "Invalid pattern: a lookbehind, (?<=…) or (?<!…), must have a bounded length: *, + and {n,} "
                     "cannot stand inside one."},
        {"\\N{NO SUCH CHARACTER}", "Invalid pattern: there is no character named “NO SUCH CHARACTER”."},
        {"\\u12", "Invalid pattern: \\u must be followed by four hexadecimal digits."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pattern);
        try {
            (void)SearchEngine::findAll(source, regex(c.pattern), 10, 0);
            ADD_FAILURE() << "no error";
        } catch (const PatternError& error) {
            EXPECT_STREQ(error.what(), c.message);
        }
        EXPECT_THROW((void)SearchEngine::findNext(source, regex(c.pattern), 0), PatternError);
        EXPECT_THROW((void)SearchEngine::collect(source, regex(c.pattern), {0, 4}, 1), PatternError);
        EXPECT_TRUE(SearchEngine::matches(source, regex(c.pattern), {0, 4}, 10).empty());
    }
}

TEST(SearchEngine, icuOnlySyntaxIsTranslated) {
    const auto source = sourceOf("caf\xC3\xA9 \xF0\x9F\x98\x80 \xC3\xA0 x7 q");
    struct Case {
        const char* pattern;
        std::vector<ByteRange> expected;
    };
    const Case cases[] = {
        {"caf\\u00e9", {{0, 5}}},
        {"\\U0001F600", {{6, 10}}},
        {"\\N{LATIN SMALL LETTER A WITH GRAVE}", {{11, 13}}},
        {"[[x-z][0-9]]+", {{14, 16}}},
        {"[^[a-z][0-9]\\s\\u00e0-\\u00e9\\U0001F600]", {}},
        {"\\Q[x\\E|q", {{17, 18}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pattern);
        EXPECT_EQ(findAllRanges(source, regex(c.pattern)), c.expected);
    }
    EXPECT_EQ(ExpressionSyntax::toPCRE2("a\\u00E9[\\u0041-\\u005A]"), "a\\x{E9}[\\x{41}-\\x{5A}]");
    EXPECT_EQ(ExpressionSyntax::toPCRE2("[]a]"), "[\\]a]");
    EXPECT_EQ(ExpressionSyntax::toPCRE2("(?<=ab{2})c[[:alpha:]]"), "(?<=ab{2})c[[:alpha:]]");
}

TEST(SearchEngine, requiredPrefixIsTakenOnlyWhereEveryMatchStartsWithIt) {
    struct Case {
        const char* pattern;
        bool caseInsensitive;
        const char* prefix;
    };
    const Case cases[] = {
        {"connection \\w+", false, "connection "}, {"^foo\\.bar", false, "foo.bar"}, {"\\bword\\b", false, "word"},
        {"abc?d", false, "ab"},                    {"ab+", false, "a"},            {"a|b", false, ""},
        {"(ab)c", false, ""},                       {"[ab]c", false, ""},           {"ab(c|d)|e", false, ""},
        {"task", true, "ta"},                       {"desk", true, "de"},           {"café", false, "café"},
        {"café", true, "caf"},                      {"x(?:a|b)", false, "x"},        {"\\d+", false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pattern);
        EXPECT_EQ(ExpressionSyntax::requiredPrefix(c.pattern, c.caseInsensitive), c.prefix);
    }
}

/// Latin-1, the way a document in that set would describe itself to the engine.
SearchEncoding latin1() {
    SearchEncoding encoding;
    encoding.encode = [](std::string_view text) -> std::optional<std::string> {
        std::string out;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            if (c < 0x80) {
                out += static_cast<char>(c);
            } else if ((c == 0xC2 || c == 0xC3) && i + 1 < text.size()) {
                out += static_cast<char>(((c & 0x03) << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F));
            } else {
                return std::nullopt;
            }
        }
        return out;
    };
    encoding.decode = [](std::span<const std::uint8_t> bytes) {
        std::string out;
        for (const std::uint8_t b : bytes) {
            if (b < 0x80) {
                out += static_cast<char>(b);
            } else {
                out += static_cast<char>(0xC0 | (b >> 6));
                out += static_cast<char>(0x80 | (b & 0x3F));
            }
        }
        return out;
    };
    encoding.encodedLength = [](std::string_view text) {
        std::int64_t length = 0;
        for (const char c : text) length += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
        return length;
    };
    return encoding;
}

TEST(SearchEngine, documentsInOtherCharacterSetsAreSearchedInTheirOwnBytes) {
    const SearchEncoding encoding = latin1();
    const auto source = sourceOf("caf\xE9 CAF\xC9 na\xEFve\n\xE9t\xE9");
    const SearchText text(source, &encoding);
    // A literal is encoded into the document's bytes.
    EXPECT_EQ(findAllRanges(source, literal("café")), (std::vector<ByteRange>{}));
    EXPECT_EQ(SearchEngine::findAll(text, literal("café"), 10, 0).matches, (std::vector<ByteRange>{{0, 4}}));
    // Without case and beyond ASCII: decoded windows, offsets mapped back to the bytes.
    EXPECT_EQ(SearchEngine::findAll(text, literal("CAFÉ", false), 10, 0).matches,
              (std::vector<ByteRange>{{0, 4}, {5, 9}}));
    EXPECT_EQ(SearchEngine::findAll(text, regex("na.ve|^.t.$"), 10, 0).matches,
              (std::vector<ByteRange>{{10, 15}, {16, 19}}));
    // A character the set cannot hold is simply not there.
    EXPECT_EQ(SearchEngine::findAll(text, literal("caf€"), 10, 0).total, 0);

    // A set whose second bytes can look like ASCII: a match must begin on a character.
    SearchEncoding doubleByte = latin1();
    doubleByte.encode = [](std::string_view t) { return std::optional<std::string>(t); };
    doubleByte.characterStart = [](const ByteSource& s, std::int64_t offset) {
        // Bytes 0x81-0x9F lead a pair; walk from the start to the character holding `offset`.
        std::int64_t i = 0;
        while (true) {
            const std::int64_t next = i + (s.byte(i) >= 0x81 && s.byte(i) <= 0x9F ? 2 : 1);
            if (next > offset) return i;
            i = next;
        }
    };
    const auto pairs = sourceOf("\x83" "A A");
    const SearchText pairText(pairs, &doubleByte);
    EXPECT_EQ(SearchEngine::findAll(pairText, literal("A"), 10, 0).matches, (std::vector<ByteRange>{{3, 4}}));
}

} // namespace
} // namespace brim
