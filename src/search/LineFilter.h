#pragma once

#include "common/SerialQueue.h"
#include "search/SearchQuery.h"
#include "search/SearchText.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brim {

/// A stretch of whole lines: line numbers from `first` to `last`, both included, and their bytes,
/// line ends included. Every list of runs is sorted, with runs neither overlapping nor touching.
struct LineRun {
    std::int64_t first = 0;
    std::int64_t last = 0;
    ByteRange bytes;

    [[nodiscard]] std::int64_t lineCount() const { return last - first + 1; }
    [[nodiscard]] bool contains(std::int64_t line) const { return line >= first && line <= last; }
    friend bool operator==(const LineRun&, const LineRun&) = default;
};

/// One row of the filter panel: lines to show, or to hide, that contain a pattern.
struct FilterCondition {
    bool show = true;
    std::string pattern;
    bool isRegex = false;
    bool caseSensitive = false;
    bool wholeWord = false;

    [[nodiscard]] SearchQuery query() const;
    friend bool operator==(const FilterCondition&, const FilterCondition&) = default;
};

/// One thing the user asked a view to filter by, kept so it can run again over text that
/// arrives later or after a reload.
struct LineFilterStep {
    enum class Kind : std::uint8_t { search, selection };
    Kind kind = Kind::search;
    SearchQuery query;
    /// Keep the lines (true) or hide them (false).
    bool show = true;
    /// For `selection`: the lines that were selected.
    std::vector<LineRun> selection;

    [[nodiscard]] static LineFilterStep search(SearchQuery query, bool show);
    [[nodiscard]] static LineFilterStep selected(std::vector<LineRun> lines, bool show);
    [[nodiscard]] static LineFilterStep from(const FilterCondition& condition);
};

/// A change of a document as a filter sees it: the whole lines it touched and what came of them.
struct LineEdit {
    /// The first and last line the edit touched, in the numbering before it, and their bytes.
    std::int64_t firstLine = 0;
    std::int64_t lastLine = 0;
    ByteRange oldBytes;
    /// How many lines, and how many bytes, stand there after it.
    std::int64_t newLineCount = 1;
    std::int64_t newByteCount = 0;
};

/// Hides lines of a document without changing it: the lines that contain a query, the lines
/// that do not, and everything built from those. Pure functions over a document's bytes and
/// runs of lines; the view keeps what it shows. A document is filtered through `DocumentText`,
/// which gives its bytes with the character set they are in.
namespace LineFilter {

/// The most separate stretches a result holds; beyond it the scan stops with `reachedLimit`.
inline constexpr std::size_t runLimit = 1'000'000;
/// The block a scan reads at a time, extended to the next line end.
inline constexpr std::int64_t blockSize = 1'048'576;

struct Result {
    std::vector<LineRun> matched;
    std::int64_t matchedLines = 0;
    /// False when the scan was cancelled: `matched` holds what came before.
    bool isComplete = true;
    bool reachedLimit = false;
    /// Lines in the candidates as counted by the scan (for the whole text: line ends + 1).
    std::int64_t linesSeen = 0;
};

/// Told of runs as a scan finds them, in order, from the scanning thread; the first may touch
/// or continue the last one told before. Lets a view show its first screen of a large file
/// before the whole file is filtered.
using RunsFound = std::function<void(std::span<const LineRun> runs)>;

/// The lines that contain a match, among `candidates` (or the whole text). One match in a line
/// is enough. A last line without its line end counts; reading in blocks smaller than a line
/// gives the same answer as reading it whole. Throws `PatternError` for a bad expression.
[[nodiscard]] Result matchingRuns(SearchText text, const SearchQuery& query,
                                  std::optional<std::span<const LineRun>> candidates = std::nullopt,
                                  const RunsFound& found = {}, const Progress& progress = {},
                                  const IsCancelled& isCancelled = {});

/// Every line of the text not in `runs`; `lineCount` and `byteCount` close the last stretch.
[[nodiscard]] std::vector<LineRun> complement(std::span<const LineRun> runs, std::int64_t lineCount,
                                              std::int64_t byteCount);

/// The lines in either list, joined where they overlap or touch.
[[nodiscard]] std::vector<LineRun> union_(std::span<const LineRun> a, std::span<const LineRun> b);

/// The lines of `a` that are not in `b`, splitting runs where needed.
[[nodiscard]] std::vector<LineRun> subtract(std::span<const LineRun> a, std::span<const LineRun> b);

/// The lines in both lists.
[[nodiscard]] std::vector<LineRun> intersect(std::span<const LineRun> a, std::span<const LineRun> b);

/// Each run with up to `before` lines before it and `after` lines after it, as far as the text
/// goes, joined where they meet: the context around matching lines.
[[nodiscard]] std::vector<LineRun> widened(SearchText text, std::span<const LineRun> runs, std::int64_t before,
                                           std::int64_t after);

/// Runs the steps in order over `candidates` (or the whole text, which has `lineCount` lines and
/// `byteCount` bytes): a show step keeps what matches, a hide step takes it away; each step sees
/// only what the one before left. With context, what is left then gains `contextBefore` and
/// `contextAfter` lines around each stretch, never beyond the candidates. The result's
/// `matched` is what is shown. Throws `PatternError`; stops early when cancelled.
///
/// Text that arrives at the end of a followed file is filtered by passing its new lines as the
/// candidates: only they are read, so the cost goes with the new text. A selection step hides
/// them when it showed the selection and keeps them when it hid it, as nothing new was selected.
[[nodiscard]] Result apply(SearchText text, std::span<const LineFilterStep> steps, std::int64_t lineCount,
                           std::int64_t byteCount, std::optional<std::span<const LineRun>> candidates = std::nullopt,
                           std::int64_t contextBefore = 0, std::int64_t contextAfter = 0,
                           const Progress& progress = {}, const IsCancelled& isCancelled = {});

/// The runs of a list after an edit: lines before it stay, lines after it move, and the lines
/// the edit left take the state of the line it began in, so a line typed on a shown line is
/// shown with it and an edit across a hidden line takes that line's hiding with it.
[[nodiscard]] std::vector<LineRun> afterEdit(std::span<const LineRun> runs, const LineEdit& edit);

} // namespace LineFilter

/// The rows of a filtered view: which line of the document each shown row is, and back. Built
/// from the shown runs, and extended at the end as a scan or a growing file brings more.
class RowMap {
public:
    RowMap() = default;
    explicit RowMap(std::vector<LineRun> shown);

    /// Adds runs after the last one; a first run that continues or overlaps the last is joined.
    void append(std::span<const LineRun> runs);

    /// Applies an edit of the document to the shown lines.
    void applyEdit(const LineEdit& edit);

    [[nodiscard]] std::int64_t rowCount() const { return rowStarts_.empty() ? 0 : rowStarts_.back(); }
    /// The document line of a row; none past the last row.
    [[nodiscard]] std::optional<std::int64_t> lineForRow(std::int64_t row) const;
    /// The row of a line; none when the line is hidden.
    [[nodiscard]] std::optional<std::int64_t> rowForLine(std::int64_t line) const;
    /// The first shown line at or after `line`, else the last shown line before it: where a
    /// caret on a hidden line goes. None when nothing is shown.
    [[nodiscard]] std::optional<std::int64_t> nearestShownLine(std::int64_t line) const;
    [[nodiscard]] const std::vector<LineRun>& runs() const { return runs_; }

private:
    void rebuild();

    std::vector<LineRun> runs_;
    /// `rowStarts_[i]` is the row of run i's first line; one more entry holds the row count.
    std::vector<std::int64_t> rowStarts_;
};

} // namespace brim
