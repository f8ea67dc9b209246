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
        std::int64_t offset = 0;  ///< in the store `fromOriginal` names
        std::int64_t length = 0;
        std::int64_t newlines = 0;  ///< 0x0A bytes in the span
        friend bool operator==(const Piece&, const Piece&) = default;
    };

    /// Pieces of inserted bytes are cut to at most this length when created, so that no later
    /// operation has to scan a long span of `added`.
    static constexpr std::int64_t maximumAddedPieceLength = 16'384;
    /// At this many pieces an edit merges neighbours that are contiguous in their store.
    static constexpr std::size_t compactionThreshold = 65;

    class PieceList;

    /// A pristine table over `original`, whose index (possibly partial) is `index`.
    PieceTable(std::shared_ptr<const ByteSource> original, LineIndex index);

    [[nodiscard]] const ByteSource& original() const { return *original_; }
    [[nodiscard]] const std::shared_ptr<const ByteSource>& originalSource() const { return original_; }
    [[nodiscard]] const LineIndex& originalIndex() const { return originalIndex_; }
    /// The index of the original, to be extended by its owner (the table never extends it
    /// except to leave the pristine state).
    [[nodiscard]] LineIndex& originalIndex() { return originalIndex_; }
    [[nodiscard]] const AppendBuffer& added() const { return added_; }
    /// The pieces in document order.
    [[nodiscard]] PieceList pieces() const;
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
    // The pieces are kept in blocks of a few hundred, each knowing its totals, so that an edit
    // moves one block's worth of pieces and a few block totals, however many pieces there are.
    struct Block {
        std::vector<Piece> pieces;
        std::int64_t bytes = 0;
        std::int64_t newlines = 0;
    };
    /// Where a piece stands: its block and slot, the bytes and newlines before it.
    struct Place {
        std::size_t block = 0;
        std::size_t slot = 0;
        std::int64_t start = 0;
        std::int64_t lines = 0;
    };

    [[nodiscard]] std::size_t pieceCount() const { return blockPieces_.back(); }
    [[nodiscard]] const Piece& pieceAt(const Place& place) const {
        return blocks_[place.block].pieces[place.slot];
    }
    [[nodiscard]] bool isEnd(const Place& place) const { return place.block >= blocks_.size(); }
    [[nodiscard]] Place endPlace() const;
    [[nodiscard]] Place placeForByte(std::int64_t offset) const;
    [[nodiscard]] Place placeForNewline(std::int64_t number) const;
    [[nodiscard]] Place placeOfIndex(std::size_t index) const;
    [[nodiscard]] std::size_t indexOf(const Place& place) const {
        return blockPieces_[place.block] + place.slot;
    }
    void advance(Place& place) const;

    [[nodiscard]] const ByteSource& sourceOf(const Piece& piece) const;
    [[nodiscard]] std::int64_t newlinesIn(bool fromOriginal, std::int64_t offset, std::int64_t length) const;
    [[nodiscard]] std::int64_t newlinesBefore(const Piece& piece, std::int64_t relative) const;
    [[nodiscard]] std::int64_t newlineOffsetInPiece(const Piece& piece, std::int64_t k) const;
    void copyInto(ByteRange range, std::uint8_t* destination) const;
    void splice(std::size_t begin, std::size_t end, std::vector<Piece> replacement);
    void rebalance(std::size_t firstBlock, std::size_t lastBlock);
    void rebuildBlockPrefixes();
    void compactIfNeeded(std::size_t editedBegin, std::size_t editedEnd);

    std::shared_ptr<const ByteSource> original_;
    LineIndex originalIndex_;
    AppendBuffer added_;
    std::vector<Block> blocks_;  // never an empty block
    // Bytes, newlines and pieces before each block; one more entry than blocks, the last the totals.
    std::vector<std::int64_t> blockBytes_{0};
    std::vector<std::int64_t> blockLines_{0};
    std::vector<std::size_t> blockPieces_{0};
    // True while no two neighbours could merge, so compaction need only look near an edit.
    bool compactedWhole_ = true;
    bool isPristine_ = false;

public:
    /// The pieces in order, read through the blocks: indexable and iterable.
    class PieceList {
    public:
        class Iterator {
        public:
            using value_type = Piece;
            using difference_type = std::ptrdiff_t;
            Iterator() = default;
            Iterator(const PieceTable* table, std::size_t block, std::size_t slot)
                : table_(table), block_(block), slot_(slot) {}
            const Piece& operator*() const { return table_->blocks_[block_].pieces[slot_]; }
            const Piece* operator->() const { return &**this; }
            Iterator& operator++() {
                if (++slot_ >= table_->blocks_[block_].pieces.size()) {
                    ++block_;
                    slot_ = 0;
                }
                return *this;
            }
            Iterator operator++(int) {
                Iterator before = *this;
                ++*this;
                return before;
            }
            friend bool operator==(const Iterator& a, const Iterator& b) {
                return a.block_ == b.block_ && a.slot_ == b.slot_;
            }

        private:
            const PieceTable* table_ = nullptr;
            std::size_t block_ = 0;
            std::size_t slot_ = 0;
        };

        explicit PieceList(const PieceTable* table) : table_(table) {}
        [[nodiscard]] std::size_t size() const { return table_->pieceCount(); }
        [[nodiscard]] bool empty() const { return size() == 0; }
        [[nodiscard]] const Piece& operator[](std::size_t index) const {
            return table_->pieceAt(table_->placeOfIndex(index));
        }
        [[nodiscard]] const Piece& front() const { return table_->blocks_.front().pieces.front(); }
        [[nodiscard]] const Piece& back() const { return table_->blocks_.back().pieces.back(); }
        [[nodiscard]] Iterator begin() const { return {table_, 0, 0}; }
        [[nodiscard]] Iterator end() const { return {table_, table_->blocks_.size(), 0}; }

    private:
        const PieceTable* table_;
    };
};

}  // namespace brim
