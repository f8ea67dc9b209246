#pragma once

#include "compare/GitHunk.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brim::testing {

/// Text with its control characters spelled out, for trace messages.
inline std::string printable(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else if (c == '\t') out += "\\t";
        else out.push_back(c);
    }
    return out + "\"";
}

/// The lines, each followed by LF.
inline std::string joinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
}

/// `count` lines drawn from a vocabulary of `vocabulary` words: a small vocabulary repeats lines
/// often, as braces and blank lines do in code.
inline std::vector<std::string> randomLines(std::mt19937& random, int count, int vocabulary) {
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        const auto word = random() % static_cast<unsigned>(vocabulary);
        lines.push_back(word == 0 ? std::string() : "line " + std::to_string(word));
    }
    return lines;
}

/// `lines` after a few random insertions, deletions, replacements and block moves.
inline std::vector<std::string> randomlyEdited(std::mt19937& random, std::vector<std::string> lines, int vocabulary) {
    const int edits = 1 + static_cast<int>(random() % 6);
    for (int e = 0; e < edits; ++e) {
        const auto size = lines.size();
        const auto at = size == 0 ? 0 : random() % (size + 1);
        switch (random() % 4) {
        case 0: {
            const auto fresh = randomLines(random, 1 + static_cast<int>(random() % 4), vocabulary * 3);
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), fresh.begin(), fresh.end());
            break;
        }
        case 1:
            if (at < size) {
                const auto length = std::min<std::size_t>(1 + random() % 4, size - at);
                lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at),
                            lines.begin() + static_cast<std::ptrdiff_t>(at + length));
            }
            break;
        case 2:
            if (at < size) lines[at] = "changed " + std::to_string(random() % 1000);
            break;
        default:
            if (at < size) {
                const auto length = std::min<std::size_t>(1 + random() % 5, size - at);
                std::vector<std::string> block(lines.begin() + static_cast<std::ptrdiff_t>(at),
                                               lines.begin() + static_cast<std::ptrdiff_t>(at + length));
                lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at),
                            lines.begin() + static_cast<std::ptrdiff_t>(at + length));
                const auto to = lines.empty() ? 0 : random() % (lines.size() + 1);
                lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(to), block.begin(), block.end());
            }
            break;
        }
    }
    return lines;
}

/// Checks that `hunks` describe `oldHashes` against `newHashes`: in order, each of the right kind,
/// separated by at least one matching line, and every line outside them matched with an equal one.
inline void expectConsistentHunks(std::span<const std::uint64_t> oldHashes, std::span<const std::uint64_t> newHashes,
                                  std::span<const GitHunk> hunks) {
    std::int64_t oldCursor = 0;
    std::int64_t newCursor = 0;
    const auto expectMatched = [&](std::int64_t oldEnd, std::int64_t newEnd) {
        ASSERT_EQ(oldEnd - oldCursor, newEnd - newCursor) << "unequal stretch between hunks";
        for (; oldCursor < oldEnd; ++oldCursor, ++newCursor) {
            ASSERT_EQ(oldHashes[static_cast<std::size_t>(oldCursor)], newHashes[static_cast<std::size_t>(newCursor)])
                << "old line " << oldCursor << " is matched with a different new line " << newCursor;
        }
    };
    for (std::size_t k = 0; k < hunks.size(); ++k) {
        const GitHunk& hunk = hunks[k];
        SCOPED_TRACE(::testing::Message() << "hunk " << k);
        ASSERT_GE(hunk.oldLines.lower, oldCursor);
        ASSERT_GE(hunk.lines.lower, newCursor);
        if (k > 0) {
            ASSERT_GT(hunk.oldLines.lower, oldCursor) << "hunks with no match between them";
        }
        expectMatched(hunk.oldLines.lower, hunk.lines.lower);
        ASSERT_FALSE(hunk.oldLines.empty() && hunk.lines.empty());
        const GitHunk::Kind expected = hunk.oldLines.empty() ? GitHunk::Kind::added
                                       : hunk.lines.empty()  ? GitHunk::Kind::removed
                                                             : GitHunk::Kind::modified;
        EXPECT_EQ(hunk.kind, expected);
        oldCursor = hunk.oldLines.upper;
        newCursor = hunk.lines.upper;
    }
    expectMatched(static_cast<std::int64_t>(oldHashes.size()), static_cast<std::int64_t>(newHashes.size()));
}

} // namespace brim::testing
