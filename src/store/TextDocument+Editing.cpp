#include "bytes/ByteScan.h"
#include "store/TextDocument.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace brim {

namespace {

constexpr double coalescingInterval = 1.0;

bool isBlank(std::uint8_t b) { return b == ' ' || b == '\t'; }

std::int64_t removedSize(const UndoGroup& group) {
    return std::accumulate(group.edits.begin(), group.edits.end(), std::int64_t{0},
                           [](std::int64_t sum, const DocumentEdit& edit) {
                               return sum + static_cast<std::int64_t>(edit.removed.size());
                           });
}

std::int64_t newlines(std::span<const std::uint8_t> bytes) { return ByteScan::countNewlines(bytes); }

} // namespace

bool TextDocument::startsNewUndoStep(std::span<const std::uint8_t> bytes, std::optional<std::uint8_t> previous) {
    if (bytes.empty()) return false;
    if (bytes.front() == 0x0A || bytes.front() == 0x0D) return true;
    if (!previous || !isBlank(*previous)) return false;
    return !isBlank(bytes.front());
}

void TextDocument::completeIndexForEditing() {
    // An edit needs exact line numbers: the first one of a partly indexed file pays for the rest.
    if (!table_->isPristine() || table_->originalIndex().isComplete()) return;
    if (auto extension = planIndexExtension(table_->originalIndex().byteCount(), editIndexingProgress)) {
        table_->originalIndex().commit(std::move(*extension));
    }
}

std::int64_t TextDocument::replaceBytes(ByteRange range, std::span<const std::uint8_t> bytes,
                                        std::int64_t caretBefore, std::int64_t caretAfter, bool coalesce) {
    completeIndexForEditing();
    const ByteRange clamped = range.clampedTo(table_->byteCount());
    if (clamped.empty() && bytes.empty()) return clamped.lower;
    const std::int64_t start = clamped.lower;
    const std::int64_t line = std::max<std::int64_t>(0, table_->lineContainingOffset(start));

    if (coalesce) {
        std::optional<std::uint8_t> previous;
        if (start > 0) previous = table_->bytes({start - 1, start}).front();
        if (startsNewUndoStep(bytes, previous)) coalesce = false;
    }

    auto removed = table_->replace(clamped, bytes);
    const std::int64_t removedNewlines = newlines(removed);
    const std::int64_t insertedNewlines = newlines(bytes);
    const auto removedCount = static_cast<std::int64_t>(removed.size());
    const auto insertedCount = static_cast<std::int64_t>(bytes.size());
    pushUndo({start, std::move(removed), insertedCount, caretBefore, caretAfter}, coalesce);
    redoStack_.clear();
    isDirty_ = true;
    invalidateLineCache(line);

    DocumentChange change;
    change.oldLines = {line, line + removedNewlines};
    change.oldBytes = clamped;
    change.lineDelta = insertedNewlines - removedNewlines;
    change.byteDelta = insertedCount - removedCount;
    notifyChanged(line, change);
    return start + insertedCount;
}

std::int64_t TextDocument::replace(ByteRange range, std::string_view text, std::int64_t caretBefore,
                                   std::int64_t caretAfter) {
    const auto encoded = encoding.encode(text);
    return replaceBytes(range, encoded.bytes, caretBefore, caretAfter, false);
}

void TextDocument::pushUndo(DocumentEdit edit, bool coalesce) {
    undoBytes_ += static_cast<std::int64_t>(edit.removed.size());
    const double stamp = now();
    if (coalesce && !undoStack_.empty()) {
        UndoGroup& last = undoStack_.back();
        if (!last.edits.empty() && stamp - last.timestamp < coalescingInterval && edit.removed.empty() &&
            last.edits.back().offset + last.edits.back().insertedLength == edit.offset) {
            last.edits.push_back(std::move(edit));
            last.timestamp = stamp;
            trimUndoToBudget();
            return;
        }
    }
    undoStack_.push_back(UndoGroup{{std::move(edit)}, stamp});
    trimUndoToBudget();
}

void TextDocument::trimUndoToBudget() {
    // The newest group always stays, however large: it is what the user would undo next.
    std::size_t drop = 0;
    while (undoBytes_ > undoByteBudget_ && undoStack_.size() - drop >= 2) {
        undoBytes_ -= removedSize(undoStack_[drop]);
        ++drop;
    }
    if (drop > 0) undoStack_.erase(undoStack_.begin(), undoStack_.begin() + static_cast<std::ptrdiff_t>(drop));
}

