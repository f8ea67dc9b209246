#include "compare/UnifiedDiff.h"

#include "compare/DiffTestSupport.h"
#include "compare/GitTestRepository.h"
#include "compare/LineDiff.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace brim {
namespace {

using testing::bytes;

std::string filePatch(std::string_view oldText, std::string_view newText, bool functionNames = false) {
    UnifiedDiff::PatchOptions options;
    options.oldLabel = "a/main.swift";
    options.newLabel = "b/main.swift";
    options.functionNames = functionNames;
    return UnifiedDiff::filePatch(bytes(oldText), bytes(newText), options);
}

/// The patch from its first "@@" on.
std::string hunksOf(const std::string& patch) {
    const auto at = patch.find("@@ ");
    return at == std::string::npos ? std::string() : patch.substr(at);
}

TEST(UnifiedDiff, patchHasFileHeadersHunkHeadersAndContext) {
    std::string oldText;
    for (int i = 1; i <= 20; ++i) oldText += std::to_string(i) + "\n";
    std::string newText = oldText;
    newText.replace(newText.find("\n5\n") + 1, 2, "five\n");
    newText.replace(newText.find("\n16\n") + 1, 3, "");
    EXPECT_EQ(filePatch(oldText, newText),
              "--- a/main.swift\n"
              "+++ b/main.swift\n"
              "@@ -2,7 +2,7 @@\n"
              " 2\n 3\n 4\n-5\n+five\n 6\n 7\n 8\n"
              "@@ -13,7 +13,6 @@\n"
              " 13\n 14\n 15\n-16\n 17\n 18\n 19\n");
    EXPECT_EQ(filePatch(oldText, oldText), "");
}

TEST(UnifiedDiff, groupsHunksWhoseGapIsAtMostTwiceTheContext) {
    std::vector<std::string> lines;
    for (int i = 0; i < 40; ++i) lines.push_back("line " + std::to_string(i));
    const std::string oldText = testing::joinLines(lines);
    for (const int gap : {5, 6, 7}) {
        SCOPED_TRACE(gap);
        auto edited = lines;
        edited[10] = "changed";
        edited[static_cast<std::size_t>(11 + gap)] = "changed too";
        const std::string patch = filePatch(oldText, testing::joinLines(edited));
        const auto headers = std::count(patch.begin(), patch.end(), '@') / 4;
        EXPECT_EQ(headers, gap <= 6 ? 1 : 2);
        // Whatever the grouping, the output agrees with git's own.
        EXPECT_EQ(hunksOf(filePatch(oldText, testing::joinLines(edited), true)),
                  testing::gitDiffHunks(oldText, testing::joinLines(edited)));
    }
}

TEST(UnifiedDiff, agreesWithGitOnUnambiguousChanges) {
    struct Case {
        std::string_view name;
        std::string_view oldText;
        std::string_view newText;
    };
    const Case cases[] = {
        {"one line changed", "a\nb\nc\nd\ne\nf\ng\nh\n", "a\nb\nc\nD\ne\nf\ng\nh\n"},
        {"added at the top", "a\nb\nc\nd\ne\n", "new\na\nb\nc\nd\ne\n"},
        {"added at the bottom", "a\nb\nc\nd\ne\n", "a\nb\nc\nd\ne\nend\n"},
        {"file emptied", "a\nb\n", ""},
        {"file was empty", "", "a\nb\n"},
        {"one line to one line", "a\n", "b\n"},
        {"newline taken off the end", "a\nb\nc\n", "a\nb\nc"},
        {"newline put at the end", "a\nb\nc", "a\nb\nc\n"},
        {"no newline on either side", "a\nb\nc", "a\nB\nc"},
        {"no newline, last line changed", "a\nb\nc", "a\nb\nC"},
        {"no newline, line added", "a", "a\nb"},
        {"no newline, line removed", "a\nb", "a"},
        {"CRLF file", "a\r\nb\r\nc\r\nd\r\n", "a\r\nb\r\nX\r\nd\r\n"},
        {"function names", "int main() {\n  one();\n  two();\n  three();\n  four();\n  five();\n}\n",
         "int main() {\n  one();\n  two();\n  three();\n  FOUR();\n  five();\n}\n"},
        {"blank lines", "a\n\n\nb\nc\nd\n", "a\n\nb\nc\nd\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(hunksOf(filePatch(c.oldText, c.newText, true)), testing::gitDiffHunks(c.oldText, c.newText));
    }
}

TEST(UnifiedDiff, patchesRebuildTheNewTextExactly) {
    // Every case of line ends and final newlines goes through `git apply` and must give the new text.
    const std::string_view texts[] = {"", "a", "a\n", "a\nb", "a\nb\n", "a\r\nb", "b\na\n", "\n", "a\rb\n", "a\nb\r"};
    for (const auto oldText : texts) {
        for (const auto newText : texts) {
            SCOPED_TRACE(testing::printable(oldText) + " -> " + testing::printable(newText));
            const std::string patch = filePatch(oldText, newText);
            if (patch.empty()) {
                // Only line-end differences may give no patch.
                EXPECT_EQ(LineDiff::lineHashes(bytes(oldText)), LineDiff::lineHashes(bytes(newText)));
                continue;
            }
            const bool onlyLineEnds = LineDiff::lineHashes(bytes(oldText)) == LineDiff::lineHashes(bytes(newText)) &&
                                      (oldText.empty() || oldText.back() == '\n') == (newText.empty() || newText.back() == '\n');
            if (onlyLineEnds) continue;
            std::string refusal;
            const auto rebuilt = testing::applyPatch("main.swift", oldText, patch, &refusal);
            ASSERT_TRUE(rebuilt.has_value()) << refusal << patch;
            if (oldText.find('\r') == std::string_view::npos && newText.find('\r') == std::string_view::npos) {
                EXPECT_EQ(*rebuilt, newText) << patch;
            }
        }
    }
}

TEST(UnifiedDiff, randomEditsApplyAndChangeNoMoreLinesThanGit) {
    std::mt19937 random(31337);
    int largerThanGit = 0;
    for (int round = 0; round < 80; ++round) {
        SCOPED_TRACE(round);
        const int vocabulary = round % 2 == 0 ? 6 : 200;
        const auto oldLines = testing::randomLines(random, 5 + static_cast<int>(random() % 80), vocabulary);
        const auto newLines = testing::randomlyEdited(random, oldLines, vocabulary);
        std::string oldText = testing::joinLines(oldLines);
        std::string newText = testing::joinLines(newLines);
        if (round % 7 == 3 && !newText.empty()) newText.pop_back();   // sometimes no final newline
        const std::string patch = filePatch(oldText, newText);
        if (oldText == newText) {
            EXPECT_EQ(patch, "");
            continue;
        }
        std::string refusal;
        const auto rebuilt = testing::applyPatch("main.swift", oldText, patch, &refusal);
        ASSERT_TRUE(rebuilt.has_value()) << refusal << patch;
        EXPECT_EQ(*rebuilt, newText);
        const int ours = testing::changedLineCount(patch);
        const int git = testing::changedLineCount(testing::gitDiffHunks(oldText, newText));
        if (ours > git) {
            ++largerThanGit;
            ADD_FAILURE() << ours << " > " << git << "\n" << patch << "\ngit:\n" << testing::gitDiffHunks(oldText, newText);
        }
    }
    EXPECT_EQ(largerThanGit, 0);
}

TEST(UnifiedDiff, linesAreRepairedForShowingButKeptRawForPatches) {
    const auto text = bytes("caf\xC3\xA9\r\nbad \xFF\xC3 end\nlast\r");
    EXPECT_EQ(UnifiedDiff::lines(text), (std::vector<std::string>{"caf\xC3\xA9", "bad \xEF\xBF\xBD\xEF\xBF\xBD end", "last"}));
    EXPECT_EQ(UnifiedDiff::patchLines(text), (std::vector<std::string>{"caf\xC3\xA9\r", "bad \xFF\xC3 end", "last\r"}));
}

TEST(UnifiedDiff, repairReplacesEachMaximalBadSubpart) {
    struct Case {
        std::string_view input;
        std::string_view output;
    };
    const Case cases[] = {
        {"plain", "plain"},
        {"\xE2\x82\xAC", "\xE2\x82\xAC"},                     // a whole three-byte character
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},             // and a four-byte one
        {"\xE2\x82", "\xEF\xBF\xBD"},                          // cut short: one replacement
        {"\xE2\x82x", "\xEF\xBF\xBDx"},
        {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},              // overlong: each byte
        {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},   // a surrogate
        {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},   // beyond U+10FFFF
        {"\x80", "\xEF\xBF\xBD"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::printable(c.input));
        EXPECT_EQ(UnifiedDiff::repairedUTF8(bytes(c.input)), c.output);
    }
}

TEST(UnifiedDiff, binaryMeansANulByteNearTheStart) {
    EXPECT_FALSE(UnifiedDiff::isBinary(bytes("")));
    EXPECT_FALSE(UnifiedDiff::isBinary(bytes("text\n")));
    EXPECT_TRUE(UnifiedDiff::isBinary(bytes(std::string_view("a\0b", 3))));
    std::string late(9'000, 'x');
    late[8'500] = '\0';
    EXPECT_FALSE(UnifiedDiff::isBinary(bytes(late)));
}

} // namespace
} // namespace brim
