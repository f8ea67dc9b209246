// Searching documents kept in the bytes of a double-byte set, against a reference that works
// character by character. In these sets a second byte can look like ASCII or like a first byte,
// so a search of the bytes alone finds "matches" that straddle two characters.
#include "bytes/MemorySource.h"
#include "charsets/TextEncoding.h"
#include "search/DocumentText.h"
#include "search/LineFilter.h"
#include "search/ProjectSearch.h"
#include "search/SearchEngine.h"
#include "search/SearchResultsView.h"
#include "store/TextDocument.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace brim {
namespace {

/// A text built character by character, so where each character's bytes lie is known.
struct Sample {
    std::vector<std::string> characters;  // UTF-8, one each
    std::vector<std::int64_t> starts;     // byte offset of each character, and the end last
    std::vector<std::uint8_t> bytes;      // in the set
};

std::vector<std::uint8_t> encoded(const TextEncoding& encoding, std::string_view text) {
    const EncodedText out = encoding.encode(text);
    EXPECT_EQ(out.unwritable, 0) << text;
    return out.bytes;
}

Sample sampleOf(const TextEncoding& encoding, const std::vector<std::string>& characters) {
    Sample sample;
    sample.characters = characters;
    for (const auto& character : characters) {
        sample.starts.push_back(static_cast<std::int64_t>(sample.bytes.size()));
        const auto bytes = encoded(encoding, character);
        sample.bytes.insert(sample.bytes.end(), bytes.begin(), bytes.end());
    }
    sample.starts.push_back(static_cast<std::int64_t>(sample.bytes.size()));
    return sample;
}

/// One position of a pattern: a character, or any character but a line end.
struct Atom {
    std::string character;  // empty: any
};

bool asciiEqualIgnoringCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const auto x = static_cast<unsigned char>(a[i]);
        const auto y = static_cast<unsigned char>(b[i]);
        if (x != y && !(x < 0x80 && y < 0x80 && std::tolower(x) == std::tolower(y))) return false;
    }
    return true;
}

/// Leftmost matches that do not overlap, character by character, as byte ranges.
std::vector<ByteRange> reference(const Sample& sample, const std::vector<Atom>& pattern, bool caseSensitive) {
    std::vector<ByteRange> found;
    const std::size_t n = sample.characters.size();
    std::size_t i = 0;
    while (!pattern.empty() && i + pattern.size() <= n) {
        bool all = true;
        for (std::size_t k = 0; k < pattern.size() && all; ++k) {
            const std::string& have = sample.characters[i + k];
            const Atom& atom = pattern[k];
            all = atom.character.empty() ? have != "\n"
                                         : (caseSensitive ? have == atom.character : asciiEqualIgnoringCase(have, atom.character));
        }
        if (all) {
            found.push_back({sample.starts[i], sample.starts[i + pattern.size()]});
            i += pattern.size();
        } else {
            ++i;
        }
    }
    return found;
}

std::string literalText(const std::vector<Atom>& pattern) {
    std::string text;
    for (const auto& atom : pattern) text += atom.character;
    return text;
}

std::string expressionText(const std::vector<Atom>& pattern) {
    std::string text;
    for (const auto& atom : pattern) {
        if (atom.character.empty()) {
            text += '.';
        } else {
            if (std::strchr("\\.^$|?*+()[]{}", atom.character[0]) != nullptr && atom.character.size() == 1) text += '\\';
            text += atom.character;
        }
    }
    return text;
}

/// How often the pattern's bytes stand in the text, character starts or not.
std::int64_t byteOccurrences(const std::vector<std::uint8_t>& bytes, const std::vector<std::uint8_t>& pattern) {
    std::int64_t count = 0;
    for (auto at = bytes.begin(); (at = std::search(at, bytes.end(), pattern.begin(), pattern.end())) != bytes.end(); ++at) {
        ++count;
    }
    return count;
}

SearchQuery query(std::string pattern, bool isRegex, bool caseSensitive) {
    SearchQuery q;
    q.pattern = std::move(pattern);
    q.isRegex = isRegex;
    q.caseSensitive = caseSensitive;
    return q;
}

struct SetCase {
    const TextEncoding* encoding;
    /// Characters whose second bytes look like ASCII or like a first byte, beside ASCII.
    std::vector<std::string> alphabet;
};

std::vector<SetCase> setCases() {
    return {
        {&TextEncoding::shiftJIS(), {"ア", "イ", "ソ", "表", "ャ", "ｱ", "A", "C", "\\", "a", "c", "@", " ", "\n"}},
        {&TextEncoding::gb18030(), {"丂", "中", "文", "ß", "€", "A", "@", "0", "5", "a", " ", "\n"}},
        {&TextEncoding::big5(), {"功", "許", "中", "文", "A", "\\", "@", "a", "e", " ", "\n"}},
    };
}

