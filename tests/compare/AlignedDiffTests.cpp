#include "compare/AlignedDiff.h"
#include "compare/ByteDiff.h"

#include "compare/DiffTestSupport.h"
#include "compare/LineDiff.h"
#include "compare/UnifiedDiff.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <random>

namespace brim {
namespace {

using RowKind = AlignedDiff::RowKind;
using testing::bytes;

AlignedDiff aligned(std::string_view oldText, std::string_view newText) {
    const auto oldBytes = bytes(oldText);
    const auto newBytes = bytes(newText);
    const auto hunks = LineDiff::hunks(LineDiff::lineHashes(oldBytes), LineDiff::lineHashes(newBytes));
    return AlignedDiff::make(UnifiedDiff::lines(oldBytes), UnifiedDiff::lines(newBytes), hunks);
}

TEST(AlignedDiff, panesKeepTheSameHeightWithFillers) {
    // b changes to B and grows a line; d goes; f is new at the end.
    const AlignedDiff diff = aligned("a\nb\nc\nd\ne\n", "a\nB\nB2\nc\ne\nf\n");
    const std::vector<AlignedDiff::Row> expected = {
        {RowKind::same, 0, 0},
        {RowKind::changed, 1, 1},
        {RowKind::added, std::nullopt, 2},
        {RowKind::same, 2, 3},
        {RowKind::removed, 3, std::nullopt},
        {RowKind::same, 4, 4},
        {RowKind::added, std::nullopt, 5},
    };
    EXPECT_EQ(diff.rows, expected);
    EXPECT_EQ(diff.oldText, "a\nb\n\nc\nd\ne\n");
    EXPECT_EQ(diff.newText, "a\nB\nB2\nc\n\ne\nf");
    EXPECT_EQ(diff.differenceRows, (std::vector<std::int64_t>{1, 4, 6}));
    const std::map<std::int64_t, RowKind> oldKinds = {{1, RowKind::changed}, {2, RowKind::filler}, {4, RowKind::removed}, {6, RowKind::filler}};
    const std::map<std::int64_t, RowKind> newKinds = {{1, RowKind::changed}, {2, RowKind::added}, {4, RowKind::filler}, {6, RowKind::added}};
    EXPECT_EQ(diff.oldKinds, oldKinds);
    EXPECT_EQ(diff.newKinds, newKinds);
}

TEST(AlignedDiff, walksDifferencesWithoutWrapping) {
    const AlignedDiff diff = aligned("a\nb\nc\nd\ne\n", "a\nB\nB2\nc\ne\nf\n");
    struct Case {
        std::int64_t row;
        std::optional<std::int64_t> next;
        std::optional<std::int64_t> previous;
    };
    const Case cases[] = {{-1, 1, std::nullopt}, {0, 1, std::nullopt}, {1, 4, std::nullopt}, {3, 4, 1},
                          {4, 6, 1}, {6, std::nullopt, 4}, {9, std::nullopt, 6}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        EXPECT_EQ(diff.nextDifference(c.row), c.next);
        EXPECT_EQ(diff.previousDifference(c.row), c.previous);
    }
    EXPECT_TRUE(aligned("same\n", "same\n").differenceRows.empty());
    EXPECT_EQ(aligned("", "").rows.size(), 0u);
}

TEST(AlignedDiff, randomDiffsShowEveryLineOnceInOrder) {
    std::mt19937 random(5);
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        const auto oldLines = testing::randomLines(random, static_cast<int>(random() % 30), 8);
        const auto newLines = testing::randomlyEdited(random, oldLines, 8);
        const AlignedDiff diff = aligned(testing::joinLines(oldLines), testing::joinLines(newLines));
        std::int64_t nextOld = 0;
        std::int64_t nextNew = 0;
        for (const auto& row : diff.rows) {
            if (row.oldLine) {
                EXPECT_EQ(*row.oldLine, nextOld++);
            }
            if (row.newLine) {
                EXPECT_EQ(*row.newLine, nextNew++);
            }
            if (row.kind == RowKind::same) {
                ASSERT_TRUE(row.oldLine && row.newLine);
                EXPECT_EQ(oldLines[static_cast<std::size_t>(*row.oldLine)], newLines[static_cast<std::size_t>(*row.newLine)]);
            }
        }
        EXPECT_EQ(nextOld, static_cast<std::int64_t>(oldLines.size()));
        EXPECT_EQ(nextNew, static_cast<std::int64_t>(newLines.size()));
        EXPECT_EQ(std::count(diff.oldText.begin(), diff.oldText.end(), '\n') + (diff.rows.empty() ? 0 : 1),
                  static_cast<std::ptrdiff_t>(diff.rows.size()));
    }
}

TEST(ByteDiff, minimalEditKeepsTheCommonEnds) {
    struct Case {
        std::string_view oldText;
        std::string_view newText;
        bool utf8;
        std::int64_t offset;
        std::int64_t removed;
        std::string_view inserted;
    };
    const Case cases[] = {
        {"same", "same", false, 0, 0, ""},
        {"", "", false, 0, 0, ""},
        {"everything", "", false, 0, 10, ""},
        {"", "everything", false, 0, 0, "everything"},
        {"abcdef", "abXYef", false, 2, 2, "XY"},
        {"aaaa", "aa", false, 2, 2, ""},           // shrinking removes exactly the surplus
        {"aa", "aaaa", false, 2, 0, "aa"},         // growing inserts exactly the difference
        {"abc", "abcd", false, 3, 0, "d"},
        {"xabc", "abc", false, 0, 1, ""},
        // "é" (C3 A9) to "è" (C3 A8): bytewise only the last byte differs; by characters both go.
        {"caf\xC3\xA9!", "caf\xC3\xA8!", false, 4, 1, "\xA8"},
        {"caf\xC3\xA9!", "caf\xC3\xA8!", true, 3, 2, "\xC3\xA8"},
        // "€" (E2 82 AC) to "₭" (E2 82 AD) and "ₐ" (E2 82 90) shares its lead bytes: whole characters.
        {"\xE2\x82\xAC", "\xE2\x82\xAD", true, 0, 3, "\xE2\x82\xAD"},
        // Same last continuation bytes, different leads: the suffix must not start inside the character.
        {"x\xC3\xA9", "x\xC4\xA9", true, 1, 2, "\xC4\xA9"},
        {"x\xC3\xA9", "x\xC4\xA9", false, 1, 1, "\xC4"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::printable(c.oldText) + " -> " + testing::printable(c.newText) + (c.utf8 ? " (UTF-8)" : ""));
        const auto edit = ByteDiff::minimalEdit(bytes(c.oldText), bytes(c.newText), c.utf8);
        EXPECT_EQ(edit.offset, c.offset);
        EXPECT_EQ(edit.removedLength, c.removed);
        EXPECT_EQ(std::string(edit.inserted.begin(), edit.inserted.end()), c.inserted);
    }
}

TEST(ByteDiff, randomEditsRebuildTheNewBuffer) {
    std::mt19937 random(11);
    const std::string_view alphabet[] = {"a", "b", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\n"};
    const auto randomText = [&](int length) {
        std::string text;
        for (int i = 0; i < length; ++i) text += alphabet[random() % std::size(alphabet)];
        return text;
    };
    for (int round = 0; round < 500; ++round) {
        const std::string oldText = randomText(static_cast<int>(random() % 12));
        std::string newText = oldText;
        const std::string piece = randomText(static_cast<int>(random() % 3));
        // Edit at a character boundary: walk whole characters of the alphabet.
        std::size_t at = 0;
        for (std::size_t steps = random() % 12; steps > 0 && at < newText.size(); --steps) {
            const auto lead = static_cast<unsigned char>(newText[at]);
            at += lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        }
        newText.insert(at, piece);
        for (const bool utf8 : {false, true}) {
            SCOPED_TRACE(testing::printable(oldText) + " -> " + testing::printable(newText));
            const auto edit = ByteDiff::minimalEdit(bytes(oldText), bytes(newText), utf8);
            std::string rebuilt = oldText;
            rebuilt.replace(static_cast<std::size_t>(edit.offset), static_cast<std::size_t>(edit.removedLength),
                            std::string(edit.inserted.begin(), edit.inserted.end()));
            EXPECT_EQ(rebuilt, newText);
            if (utf8 && !edit.inserted.empty()) {
                EXPECT_NE(edit.inserted.front() & 0xC0, 0x80) << "the insertion starts inside a character";
            }
        }
    }
}

TEST(ByteDiff, normalizesLineFeedsToTheDocumentsEnding) {
    struct Case {
        std::string_view text;
        std::string_view ending;
        std::string_view expected;
    };
    const Case cases[] = {
        {"a\nb\n", "\r\n", "a\r\nb\r\n"},
        {"a\r\nb\n", "\r\n", "a\r\nb\r\n"},     // already CR LF stays
        {"a\nb", "\r", "a\rb"},
        {"a\rb\r", "\r", "a\rb\r"},             // already CR stays
        {"a\r\nb\n", "\n", "a\r\nb\n"},         // a target of LF leaves the bytes untouched
        {"", "\r\n", ""},
        {"\n\n", "\xE2\x80\xA8", "\xE2\x80\xA8\xE2\x80\xA8"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::printable(c.text) + " to " + testing::printable(c.ending));
        const auto out = ByteDiff::normalizeLineEndings(bytes(c.text), c.ending);
        EXPECT_EQ(std::string(out.begin(), out.end()), c.expected);
    }
}

} // namespace
} // namespace brim
