#include "compare/LineDiff.h"

#include "compare/DiffTestSupport.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

namespace brim {
namespace {

using Kind = GitHunk::Kind;
using testing::bytes;

std::vector<std::uint64_t> hashes(std::string_view text, LineDiff::HashOptions options = {}) {
    const auto data = bytes(text);
    return LineDiff::lineHashes(data, options);
}

std::vector<GitHunk> diff(std::string_view oldText, std::string_view newText) {
    return LineDiff::hunks(hashes(oldText), hashes(newText));
}

TEST(LineDiff, linesEndAtLineFeedsAndCRLFsButNotAtLoneCRs) {
    struct Case {
        std::string_view text;
        std::size_t lines;
    };
    const Case cases[] = {
        {"", 0},          {"\n", 1},          {"\n\n", 2},      {"a", 1},        {"a\n", 1},
        {"a\nb", 2},      {"a\r\nb\r\n", 2},  {"a\rb\n", 1},    {"a\r", 1},      {"\r\n\r\n", 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::printable(c.text));
        EXPECT_EQ(hashes(c.text).size(), c.lines);
        EXPECT_EQ(LineDiff::split(bytes(c.text)).size(), c.lines);
    }
}

TEST(LineDiff, hashingTreatsLineEndsAlikeAndEmptyLinesAsTheFixedValue) {
    // Each pair hashes to the same array, or (when `equal` is false) to different ones.
    struct Case {
        std::string_view left;
        std::string_view right;
        bool equal;
        LineDiff::HashOptions options = {};
    };
    const Case cases[] = {
        {"a\nb\n", "a\r\nb\r\n", true},
        {"a\nb", "a\nb\n", true},                  // a final newline is no change of hashes
        {"a\r", "a", true},                        // a CR as the very last byte is left out
        {"a\rb\n", "a\nb\n", false},               // a lone CR is part of its line
        {"a\r\r\n", "a\r\n", false},
        {"Ab\n", "ab\n", false},
        {"Ab\n", "aB\n", true, {.ignoringCase = true}},
        {"\xC3\x84\n", "\xC3\xA4\n", false, {.ignoringCase = true}},   // only ASCII folds
        {"[\n", "{\n", false, {.ignoringCase = true}},
        {"a b\tc\n", "abc\n", true, {.ignoringWhitespace = true}},
        {"a\r\n", "a\n", true, {.ignoringWhitespace = true}},
        {"x\n  \n", "x\n\n", true, {.ignoringWhitespace = true}},
        {"x\n \t", "x\n", true, {.ignoringWhitespace = true}},           // a last line of blanks is no line
        {"a b\n", "a\vb\n", false, {.ignoringWhitespace = true}},        // only tab, CR and space
        {"A b\n", "ab\n", true, {.ignoringWhitespace = true, .ignoringCase = true}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::printable(c.left) + " / " + testing::printable(c.right));
        EXPECT_EQ(hashes(c.left, c.options) == hashes(c.right, c.options), c.equal);
    }
    EXPECT_EQ(hashes("\n"), std::vector<std::uint64_t>{LineDiff::emptyLineHash});
    EXPECT_EQ(hashes("  \n", {.ignoringWhitespace = true}), std::vector<std::uint64_t>{LineDiff::emptyLineHash});
    EXPECT_NE(hashes("x\n")[0], LineDiff::emptyLineHash);
}

TEST(LineDiff, largeTextsHashInSlicesExactlyAsInOnePass) {
    std::mt19937 random(7);
    std::string text;
    const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    text.reserve(5'000'000);
    while (text.size() < 4'800'000) {
        // Lines of varying length and content, some with CR LF, enough for several slices.
        text.append(letters, random() % 40, random() % 80);
        text += random() % 10 == 0 ? "\r\n" : "\n";
    }
    text += "tail without end\r";
    const auto data = bytes(text);
    const auto whole = LineDiff::lineHashes(data);
    // The serial reference: hash each piece of the text that holds a line, one at a time.
    std::vector<std::uint64_t> reference;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t newline = text.find('\n', start);
        const std::size_t end = newline == std::string::npos ? text.size() : newline + 1;
        const auto one = LineDiff::lineHashes(std::span(data).subspan(start, end - start));
        ASSERT_EQ(one.size(), 1u);
        reference.push_back(one[0]);
        start = end;
    }
    EXPECT_EQ(whole, reference);
}

TEST(LineDiff, hunksOfSmallCases) {
    struct Case {
        std::string_view name;
        std::string_view oldText;
        std::string_view newText;
        std::vector<GitHunk> expected;
    };
    const std::vector<Case> cases = {
        {"unchanged", "a\nb\n", "a\nb\n", {}},
        {"one changed line", "a\nb\nc\n", "a\nX\nc\n", {{Kind::modified, {1, 2}, {1, 2}}}},
        {"insertion", "a\nb\n", "a\nnew\nnewer\nb\n", {{Kind::added, {1, 3}, {1, 1}}}},
        {"deletion", "a\nb\nc\nd\n", "a\nd\n", {{Kind::removed, {1, 1}, {1, 3}}}},
        {"added at the top", "a\nb\n", "top\na\nb\n", {{Kind::added, {0, 1}, {0, 0}}}},
        {"added at the bottom", "a\nb\n", "a\nb\nend\n", {{Kind::added, {2, 3}, {2, 2}}}},
        {"empty at HEAD", "", "a\nb\n", {{Kind::added, {0, 2}, {0, 0}}}},
        {"emptied since", "a\nb\n", "", {{Kind::removed, {0, 0}, {0, 2}}}},
        {"two changes", "1\n2\n3\n4\n5\n6\n7\n8\n", "1\nX\n3\n4\n5\n6\nY\n8\n",
         {{Kind::modified, {1, 2}, {1, 2}}, {Kind::modified, {6, 7}, {6, 7}}}},
        {"neighbouring changes merge", "a\nb\nc\nd\n", "a\nX\nY\nd\n", {{Kind::modified, {1, 3}, {1, 3}}}},
        {"replace and grow", "a\nb\nc\n", "a\nX\nY\nZ\nc\n", {{Kind::modified, {1, 4}, {1, 2}}}},
        {"blank lines", "a\n\n\nb\n", "a\n\nb\n", {{Kind::removed, {2, 2}, {2, 3}}}},
        {"repeated lines", "x\nx\nx\n", "x\nx\nx\nx\nx\n", {{Kind::added, {3, 5}, {3, 3}}}},
        {"no shared line", "a\nb\n", "c\nd\ne\n", {{Kind::modified, {0, 3}, {0, 2}}}},
        {"line endings are no change", "a\r\nb\r\n", "a\nb", {}},
        {"moved line", "a\nb\nc\nd\n", "b\nc\nd\na\n",
         {{Kind::removed, {0, 0}, {0, 1}}, {Kind::added, {3, 4}, {4, 4}}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(diff(c.oldText, c.newText), c.expected);
        testing::expectConsistentHunks(hashes(c.oldText), hashes(c.newText), diff(c.oldText, c.newText));
    }
}

TEST(LineDiff, swappedFunctionsMarkABlockNotTheWholeFile) {
    std::string first = "func first() {\n  let a = 1\n  return a\n}\n";
    std::string second = "func second() {\n  let b = 2\n  return b\n}\n";
    std::string header;
    std::string footer;
    for (int i = 0; i < 30; ++i) header += "// header " + std::to_string(i) + "\n";
    for (int i = 0; i < 30; ++i) footer += "// footer " + std::to_string(i) + "\n";
    const auto found = diff(header + first + "\n" + second + footer, header + second + "\n" + first + footer);
    EXPECT_LT(found.size(), 3u);
    for (const GitHunk& hunk : found) {
        EXPECT_GE(hunk.oldLines.lower, 30);
        EXPECT_LE(hunk.oldLines.upper, 39);
    }
}

TEST(LineDiff, scatteredEditsInALargeFileAreOneHunkEach) {
    std::vector<std::string> lines;
    for (int i = 0; i < 20'000; ++i) lines.push_back("line " + std::to_string(i) + " of the file");
    std::string oldText = testing::joinLines(lines);
    for (int k = 0; k < 40; ++k) lines[static_cast<std::size_t>(k * 499 + 7)] = "edited " + std::to_string(k);
    const auto found = diff(oldText, testing::joinLines(lines));
    ASSERT_EQ(found.size(), 40u);
    for (int k = 0; k < 40; ++k) {
        const std::int64_t line = k * 499 + 7;
        EXPECT_EQ(found[static_cast<std::size_t>(k)], (GitHunk{Kind::modified, {line, line + 1}, {line, line + 1}}));
    }
}

TEST(LineDiff, largeStretchesWithoutUniqueLinesBecomeOneBlock) {
    std::string oldText;
    std::string newText;
    for (int i = 0; i < 2'000; ++i) {
        oldText += "a\nb\n";
        newText += "c\nd\n";
    }
    EXPECT_EQ(diff(oldText, newText), (std::vector<GitHunk>{{Kind::modified, {0, 4'000}, {0, 4'000}}}));
    // With a few lines in common on each side the small stretches are still solved exactly.
    EXPECT_EQ(diff("x\ny\nx\ny\n", "y\nx\ny\n"), (std::vector<GitHunk>{{Kind::removed, {0, 0}, {0, 1}}}));
}

TEST(LineDiff, aLineThatMovedFarDoesNotDragTheRestIntoTheChange) {
    // "U" is the only unique line; anchoring on it would mark all 600 braces on both sides.
    std::string braces;
    for (int i = 0; i < 600; ++i) braces += "}\n";
    const auto found = diff("U\n" + braces, braces + "U\n");
    std::int64_t changed = 0;
    for (const GitHunk& hunk : found) changed += hunk.lines.length() + hunk.oldLines.length();
    EXPECT_EQ(changed, 2);
    testing::expectConsistentHunks(hashes("U\n" + braces), hashes(braces + "U\n"), found);
}

TEST(LineDiff, carriesLineNumbersAcrossChanges) {
    // old: a b c d e f     new: a X Y c e f   (b becomes X Y, d goes)
    const auto found = diff("a\nb\nc\nd\ne\nf\n", "a\nX\nY\nc\ne\nf\n");
    ASSERT_EQ(found.size(), 2u);
    const std::int64_t expectedNew[] = {0, 1, 3, 4, 4, 5};
    for (std::int64_t line = 0; line < 6; ++line) {
        SCOPED_TRACE(line);
        EXPECT_EQ(LineDiff::newLineForOldLine(line, found), expectedNew[line]);
    }
    const std::int64_t expectedOld[] = {0, 1, 2, 2, 4, 5};
    for (std::int64_t line = 0; line < 6; ++line) {
        SCOPED_TRACE(line);
        EXPECT_EQ(LineDiff::oldLineForNewLine(line, found), expectedOld[line]);
    }
    // A line below everything that went moves up by all of it.
    EXPECT_EQ(LineDiff::newLineForOldLine(2, diff("a\nb\nc\n", "c\n")), 0);
    EXPECT_EQ(LineDiff::oldLineForNewLine(2, diff("", "a\nb\n")), 0);
}

TEST(LineDiff, mirroredSwapsSidesAndKinds) {
    const auto forward = diff("a\nb\nc\nd\n", "a\nX\nc\nd\nnew\n");
    const auto backward = diff("a\nX\nc\nd\nnew\n", "a\nb\nc\nd\n");
    EXPECT_EQ(LineDiff::mirrored(forward), backward);
    EXPECT_EQ(LineDiff::mirrored(LineDiff::mirrored(forward)), forward);
}

TEST(LineDiff, randomEditsGiveConsistentHunks) {
    std::mt19937 random(2024);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        const auto oldLines = testing::randomLines(random, static_cast<int>(random() % 60), round % 3 == 0 ? 4 : 40);
        const auto newLines = testing::randomlyEdited(random, oldLines, round % 3 == 0 ? 4 : 40);
        const auto oldHashes = hashes(testing::joinLines(oldLines));
        const auto newHashes = hashes(testing::joinLines(newLines));
        testing::expectConsistentHunks(oldHashes, newHashes, LineDiff::hunks(oldHashes, newHashes));
    }
}

TEST(LineDiff, adversarialInputStaysFastAndCorrect) {
    // Shapes that push patience matching towards deep or quadratic work, each within a time box.
    std::mt19937 random(99);
    std::vector<std::pair<std::string, std::pair<std::vector<std::uint64_t>, std::vector<std::uint64_t>>>> inputs;
    {
        std::vector<std::uint64_t> oldSide;
        std::vector<std::uint64_t> newSide;
        // Each line occurs twice on each side, mirrored: every level finds one unique anchor.
        for (std::uint64_t i = 0; i < 60'000; ++i) oldSide.push_back(i / 2);
        for (std::uint64_t i = 60'000; i > 0; --i) newSide.push_back((i - 1) / 2);
        inputs.push_back({"mirrored pairs", {oldSide, newSide}});
    }
    {
        std::vector<std::uint64_t> oldSide;
        std::vector<std::uint64_t> newSide;
        // Nested uniqueness: line k appears k times, interleaved differently on each side.
        for (std::uint64_t k = 1; k < 350; ++k) {
            for (std::uint64_t r = 0; r < k; ++r) oldSide.push_back(k);
        }
        newSide = oldSide;
        std::shuffle(newSide.begin(), newSide.end(), random);
        inputs.push_back({"shuffled multiplicities", {oldSide, newSide}});
    }
    {
        std::vector<std::uint64_t> oldSide(200'000);
        std::vector<std::uint64_t> newSide(200'000);
        for (auto& value : oldSide) value = random() % 3;
        for (auto& value : newSide) value = random() % 3;
        inputs.push_back({"three symbols", {oldSide, newSide}});
    }
    {
        std::vector<std::uint64_t> oldSide(300'000);
        std::vector<std::uint64_t> newSide;
        for (std::size_t i = 0; i < oldSide.size(); ++i) oldSide[i] = i;
        newSide.assign(oldSide.rbegin(), oldSide.rend());
        inputs.push_back({"reversed unique lines", {oldSide, newSide}});
    }
    {
        std::vector<std::uint64_t> oldSide;
        std::vector<std::uint64_t> newSide;
        // Unique lines staggered so that each anchor leaves one long stretch to the next level.
        for (std::uint64_t i = 0; i < 20'000; ++i) {
            oldSide.push_back(1'000'000 + i);
            oldSide.push_back(i % 50);
        }
        for (std::uint64_t i = 20'000; i > 0; --i) {
            newSide.push_back(i % 50);
            newSide.push_back(1'000'000 + (i * 7919) % 20'000);
        }
        inputs.push_back({"staggered anchors", {oldSide, newSide}});
    }
    for (const auto& [name, sides] : inputs) {
        SCOPED_TRACE(name);
        const auto started = std::chrono::steady_clock::now();
        const auto found = LineDiff::hunks(sides.first, sides.second);
        const auto elapsed = std::chrono::steady_clock::now() - started;
        EXPECT_LT(elapsed, std::chrono::seconds(3));
        testing::expectConsistentHunks(sides.first, sides.second, found);
    }
}

} // namespace
} // namespace brim
