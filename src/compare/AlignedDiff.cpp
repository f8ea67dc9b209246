#include "compare/AlignedDiff.h"

#include <algorithm>

namespace brim {

AlignedDiff AlignedDiff::make(std::span<const std::string> oldLines, std::span<const std::string> newLines,
                              std::span<const GitHunk> hunks) {
    AlignedDiff diff;
    const auto oldCount = static_cast<std::int64_t>(oldLines.size());
    const auto newCount = static_cast<std::int64_t>(newLines.size());
    const auto lineText = [](std::span<const std::string> lines, std::optional<std::int64_t> line) -> std::string_view {
        if (!line || *line < 0 || *line >= static_cast<std::int64_t>(lines.size())) return {};
        return lines[static_cast<std::size_t>(*line)];
    };
    const auto addRow = [&](RowKind kind, std::optional<std::int64_t> oldLine, std::optional<std::int64_t> newLine) {
        const auto row = static_cast<std::int64_t>(diff.rows.size());
        if (row > 0) {
            diff.oldText.push_back('\n');
            diff.newText.push_back('\n');
        }
        diff.oldText += lineText(oldLines, oldLine);
        diff.newText += lineText(newLines, newLine);
        switch (kind) {
        case RowKind::same: break;
        case RowKind::changed:
            diff.oldKinds[row] = RowKind::changed;
            diff.newKinds[row] = RowKind::changed;
            break;
        case RowKind::added:
            diff.oldKinds[row] = RowKind::filler;
            diff.newKinds[row] = RowKind::added;
            break;
        case RowKind::removed:
            diff.oldKinds[row] = RowKind::removed;
            diff.newKinds[row] = RowKind::filler;
            break;
        case RowKind::filler: break;
        }
        diff.rows.push_back({kind, oldLine, newLine});
    };

    std::int64_t oldCursor = 0;
    std::int64_t newCursor = 0;
    for (const GitHunk& hunk : hunks) {
        while (oldCursor < hunk.oldLines.lower && newCursor < hunk.lines.lower) addRow(RowKind::same, oldCursor++, newCursor++);
        diff.differenceRows.push_back(static_cast<std::int64_t>(diff.rows.size()));
        const std::int64_t paired = std::min(hunk.oldLines.length(), hunk.lines.length());
        for (std::int64_t k = 0; k < paired; ++k) {
            addRow(RowKind::changed, hunk.oldLines.lower + k, hunk.lines.lower + k);
        }
        for (std::int64_t k = paired; k < hunk.lines.length(); ++k) addRow(RowKind::added, std::nullopt, hunk.lines.lower + k);
        for (std::int64_t k = paired; k < hunk.oldLines.length(); ++k) {
            addRow(RowKind::removed, hunk.oldLines.lower + k, std::nullopt);
        }
        oldCursor = hunk.oldLines.upper;
        newCursor = hunk.lines.upper;
    }
    while (oldCursor < oldCount || newCursor < newCount) {
        // Past the last hunk the sides pair up; a side that runs out shows empty lines.
        addRow(RowKind::same, oldCursor < oldCount ? std::optional(oldCursor) : std::nullopt,
               newCursor < newCount ? std::optional(newCursor) : std::nullopt);
        ++oldCursor;
        ++newCursor;
    }
    return diff;
}

std::optional<std::int64_t> AlignedDiff::nextDifference(std::int64_t row) const {
    const auto next = std::upper_bound(differenceRows.begin(), differenceRows.end(), row);
    if (next == differenceRows.end()) return std::nullopt;
    return *next;
}

std::optional<std::int64_t> AlignedDiff::previousDifference(std::int64_t row) const {
    const auto next = std::lower_bound(differenceRows.begin(), differenceRows.end(), row);
    if (next == differenceRows.begin()) return std::nullopt;
    return *(next - 1);
}

} // namespace brim
