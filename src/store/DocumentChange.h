#pragma once

#include "bytes/ByteSource.h"

#include <cstdint>
#include <vector>

namespace brim {

class TextDocument;

/// Lines numbered from 0, both ends included.
struct LineSpan {
    std::int64_t first = 0;
    std::int64_t last = 0;
    friend bool operator==(const LineSpan&, const LineSpan&) = default;
};

/// What one change did to a document, in the numbering from before it: enough for a view, a fold
/// list or a bookmark to move its marks without looking at the text.
struct DocumentChange {
    LineSpan oldLines;                 ///< the lines affected
    ByteRange oldBytes;                ///< the bytes replaced
    std::int64_t lineDelta = 0;        ///< lines gained (negative: lost)
    std::int64_t byteDelta = 0;        ///< bytes gained (negative: lost)
    bool isWholesale = false;          ///< everything changed: drop all derived state
    bool linesPreserved = false;       ///< the number and positions of lines are unchanged

    /// A change that says nothing about where: a reload, a new character set, a save that converted.
    [[nodiscard]] static DocumentChange wholesale() { return {{0, 0}, {0, 0}, 0, 0, true, false}; }

    friend bool operator==(const DocumentChange&, const DocumentChange&) = default;
};

/// One byte-level edit as undo keeps it. The inserted bytes are not kept: they are in the document,
/// and redo keeps them in its own mirrored edit.
struct DocumentEdit {
    std::int64_t offset = 0;                 ///< where the edit took place
    std::vector<std::uint8_t> removed;       ///< the bytes it replaced
    std::int64_t insertedLength = 0;         ///< the size of what replaced them
    std::int64_t caretBefore = 0;
    std::int64_t caretAfter = 0;

    friend bool operator==(const DocumentEdit&, const DocumentEdit&) = default;
};

/// What one Undo takes back: edits in the order they were made.
struct UndoGroup {
    std::vector<DocumentEdit> edits;
    double timestamp = 0;                    ///< seconds, on the document's clock

    friend bool operator==(const UndoGroup&, const UndoGroup&) = default;
};

/// Told of every change of a document, on the main thread, after the change. Held weakly: an
/// observer that has gone is dropped at the next delivery.
class TextDocumentObserver {
public:
    virtual ~TextDocumentObserver() = default;

    /// `changedFrom` is the first line that may differ; `document.lastChange()` says the rest.
    virtual void documentDidChange(TextDocument& document, std::int64_t changedFrom) = 0;
};

} // namespace brim
