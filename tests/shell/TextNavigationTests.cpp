#include "shell/TextNavigation.h"

#include "shell/RowLayout.h"
#include "store/TextDocument.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace brim::shell {
namespace {

namespace Nav = TextNavigation;
using brim::testing::bytes;

std::shared_ptr<TextDocument> documentOf(std::string_view text, const TextEncoding& encoding = TextEncoding::utf8()) {
    return TextDocument::inMemory(bytes(text), encoding, "test");
}

TEST(TextNavigation, caretStepsOverWholeUTF8CharactersAndCRLF) {
    // a, é (2 bytes), € (3), 😀 (4), CR LF, a stray byte, b
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\r\n\xFF" "b";
    const auto document = documentOf(text);
    const std::vector<std::int64_t> stops = {0, 1, 3, 6, 10, 12, 13, 14};
    for (std::size_t i = 0; i + 1 < stops.size(); ++i) {
        SCOPED_TRACE(stops[i]);
        EXPECT_EQ(Nav::nextCharacter(*document, stops[i]), stops[i + 1]);
        EXPECT_EQ(Nav::previousCharacter(*document, stops[i + 1]), stops[i]);
    }
    EXPECT_EQ(Nav::nextCharacter(*document, 14), 14);
    EXPECT_EQ(Nav::previousCharacter(*document, 0), 0);
}

TEST(TextNavigation, caretNeverEntersAByteOrderMark) {
    const auto document = documentOf("\xEF\xBB\xBFhi");
    ASSERT_EQ(document->textStart(), 3);
    EXPECT_EQ(Nav::previousCharacter(*document, 4), 3);
    EXPECT_EQ(Nav::previousCharacter(*document, 3), 3);
}

TEST(TextNavigation, caretStepsOverDoubleByteCharacters) {
    // "aあb" in Shift-JIS: あ is 82 A0.
    const auto document = documentOf("a\x82\xA0" "b\n", TextEncoding::shiftJIS());
    EXPECT_EQ(Nav::nextCharacter(*document, 1), 3);
    EXPECT_EQ(Nav::previousCharacter(*document, 3), 1);
    const RowText row = decodeRow(*document, 0, 4);
    EXPECT_EQ(row.text, QStringLiteral("aあb"));
    EXPECT_EQ(row.byteOfUnit, (std::vector<std::int64_t>{0, 1, 3, 4}));
}

TEST(TextNavigation, linesStartAndEndWhereTheirBreaksAre) {
    const auto document = documentOf("one\r\ntwo\n\nthree");
    EXPECT_EQ(Nav::lineStartAtOrBefore(*document, 0), 0);
    EXPECT_EQ(Nav::lineStartAtOrBefore(*document, 4), 0);   // the LF of CR LF belongs to line one
    EXPECT_EQ(Nav::lineStartAtOrBefore(*document, 7), 5);
    EXPECT_EQ(Nav::lineStartAtOrBefore(*document, 9), 9);
    EXPECT_EQ(Nav::lineStartAtOrBefore(*document, 15), 10);
    EXPECT_EQ(Nav::lineEndFrom(*document, 0), 4);
    EXPECT_EQ(Nav::contentEnd(*document, 0, 4), 3);
    EXPECT_EQ(Nav::lineEndFrom(*document, 5), 8);
    EXPECT_EQ(Nav::lineEndFrom(*document, 9), 9);
    EXPECT_EQ(Nav::lineEndFrom(*document, 10), 15);
    EXPECT_EQ(Nav::linesBack(*document, 10, 2), 5);
    EXPECT_EQ(Nav::linesBack(*document, 10, 9), 0);
    EXPECT_EQ(Nav::knownLineNumber(*document, 12), 3);
}

TEST(TextNavigation, beyondTheIndexLinesAreFoundByLookingAndHaveNoNumber) {
    const brim::testing::TemporaryFolder folder;
    // 3 MB of 100-byte lines: opening indexes the first megabyte only.
    std::string text;
    for (int i = 0; i < 30'000; ++i) {
        std::string line = "line " + std::to_string(i) + " ";
        line.resize(99, 'x');
        text += line + "\n";
    }
    const auto path = folder.write("big.txt", text);
    const auto document = TextDocument::open(path);
    ASSERT_FALSE(document->table().originalIndex().isComplete());
    const std::int64_t far = 2'500'050;
    EXPECT_FALSE(Nav::knownLineNumber(*document, far).has_value());
    EXPECT_EQ(Nav::lineStartAtOrBefore(*document, far), 2'500'000);
    EXPECT_EQ(Nav::lineEndFrom(*document, 2'500'000), 2'500'099);
    EXPECT_EQ(Nav::knownLineNumber(*document, 500), 5);
}

TEST(TextNavigation, aLineLongerThanTheSearchLimitIsEnteredInPieces) {
    const brim::testing::TemporaryFolder folder;
    const std::string text = "head\n" + std::string(3'000'000, 'z');
    const auto document = TextDocument::open(folder.write("long.txt", text));
    const std::int64_t at = 2'900'000;
    const std::int64_t start = Nav::lineStartAtOrBefore(*document, at);
    if (!Nav::knownLineNumber(*document, at)) {
        EXPECT_EQ(start, at - Nav::lineSearchLimit);
    } else {
        EXPECT_EQ(start, 5);
    }
    EXPECT_EQ(Nav::lineEndFrom(*document, start), static_cast<std::int64_t>(text.size()));
}

TEST(RowLayout, controlCharactersShowAndEveryUnitKnowsItsByte) {
    const auto document = documentOf("a\tb\x01\xF0\x9F\x98\x80\xC3");
    const RowText row = decodeRow(*document, 0, document->byteCount());
    EXPECT_EQ(row.text, QString::fromUtf8("a\tb\u2401\U0001F600\uFFFD"));
    EXPECT_EQ(row.byteOfUnit, (std::vector<std::int64_t>{0, 1, 2, 3, 4, 4, 8, 9}));
    EXPECT_EQ(row.unitForByte(4), 4);
    EXPECT_EQ(row.unitForByte(8), 6);
    EXPECT_EQ(row.unitForByte(99), static_cast<int>(row.text.size()));
}

TEST(RowLayout, aWindowCutInsideACharacterStopsBeforeIt) {
    const auto document = documentOf("ab\xE2\x82\xAC" "cd");
    const RowText row = decodeRow(*document, 0, 4);
    EXPECT_EQ(row.text, QStringLiteral("ab"));
    EXPECT_EQ(row.windowEnd, 2);
}

TEST(RowLayout, singleByteSetsDecodeByteForByte) {
    const auto document = documentOf("caf\xE9 \x80", TextEncoding::cp1252());
    const RowText row = decodeRow(*document, 0, document->byteCount());
    EXPECT_EQ(row.text, QString::fromUtf8("café €"));
    EXPECT_EQ(row.byteOfUnit.back(), 6);
}

} // namespace
} // namespace brim::shell