void TextDocument::clearUndoHistory() {
    undoStack_.clear();
    redoStack_.clear();
    undoBytes_ = 0;
}

std::optional<TextDocument::Replay> TextDocument::undo() { return replay(undoStack_, redoStack_); }

std::optional<TextDocument::Replay> TextDocument::redo() { return replay(redoStack_, undoStack_); }

std::optional<TextDocument::Replay> TextDocument::replay(std::vector<UndoGroup>& from, std::vector<UndoGroup>& to) {
    if (from.empty()) return std::nullopt;
    UndoGroup group = std::move(from.back());
    from.pop_back();
    if (&from == &undoStack_) undoBytes_ -= removedSize(group);
    if (group.edits.empty()) return Replay{0, DocumentChange::wholesale()};

    // The span the replay touches, in today's numbering, worked out before anything moves: `low`
    // and `high` bound what changed as the edits are replayed (last to first); `shift` carries
    // positions after `high` back to today's numbering.
    std::int64_t low = std::numeric_limits<std::int64_t>::max();
    std::int64_t high = std::numeric_limits<std::int64_t>::min();
    std::int64_t shift = 0;
    for (auto edit = group.edits.rbegin(); edit != group.edits.rend(); ++edit) {
        const std::int64_t end = edit->offset + edit->insertedLength;
        if (edit->offset < low) low = edit->offset;
        if (end > high) high = end;
        const std::int64_t delta = static_cast<std::int64_t>(edit->removed.size()) - edit->insertedLength;
        high += delta;
        shift -= delta;
    }
    const ByteRange oldBytes{low, high + shift};
    const LineSpan oldLines{std::max<std::int64_t>(0, table_->lineContainingOffset(oldBytes.lower)),
                            std::max<std::int64_t>(0, table_->lineContainingOffset(oldBytes.upper))};
    const std::int64_t newlinesBefore = table_->newlineCount();
    const std::int64_t bytesBefore = table_->byteCount();

    UndoGroup mirrored;
    mirrored.timestamp = 0;
    for (auto edit = group.edits.rbegin(); edit != group.edits.rend(); ++edit) {
        auto removed = table_->replace({edit->offset, edit->offset + edit->insertedLength}, edit->removed);
        mirrored.edits.push_back({edit->offset, std::move(removed), static_cast<std::int64_t>(edit->removed.size()),
                                  edit->caretAfter, edit->caretBefore});
    }
    if (&to == &undoStack_) undoBytes_ += removedSize(mirrored);
    to.push_back(std::move(mirrored));
    if (&to == &undoStack_) trimUndoToBudget();

    isDirty_ = true;
    invalidateLineCache(0, true);
    DocumentChange change;
    change.oldLines = oldLines;
    change.oldBytes = oldBytes;
    change.lineDelta = table_->newlineCount() - newlinesBefore;
    change.byteDelta = table_->byteCount() - bytesBefore;
    notifyChanged(oldLines.first, change);
    return Replay{group.edits.front().caretBefore, change};
}