TEST(DocumentText, literalsAndExpressionsAgreeWithACharacterByCharacterSearch) {
    std::mt19937 random(20240611);
    for (const auto& set : setCases()) {
        SCOPED_TRACE(set.encoding->id);
        const auto text = [&] {
            std::vector<std::string> characters;
            std::uniform_int_distribution<std::size_t> pick(0, set.alphabet.size() - 1);
            for (int i = 0; i < 6'000; ++i) characters.push_back(set.alphabet[pick(random)]);
            return sampleOf(*set.encoding, characters);
        }();
        const auto source = std::make_shared<MemorySource>(text.bytes);
        const DocumentText document(source, *set.encoding);
        ASSERT_NE(document.encoding(), nullptr);

        std::int64_t falseByteMatches = 0;
        for (int round = 0; round < 150; ++round) {
            std::vector<Atom> pattern;
            const auto length = std::uniform_int_distribution<int>(1, 3)(random);
            for (int k = 0; k < length; ++k) {
                std::string c = set.alphabet[std::uniform_int_distribution<std::size_t>(0, set.alphabet.size() - 2)(random)];
                pattern.push_back({c});
            }
            const std::string literal = literalText(pattern);
            SCOPED_TRACE(literal);
            const auto expected = reference(text, pattern, true);
            EXPECT_EQ(SearchEngine::findAll(document, query(literal, false, true), 100'000, 0).matches, expected);
            falseByteMatches += byteOccurrences(text.bytes, encoded(*set.encoding, literal)) -
                                static_cast<std::int64_t>(expected.size());

            // Without case a pattern beyond ASCII goes to the expression engine over decoded text.
            EXPECT_EQ(SearchEngine::findAll(document, query(literal, false, false), 100'000, 0).matches,
                      reference(text, pattern, false));

            // An expression with "any character" in it, mapped back to the bytes.
            pattern[static_cast<std::size_t>(std::uniform_int_distribution<int>(0, length - 1)(random))].character.clear();
            EXPECT_EQ(SearchEngine::findAll(document, query(expressionText(pattern), true, true), 100'000, 0).matches,
                      reference(text, pattern, true))
                << expressionText(pattern);
        }
        // The text is built so that a search of the bytes alone would go wrong.
        EXPECT_GT(falseByteMatches, 0);
    }
}

TEST(DocumentText, aMatchBeginsOnACharacterEvenWhereTheBytesSayOtherwise) {
    // "アイ" is 83 41 83 43: "Aイ" (41 83 43) stands in its bytes, across the two characters.
    const TextEncoding& sjis = TextEncoding::shiftJIS();
    const auto text = sampleOf(sjis, {"ア", "イ", " ", "A", "イ", "\n", "ソ", "\\", "\n"});
    const auto source = std::make_shared<MemorySource>(text.bytes);
    const DocumentText document(source, sjis);
    EXPECT_EQ(SearchEngine::findAll(document, query("Aイ", false, true), 10, 0).matches,
              (std::vector<ByteRange>{{text.starts[3], text.starts[5]}}));
    // "ソ" ends in 0x5C, the backslash: only the backslash of its own is found, forward and back.
    const ByteRange backslash{text.starts[7], text.starts[8]};
    EXPECT_EQ(SearchEngine::findAll(document, query("\\", false, true), 10, 0).matches, std::vector<ByteRange>{backslash});
    EXPECT_EQ(SearchEngine::findNext(document, query("\\", false, true), 0)->range, backslash);
    EXPECT_EQ(SearchEngine::scanBackward(document, query("\\", false, true), text.starts[8])->range, backslash);
    EXPECT_FALSE(SearchEngine::scanBackward(document, query("\\", false, true), text.starts[7]).has_value());
    // A pair the set does not assign reads as one U+FFFD, which would encode back to one byte:
    // the matches after it still land on their own bytes.
    std::vector<std::uint8_t> odd = {0xEF, 0x40, ' '};
    const auto ai = encoded(sjis, "Aイ");
    odd.insert(odd.end(), ai.begin(), ai.end());
    odd.push_back('\n');
    const DocumentText oddDocument(std::make_shared<MemorySource>(odd), sjis);
    EXPECT_EQ(SearchEngine::findAll(oddDocument, query("A.", true, true), 10, 0).matches,
              (std::vector<ByteRange>{{3, 6}}));
    EXPECT_EQ(SearchEngine::findAll(oddDocument, query("\\s", true, true), 10, 0).matches,
              (std::vector<ByteRange>{{2, 3}, {6, 7}}));

    // A character the set cannot hold is nowhere in the document.
    EXPECT_EQ(SearchEngine::findAll(document, query("ä", false, true), 10, 0).total, 0);

    // UTF-8 needs nothing: the engine reads it as it is.
    EXPECT_EQ(searchEncoding(TextEncoding::utf8()), nullptr);
    // A single-byte set is encoded and decoded, and every byte begins a character.
    const auto latin = searchEncoding(TextEncoding::cp1252());
    ASSERT_NE(latin, nullptr);
    EXPECT_FALSE(latin->characterStart);
    EXPECT_EQ(latin->encode("café"), std::optional<std::string>("caf\xE9"));
}

TEST(DocumentText, rowsLinesAndFiltersOfADocumentInItsOwnBytes) {
    testing::TemporaryFolder folder;
    const TextEncoding& big5 = TextEncoding::big5();
    // Line 2 holds "\@" (5C 40) twice in its bytes: "功" ends in 0x5C, so "功@" holds them too.
    const auto text = sampleOf(big5, {"中", "文", "\n", "功", "@", " ", "許", "\\", "@", "\n", "a", "\n"});
    const auto path = folder.write("notes.txt", text.bytes);
    TextDocument::OpenOptions options;
    options.forcedEncoding = big5;
    options.readProjectRules = false;
    const auto document = TextDocument::open(path, options);
    ASSERT_EQ(document->encoding.id, "big5");  // kept in its own bytes
    const DocumentText searched(*document);

    const auto found = SearchEngine::findAll(searched, query("\\@", false, true), 10, 0);
    ASSERT_EQ(found.matches, (std::vector<ByteRange>{{text.starts[7], text.starts[9]}}));
    const auto rows = SearchResultsView::build(searched, found.matches, 10);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].line, 1);
    EXPECT_EQ(rows[0].column, 4);  // 功 @ space 許, one UTF-16 unit each
    EXPECT_EQ(rows[0].text, "功@ 許\\@");
    EXPECT_EQ(rows[0].matchInText, (SearchResult::Span{4, 2}));

    const auto filtered = LineFilter::matchingRuns(searched, query("\\@", false, true));
    ASSERT_EQ(filtered.matched.size(), 1U);
    EXPECT_EQ(filtered.matched[0].first, 1);
    EXPECT_EQ(filtered.matched[0].last, 1);
    const auto byExpression = LineFilter::matchingRuns(searched, query("許.@", true, true));
    ASSERT_EQ(byExpression.matched.size(), 1U);
    EXPECT_EQ(byExpression.matched[0].first, 1);
    EXPECT_EQ(byExpression.matched[0].last, 1);

    // After an edit the table is searched, not the file it came from.
    document->replace({0, text.starts[2]}, "\\@", 0, 0);
    const DocumentText edited(*document);
    const auto again = SearchEngine::findAll(edited, query("\\@", false, true), 10, 0);
    EXPECT_EQ(again.total, 2);
    EXPECT_EQ(again.matches.front(), (ByteRange{0, 2}));
}

TEST(DocumentText, projectFilesAreSearchedInTheSetTheyAreIn) {
    testing::TemporaryFolder folder;
    // Named by the file, so the set does not rest on detection.
    const auto sjis = sampleOf(TextEncoding::shiftJIS(), {"ア", "イ", "\n", "x", "A", "イ", "\n"});
    folder.write("japanese.shift_jis.txt", sjis.bytes);
    std::vector<std::uint8_t> utf16 = {0xFF, 0xFE};
    for (const char16_t unit : std::u16string(u"one\r\ntwo Aイ\r\n")) {
        utf16.push_back(static_cast<std::uint8_t>(unit & 0xFF));
        utf16.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    folder.write("wide.txt", utf16);
    folder.write("plain.txt", "Aイ at the start\n");
    folder.write("old-mac.txt", "first\rsecond Aイ\r");

    const auto hitOf = [&](std::string_view name) {
        const auto outcome = ProjectSearch::examine(folder / name, query("Aイ", false, true));
        EXPECT_EQ(outcome.status, ProjectSearch::FileOutcome::Status::searched) << name;
        return outcome.hit;
    };
    const auto japanese = hitOf("japanese.shift_jis.txt");
    ASSERT_TRUE(japanese.has_value());
    ASSERT_EQ(japanese->total, 1);  // not the one across "アイ"
    EXPECT_EQ(japanese->results[0].line, 1);
    EXPECT_EQ(japanese->results[0].column, 1);
    EXPECT_EQ(japanese->results[0].text, "xAイ");

    const auto wide = hitOf("wide.txt");
    ASSERT_TRUE(wide.has_value());
    ASSERT_EQ(wide->total, 1);
    EXPECT_EQ(wide->results[0].line, 1);
    EXPECT_EQ(wide->results[0].column, 4);
    EXPECT_EQ(wide->results[0].text, "two Aイ");

    const auto plain = hitOf("plain.txt");
    ASSERT_TRUE(plain.has_value());
    EXPECT_EQ(plain->results[0].column, 0);

    // Lines ended by CR alone are lines too.
    const auto oldMac = hitOf("old-mac.txt");
    ASSERT_TRUE(oldMac.has_value());
    EXPECT_EQ(oldMac->results[0].line, 1);
    EXPECT_EQ(oldMac->results[0].text, "second Aイ");

    // A file with NULs that is no UTF-16 stays binary.
    folder.write("data.bin", std::string("Aイ\0\0\0\x01\x02", 10));
    EXPECT_EQ(ProjectSearch::examine(folder / "data.bin", query("Aイ", false, true)).status,
              ProjectSearch::FileOutcome::Status::skipped);
}

} // namespace
} // namespace brim
