#pragma once

#include "compare/GitHunk.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brim {

/// Two texts laid out row by row for a side-by-side view: both panes get the same number of rows,
/// with filler rows where one side has nothing.
struct AlignedDiff {
    /// What a row is in a pane. On an added line the old pane says `filler` and the new `added`;
    /// on a removed line the old pane says `removed` and the new `filler`; both say `changed` on
    /// a changed row.
    enum class RowKind : std::uint8_t { same, changed, added, removed, filler };

    struct Row {
        RowKind kind = RowKind::same;
        std::optional<std::int64_t> oldLine;   ///< unset on the old pane's filler
        std::optional<std::int64_t> newLine;   ///< unset on the new pane's filler
        friend bool operator==(const Row&, const Row&) = default;
    };

    std::vector<Row> rows;
    /// The panes' text, one line per row joined by LF, an empty line on each filler row.
    std::string oldText;
    std::string newText;
    /// The tint of each row that is not `same`, per pane.
    std::map<std::int64_t, RowKind> oldKinds;
    std::map<std::int64_t, RowKind> newKinds;
    /// The first row of each hunk, in order.
    std::vector<std::int64_t> differenceRows;

    /// Lays out `oldLines` against `newLines` along `hunks`: unchanged pairs as `same` rows; in a
    /// hunk, as many `changed` rows as both sides have lines, then the surplus as `added` or
    /// `removed` rows. A line past the end of a side shows as an empty line.
    [[nodiscard]] static AlignedDiff make(std::span<const std::string> oldLines, std::span<const std::string> newLines,
                                          std::span<const GitHunk> hunks);

    /// The first difference row after `row`; none past the last.
    [[nodiscard]] std::optional<std::int64_t> nextDifference(std::int64_t row) const;
    /// The last difference row before `row`; none before the first.
    [[nodiscard]] std::optional<std::int64_t> previousDifference(std::int64_t row) const;
};

} // namespace brim