std::int64_t TextDocument::replaceMany(std::vector<Replacement> edits, std::int64_t caretBefore, bool joiningLastUndo) {
    const std::int64_t count = table_->byteCount();
    for (auto& edit : edits) edit.range = edit.range.clampedTo(count);
    std::erase_if(edits, [](const Replacement& edit) { return edit.range.empty() && edit.bytes.empty(); });
    if (edits.empty()) return caretBefore;
    completeIndexForEditing();

    // Highest first, so each edit leaves the offsets of those still to come as they were.
    std::stable_sort(edits.begin(), edits.end(),
                     [](const Replacement& a, const Replacement& b) { return a.range.lower > b.range.lower; });
    std::int64_t limit = count;
    for (auto& edit : edits) {
        edit.range.upper = std::max(edit.range.lower, std::min(edit.range.upper, limit));
        limit = edit.range.lower;
    }
    const ByteRange oldBytes{edits.back().range.lower, edits.front().range.upper};
    const LineSpan oldLines{std::max<std::int64_t>(0, table_->lineContainingOffset(oldBytes.lower)),
                            std::max<std::int64_t>(0, table_->lineContainingOffset(oldBytes.upper))};
    const std::int64_t newlinesBefore = table_->newlineCount();

    // Where the highest edit's bytes end once every lower edit has moved them.
    std::int64_t caretAfter = edits.front().range.lower + static_cast<std::int64_t>(edits.front().bytes.size());
    for (std::size_t i = 1; i < edits.size(); ++i) {
        caretAfter += static_cast<std::int64_t>(edits[i].bytes.size()) - edits[i].range.length();
    }

    std::vector<DocumentEdit> made;
    std::int64_t removedTotal = 0;
    std::int64_t byteDelta = 0;
    for (auto& edit : edits) {
        auto removed = table_->replace(edit.range, edit.bytes);
        removedTotal += static_cast<std::int64_t>(removed.size());
        byteDelta += static_cast<std::int64_t>(edit.bytes.size()) - static_cast<std::int64_t>(removed.size());
        made.push_back({edit.range.lower, std::move(removed), static_cast<std::int64_t>(edit.bytes.size()),
                        caretBefore, caretAfter});
    }
    undoBytes_ += removedTotal;
    if (joiningLastUndo && !undoStack_.empty()) {
        auto& last = undoStack_.back().edits;
        last.insert(last.end(), std::make_move_iterator(made.begin()), std::make_move_iterator(made.end()));
        undoStack_.back().timestamp = now();
    } else {
        undoStack_.push_back(UndoGroup{std::move(made), now()});
    }
    trimUndoToBudget();
    redoStack_.clear();
    isDirty_ = true;
    invalidateLineCache(oldLines.first);

    DocumentChange change;
    change.oldLines = oldLines;
    change.oldBytes = oldBytes;
    change.lineDelta = table_->newlineCount() - newlinesBefore;
    change.byteDelta = byteDelta;
    notifyChanged(oldLines.first, change);
    return caretAfter;
}

std::int64_t TextDocument::replaceAmendingUndo(ByteRange range, std::string_view text, std::int64_t caretBefore,
                                               std::int64_t caretAfter) {
    std::optional<DocumentEdit> amended;
    if (!undoStack_.empty() && undoStack_.back().edits.size() == 1) {
        const DocumentEdit& last = undoStack_.back().edits.front();
        if (last.offset == range.lower && last.insertedLength == range.length()) {
            amended = std::move(undoStack_.back().edits.front());
            undoStack_.pop_back();
            undoBytes_ -= static_cast<std::int64_t>(amended->removed.size());
        }
    }
    const auto encoded = encoding.encode(text);
    const std::int64_t result = replaceBytes(range, encoded.bytes, amended ? amended->caretBefore : caretBefore,
                                             caretAfter, false);
    if (amended && !undoStack_.empty()) {
        // The new step undoes to what was there before the first of the series.
        DocumentEdit& fresh = undoStack_.back().edits.back();
        undoBytes_ += static_cast<std::int64_t>(amended->removed.size()) - static_cast<std::int64_t>(fresh.removed.size());
        fresh.removed = std::move(amended->removed);
        fresh.caretBefore = amended->caretBefore;
    }
    return result;
}

bool TextDocument::replaceBytesWithinLastEdit(ByteRange range, std::span<const std::uint8_t> bytes,
                                              std::int64_t caretAfter) {
    if (undoStack_.empty() || undoStack_.back().edits.empty()) return false;
    DocumentEdit& last = undoStack_.back().edits.back();
    if (range.lower > range.upper || last.offset > range.lower || last.offset + last.insertedLength < range.upper) {
        return false;
    }
    completeIndexForEditing();
    const std::int64_t line = std::max<std::int64_t>(0, table_->lineContainingOffset(range.lower));
    // What goes is bytes the edit itself inserted: undo removes them with the rest, nothing to keep.
    const auto removed = table_->replace(range, bytes);
    const std::int64_t removedNewlines = newlines(removed);
    const std::int64_t insertedNewlines = newlines(bytes);
    last.insertedLength += static_cast<std::int64_t>(bytes.size()) - static_cast<std::int64_t>(removed.size());
    last.caretAfter = caretAfter;
    redoStack_.clear();
    isDirty_ = true;
    invalidateLineCache(line);

    DocumentChange change;
    change.oldLines = {line, line + removedNewlines};
    change.oldBytes = range;
    change.lineDelta = insertedNewlines - removedNewlines;
    change.byteDelta = static_cast<std::int64_t>(bytes.size()) - static_cast<std::int64_t>(removed.size());
    change.linesPreserved = change.lineDelta == 0 && removedNewlines == 0 && change.byteDelta == 0;
    notifyChanged(line, change);
    return true;
}

} // namespace brim
