#pragma once

#include "bytes/AppendBuffer.h"
#include "bytes/ByteSource.h"
#include "bytes/LineIndex.h"
#include "common/SerialQueue.h"

#include <memory>
#include <optional>
#include <vector>

namespace brim {

/// A document's bytes as a list of spans over two stores: the read-only `original` (a mapped
/// file or an array) and the append-only `added` buffer. An edit costs work proportional to the
/// edit and the number of pieces, never to the size of the file.
///
/// Until the first edit the table is pristine: one piece over the whole original, and every
/// line question is answered by the original's `LineIndex`, which may still be partial.
/// Offsets are byte offsets into the document; lines are counted by 0x0A alone, from 0.
///
/// A table belongs to one thread (the main one); background work gets `original()` and
/// positions, or a copy of the bytes.
class PieceTable {
public:
    /// One span of bytes from one of the two stores.
    struct Piece {
        bool fromOriginal = false;
        std::int64_t offset = 0;   ///< in the store `fromOriginal` names
        std::int64_t length = 0;
        std::int64_t newlines = 0; ///< 0x0A bytes in the span
        friend bool operator==(const Piece&, const Piece&) = default;
    };

    /// Pieces of inserted bytes are cut to at most this length when created, so that no later
    /// operation has to scan a long span of `added`.
    static constexpr std::int64_t maximumAddedPieceLength = 16'384;
    /// At this many pieces an edit merges neighbours that are contiguous in their store.
    static constexpr std::size_t compactionThreshold = 65;

    /// A pristine table over `original`, whose index (possibly partial) is `index`.
    PieceTable(std::shared_ptr<const ByteSource> original, LineIndex index);

    [[nodiscard]] const ByteSource& original() const { return *original_; }
    [[nodiscard]] const std::shared_ptr<const ByteSource>& originalSource() const { return original_; }
    [[nodiscard]] const LineIndex& originalIndex() const { return originalIndex_; }
    /// The index of the original, to be extended by its owner (the table never extends it
    /// except to leave the pristine state).
    [[nodiscard]] LineIndex& originalIndex() { return originalIndex_; }
    [[nodiscard]] const AppendBuffer& added() const { return added_; }
    [[nodiscard]] const std::vector<Piece>& pieces() const { return pieces_; }
    [[nodiscard]] bool isPristine() const { return isPristine_; }

    /// Leaves the pristine state: the single piece learns its newline count from the index.
    /// The index must be complete for that; if it is not, it is completed here, in one pass.
    void materialize();

    [[nodiscard]] std::int64_t byteCount() const;
    /// Newlines in the document; while pristine, those the index has seen so far.
    [[nodiscard]] std::int64_t newlineCount() const;

    /// Where line `line` starts; the document's end for a line past the last.
    [[nodiscard]] std::int64_t offsetOfLine(std::int64_t line) const;
    /// The line that holds byte `offset` (clamped to the document).
    [[nodiscard]] std::int64_t lineContainingOffset(std::int64_t offset) const;
    /// The first 0x0A at or after `offset`; nothing if there is none.
    [[nodiscard]] std::optional<std::int64_t> nextNewline(std::int64_t offset) const;

    /// A copy of the bytes in `range`, clamped to the document.
    [[nodiscard]] std::vector<std::uint8_t> bytes(ByteRange range) const;

    /// Calls `body` with the bytes of `range` (clamped): the piece's own bytes without a copy
    /// when the range lies inside one piece, else a copy made in `scratch`, which callers keep
    /// across many calls.
    void withBytes(ByteRange range, std::vector<std::uint8_t>& scratch,
                   const std::function<void(std::span<const std::uint8_t>)>& body) const;

    /// Offers the document's bytes in order, in blocks of at most `blockSize`. `sink` may
    /// throw, which ends the walk; `isCancelled` is asked between blocks. Returns false if it
    /// was cancelled.
    bool stream(std::int64_t blockSize, const IsCancelled& isCancelled,
                const std::function<void(std::span<const std::uint8_t>)>& sink) const;

    /// Replaces the bytes in `range` (clamped) with `inserted` and returns the bytes removed,
    /// which undo keeps: `added` never shrinks and its bytes never change.
    std::vector<std::uint8_t> replace(ByteRange range, std::span<const std::uint8_t> inserted);

private:
    void ensurePrefixes() const;
    void rebuildPrefixes() const;
    [[nodiscard]] std::size_t pieceIndexForByte(std::int64_t offset) const;
    [[nodiscard]] const ByteSource& sourceOf(const Piece& piece) const;
    [[nodiscard]] std::int64_t newlinesIn(bool fromOriginal, std::int64_t offset, std::int64_t length) const;
    [[nodiscard]] std::int64_t newlinesBefore(const Piece& piece, std::int64_t relative) const;
    [[nodiscard]] std::int64_t newlineOffsetInPiece(std::size_t piece, std::int64_t k) const;
    void copyInto(ByteRange range, std::uint8_t* destination) const;
    void splice(std::size_t begin, std::size_t end, std::vector<Piece> replacement);
    void compactIfNeeded(std::size_t editedBegin, std::size_t editedEnd);

    std::shared_ptr<const ByteSource> original_;
    LineIndex originalIndex_;
    AppendBuffer added_;
    std::vector<Piece> pieces_;
    // Bytes and newlines before each piece; one more entry than pieces, the last the totals.
    mutable std::vector<std::int64_t> prefixBytes_{0};
    mutable std::vector<std::int64_t> prefixLines_{0};
    mutable bool prefixValid_ = false;
    // True while no two neighbours could merge, so compaction need only look near an edit.
    bool compactedWhole_ = true;
    bool isPristine_ = false;
};

} // namespace brim
