#pragma once

#include "compare/GitHunk.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Hunks printed as a unified patch, in the form `git diff` writes and `git apply` reads.
namespace brim::UnifiedDiff {

struct PatchOptions {
    std::string oldLabel;      ///< after "--- "
    std::string newLabel;      ///< after "+++ "
    std::int64_t context = 3;  ///< unchanged lines shown around each change
    /// Whether each text ends in a newline; a side that does not gets "\ No newline at end of
    /// file" after its last line, so the patch rebuilds the file exactly.
    bool oldEndsWithNewline = true;
    bool newEndsWithNewline = true;
    /// After each "@@ ... @@", the nearest line above the change that starts with a letter, "_"
    /// or "$" (at most 80 bytes), as `git diff` shows the enclosing function.
    bool functionNames = false;
};

/// The lines of `bytes` without their ends (as `LineDiff::split`), each decoded as UTF-8 with
/// every malformed sequence repaired to U+FFFD: for showing, not for patches.
[[nodiscard]] std::vector<std::string> lines(std::span<const std::uint8_t> bytes);

/// The lines of `bytes` as a patch carries them: split at LF only, every other byte kept as it is
/// (a CR before the LF included), so a patch of them applies to the file byte for byte. Line n
/// here is line n of `LineDiff::lineHashes`.
[[nodiscard]] std::vector<std::string> patchLines(std::span<const std::uint8_t> bytes);

/// The patch of `hunks` between `oldLines` and `newLines`: the "--- " and "+++ " headers, then
/// each group of hunks whose old-side gap is at most twice the context under one "@@" header.
/// Context lines come from the old side. No hunks give the empty string. Every line ends in LF.
[[nodiscard]] std::string patch(std::span<const GitHunk> hunks, std::span<const std::string> oldLines,
                                std::span<const std::string> newLines, const PatchOptions& options);

/// The whole file patch from two texts: plain line hashes, `LineDiff::hunks`, and a change of the
/// last line when only one side ends in a newline, so that `git apply` of the result to `oldBytes`
/// gives `newBytes` (up to CR LF against LF, which is never a change). The newline fields of
/// `options` are worked out here.
[[nodiscard]] std::string filePatch(std::span<const std::uint8_t> oldBytes, std::span<const std::uint8_t> newBytes,
                                    PatchOptions options);

/// Whether `bytes` look binary as `git diff` decides: a NUL byte in the first 8,000.
[[nodiscard]] bool isBinary(std::span<const std::uint8_t> bytes);

/// `text` as UTF-8, every malformed sequence replaced by U+FFFD (one per maximal bad subpart).
[[nodiscard]] std::string repairedUTF8(std::span<const std::uint8_t> text);

} // namespace brim::UnifiedDiff
