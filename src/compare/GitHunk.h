#pragma once

#include <cstdint>

namespace brim {

/// A half-open range of 0-based line numbers: [lower, upper).
struct LineRange {
    std::int64_t lower = 0;
    std::int64_t upper = 0;

    [[nodiscard]] std::int64_t length() const { return upper > lower ? upper - lower : 0; }
    [[nodiscard]] bool empty() const { return upper <= lower; }
    [[nodiscard]] bool contains(std::int64_t line) const { return line >= lower && line < upper; }
    friend bool operator==(const LineRange&, const LineRange&) = default;
};

/// One change between an old text (HEAD, or the text as saved) and a new one (the working text).
/// An `added` hunk has an empty `oldLines` and a `removed` hunk an empty `lines`, each positioned
/// where the change sits: a removal sits above the new line at `lines.lower`.
struct GitHunk {
    enum class Kind : std::uint8_t { added, modified, removed };

    Kind kind = Kind::modified;
    LineRange lines;      ///< lines of the new text
    LineRange oldLines;   ///< lines of the old text

    friend bool operator==(const GitHunk&, const GitHunk&) = default;
};

} // namespace brim
