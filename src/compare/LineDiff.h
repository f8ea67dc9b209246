#pragma once

#include "compare/GitHunk.h"

#include <cstdint>
#include <span>
#include <vector>

/// Line comparison over hashes: each line becomes a 64-bit hash and the diff runs on the two hash
/// arrays, never on strings. A hash collision can only hide a change, which is accepted.
namespace brim::LineDiff {

/// The hash of a line with nothing hashed in it, so that empty lines compare equal and never equal
/// the hash of anything else's start.
inline constexpr std::uint64_t emptyLineHash = 0x9e37'79b9'7f4a'7c15;

/// Above this many cells (old lines times new lines) a stretch without unique common lines is not
/// solved exactly: it becomes one modified block.
inline constexpr std::int64_t exactMatchCellLimit = 250'000;

struct HashOptions {
    /// Tab, CR and space are skipped wherever they stand; a line of only those hashes as empty,
    /// and a last unterminated line of only those is no line at all.
    bool ignoringWhitespace = false;
    /// ASCII capitals hash as their small letters; nothing else folds.
    bool ignoringCase = false;
};

/// One FNV-1a hash per line. A line ends at LF or CR LF, so line endings are never a change; a
/// lone CR is part of its line, except as the very last byte of the text. A trailing newline adds
/// no line; no bytes give no lines. Large texts are hashed on several threads.
[[nodiscard]] std::vector<std::uint64_t> lineHashes(std::span<const std::uint8_t> bytes, HashOptions options = {});

/// The changes that turn the `old` lines into the `new` ones, in order: patience matching on lines
/// unique to both sides, an exact longest common subsequence on small stretches without them, and
/// one modified block for a large stretch without them. Never quadratic in the line count, never
/// deeply recursive; adjacent changes merge only when no matching line lies between them.
[[nodiscard]] std::vector<GitHunk> hunks(std::span<const std::uint64_t> oldHashes,
                                         std::span<const std::uint64_t> newHashes);

/// The lines of `bytes` without their ends, as views into `bytes`, split exactly as `lineHashes`
/// splits without options (so line n here is the line of hash n).
[[nodiscard]] std::vector<std::span<const std::uint8_t>> split(std::span<const std::uint8_t> bytes);

/// Carries a line number of the old text across the changes: the line plus the growth of every
/// hunk wholly before it, never below 0. A line inside a hunk gets the offset of the hunks before.
[[nodiscard]] std::int64_t newLineForOldLine(std::int64_t line, std::span<const GitHunk> hunks);

/// The same from the new text to the old.
[[nodiscard]] std::int64_t oldLineForNewLine(std::int64_t line, std::span<const GitHunk> hunks);

/// The hunks seen from the other side: `lines` and `oldLines` swap, and so do added and removed.
[[nodiscard]] std::vector<GitHunk> mirrored(std::span<const GitHunk> hunks);

} // namespace brim::LineDiff
