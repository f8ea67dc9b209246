#include "bytes/PieceTable.h"

#include "bytes/ByteScan.h"
#include "bytes/MemorySource.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace brim {

namespace {

/// Spans of the original up to this length are scanned directly; longer ones ask the index,
/// which costs two lookups of up to a stride of lines each.
constexpr std::int64_t directScanLimit = 65'536;
/// The window in which the bytes of a long piece are looked at.
constexpr std::int64_t windowBytes = 262'144;

/// Newline number `k` (from 0) in the range of `source`, relative to the range's start, and the
/// position of the last newline seen if there are too few (-1 if none at all).
struct NewlineSearch {
    std::int64_t found = -1;
    std::int64_t lastSeen = -1;
};

NewlineSearch findNewlineIn(const ByteSource& source, ByteRange range, std::int64_t k) {
    NewlineSearch search;
    for (std::int64_t at = range.lower; at < range.upper && search.found < 0;) {
        const std::int64_t end = std::min(range.upper, at + windowBytes);
        source.withBytes({at, end}, [&](std::span<const std::uint8_t> bytes) {
            std::int64_t passed = 0;
            const auto length = static_cast<std::int64_t>(bytes.size());
            const std::int64_t found = ByteScan::findNewline(bytes.data(), length, k, passed);
            if (found >= 0) {
                search.found = at + found - range.lower;
                return;
            }
            if (passed > 0) {
                for (std::int64_t j = length - 1; j >= 0; --j) {
                    if (bytes[static_cast<std::size_t>(j)] == 0x0A) {
                        search.lastSeen = at + j - range.lower;
                        break;
                    }
                }
            }
            k -= passed;
        });
        at = end;
    }
    return search;
}

std::int64_t countNewlinesIn(const ByteSource& source, ByteRange range) {
    std::int64_t count = 0;
    for (std::int64_t at = range.lower; at < range.upper;) {
        const std::int64_t end = std::min(range.upper, at + windowBytes);
        source.withBytes(
            {at, end}, [&](std::span<const std::uint8_t> bytes) { count += ByteScan::countNewlines(bytes); });
        at = end;
    }
    return count;
}

}  // namespace

namespace {

/// Blocks are cut to this many pieces when they grow past twice as many, and neighbours that
/// fit in this many together are joined.
constexpr std::size_t blockPieces = 256;

}  // namespace

PieceTable::PieceTable(std::shared_ptr<const ByteSource> original, LineIndex index)
    : original_(original ? std::move(original) : std::make_shared<MemorySource>()),
      originalIndex_(std::move(index)) {
    assert(originalIndex_.byteCount() == original_->count() && "the index must be of the original");
    const std::int64_t count = original_->count();
    if (count >= 1) {
        blocks_.push_back(Block{{Piece{true, 0, count, 0}}, count, 0});
        isPristine_ = true;
    }
    rebuildBlockPrefixes();
}

PieceTable::PieceList PieceTable::pieces() const {
    return PieceList(this);
}

void PieceTable::materialize() {
    if (!isPristine_) return;
    if (!originalIndex_.isComplete()) {
        auto extension = originalIndex_.plan(*original_, originalIndex_.byteCount());
        if (extension) originalIndex_.commit(std::move(*extension));
    }
    Block& block = blocks_.front();
    block.pieces.front().newlines = originalIndex_.knownNewlines();
    block.newlines = block.pieces.front().newlines;
    isPristine_ = false;
    compactedWhole_ = true;
    rebuildBlockPrefixes();
}

void PieceTable::rebuildBlockPrefixes() {
    blockBytes_.resize(blocks_.size() + 1);
    blockLines_.resize(blocks_.size() + 1);
    blockPieces_.resize(blocks_.size() + 1);
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
        blockBytes_[b + 1] = blockBytes_[b] + blocks_[b].bytes;
        blockLines_[b + 1] = blockLines_[b] + blocks_[b].newlines;
        blockPieces_[b + 1] = blockPieces_[b] + blocks_[b].pieces.size();
    }
}

std::int64_t PieceTable::byteCount() const {
    return blockBytes_.back();
}

std::int64_t PieceTable::newlineCount() const {
    return isPristine_ ? originalIndex_.knownNewlines() : blockLines_.back();
}

const ByteSource& PieceTable::sourceOf(const Piece& piece) const {
    return piece.fromOriginal ? *original_ : static_cast<const ByteSource&>(added_);
}

PieceTable::Place PieceTable::endPlace() const {
    return {blocks_.size(), 0, blockBytes_.back(), blockLines_.back()};
}

PieceTable::Place PieceTable::placeForByte(std::int64_t offset) const {
    if (offset >= blockBytes_.back()) return endPlace();
    offset = std::max<std::int64_t>(offset, 0);
    const auto begin = blockBytes_.begin();
    const auto b = static_cast<std::size_t>(
        std::upper_bound(begin, begin + static_cast<std::ptrdiff_t>(blocks_.size()), offset) - begin - 1);
    Place place{b, 0, blockBytes_[b], blockLines_[b]};
    const auto& pieces = blocks_[b].pieces;
    while (place.slot + 1 < pieces.size() && place.start + pieces[place.slot].length <= offset) {
        place.start += pieces[place.slot].length;
        place.lines += pieces[place.slot].newlines;
        ++place.slot;
    }
    return place;
}

PieceTable::Place PieceTable::placeForNewline(std::int64_t number) const {
    // The first block whose end has seen more than `number` newlines holds newline `number`.
    const auto begin = blockLines_.begin() + 1;
    const auto b = static_cast<std::size_t>(
        std::upper_bound(begin, begin + static_cast<std::ptrdiff_t>(blocks_.size()), number) - begin);
    if (b >= blocks_.size()) return endPlace();
    Place place{b, 0, blockBytes_[b], blockLines_[b]};
    const auto& pieces = blocks_[b].pieces;
    while (place.slot + 1 < pieces.size() && place.lines + pieces[place.slot].newlines <= number) {
        place.start += pieces[place.slot].length;
        place.lines += pieces[place.slot].newlines;
        ++place.slot;
    }
    return place;
}

PieceTable::Place PieceTable::placeOfIndex(std::size_t index) const {
    if (index >= pieceCount()) return endPlace();
    const auto begin = blockPieces_.begin();
    const auto b = static_cast<std::size_t>(
        std::upper_bound(begin, begin + static_cast<std::ptrdiff_t>(blocks_.size()), index) - begin - 1);
    Place place{b, 0, blockBytes_[b], blockLines_[b]};
    for (; place.slot < index - blockPieces_[b]; ++place.slot) {
        place.start += blocks_[b].pieces[place.slot].length;
        place.lines += blocks_[b].pieces[place.slot].newlines;
    }
    return place;
}

void PieceTable::advance(Place& place) const {
    const Piece& piece = pieceAt(place);
    place.start += piece.length;
    place.lines += piece.newlines;
    if (++place.slot >= blocks_[place.block].pieces.size()) {
        ++place.block;
        place.slot = 0;
    }
}

std::int64_t PieceTable::newlinesIn(bool fromOriginal, std::int64_t offset, std::int64_t length) const {
    if (length < 1) return 0;
    if (!fromOriginal) return ByteScan::countNewlines(added_.bytes().data() + offset, length);
    if (length <= directScanLimit) return countNewlinesIn(*original_, {offset, offset + length});
    // A long span of the original asks the index, so that cutting a piece of many gigabytes
    // needs no scan of the file.
    return originalIndex_.newlineCountBefore(offset + length, *original_) -
           originalIndex_.newlineCountBefore(offset, *original_);
}

std::int64_t PieceTable::newlinesBefore(const Piece& piece, std::int64_t relative) const {
    if (relative <= 0) return 0;
    if (relative >= piece.length) return piece.newlines;
    // Count the shorter side; the other follows by subtraction.
    if (relative <= piece.length - relative) return newlinesIn(piece.fromOriginal, piece.offset, relative);
    return piece.newlines - newlinesIn(piece.fromOriginal, piece.offset + relative, piece.length - relative);
}

std::int64_t PieceTable::newlineOffsetInPiece(const Piece& piece, std::int64_t k) const {
    if (!piece.fromOriginal || piece.length <= directScanLimit) {
        const NewlineSearch search =
            findNewlineIn(sourceOf(piece), {piece.offset, piece.offset + piece.length}, k);
        return search.found >= 0 ? search.found : piece.length - 1;
    }
    const std::int64_t before = originalIndex_.newlineCountBefore(piece.offset, *original_);
    return originalIndex_.startOffsetOfLine(before + k + 1, *original_) - 1 - piece.offset;
}

std::int64_t PieceTable::offsetOfLine(std::int64_t line) const {
    if (isPristine_) return originalIndex_.startOffsetOfLine(line, *original_);
    if (line < 1) return 0;
    if (blockLines_.back() < line) return blockBytes_.back();
    // Line `line` starts after newline number line - 1.
    const Place place = placeForNewline(line - 1);
    return place.start + newlineOffsetInPiece(pieceAt(place), line - 1 - place.lines) + 1;
}

std::int64_t PieceTable::lineContainingOffset(std::int64_t offset) const {
    if (isPristine_) {
        return std::min(originalIndex_.newlineCountBefore(offset, *original_),
                        originalIndex_.estimatedLineCount() - 1);
    }
    const std::int64_t o = std::clamp<std::int64_t>(offset, 0, blockBytes_.back());
    const Place place = placeForByte(o);
    if (isEnd(place)) return blockLines_.back();
    return place.lines + newlinesBefore(pieceAt(place), o - place.start);
}

std::optional<std::int64_t> PieceTable::nextNewline(std::int64_t offset) const {
    const std::int64_t count = byteCount();
    std::int64_t from = std::max<std::int64_t>(offset, 0);
    if (from >= count) return std::nullopt;
    if (isPristine_) {
        // Within the indexed part the index knows where the next line starts.
        if (from < originalIndex_.indexedBytes()) {
            const std::int64_t before = originalIndex_.newlineCountBefore(from, *original_);
            if (before + 1 <= originalIndex_.knownNewlines()) {
                return originalIndex_.startOffsetOfLine(before + 1, *original_) - 1;
            }
            from = originalIndex_.indexedBytes();
        }
        for (std::int64_t at = from; at < count;) {
            const std::int64_t end = std::min(count, at + windowBytes);
            std::int64_t found = -1;
            original_->withBytes({at, end}, [&](std::span<const std::uint8_t> bytes) {
                found = ByteScan::firstNewline(bytes.data(), static_cast<std::int64_t>(bytes.size()));
            });
            if (found >= 0) return at + found;
            at = end;
        }
        return std::nullopt;
    }
    // The piece that holds the next newline is the one where the count passes the newlines before `from`.
    const Place here = placeForByte(from);
    const std::int64_t before = here.lines + newlinesBefore(pieceAt(here), from - here.start);
    if (before >= blockLines_.back()) return std::nullopt;
    const Place place = placeForNewline(before);
    const Piece& piece = pieceAt(place);
    const std::int64_t relative = std::max<std::int64_t>(from - place.start, 0);
    // There is a newline after `relative` in this piece, so the scan stops within a line.
    const NewlineSearch search =
        findNewlineIn(sourceOf(piece), {piece.offset + relative, piece.offset + piece.length}, 0);
    if (search.found >= 0) return place.start + relative + search.found;
    return std::nullopt;
}

void PieceTable::copyInto(ByteRange range, std::uint8_t* destination) const {
    for (Place place = placeForByte(range.lower); !isEnd(place) && place.start < range.upper;
         advance(place)) {
        const Piece& piece = pieceAt(place);
        const std::int64_t from = std::max(range.lower, place.start);
        const std::int64_t to = std::min(range.upper, place.start + piece.length);
        if (to <= from) continue;
        const std::int64_t relative = from - place.start;
        sourceOf(piece).read({piece.offset + relative, piece.offset + relative + (to - from)},
                             destination + (from - range.lower));
    }
}

std::vector<std::uint8_t> PieceTable::bytes(ByteRange range) const {
    const ByteRange clamped = range.clampedTo(byteCount());
    std::vector<std::uint8_t> out(static_cast<std::size_t>(clamped.length()));
    if (!out.empty()) copyInto(clamped, out.data());
    return out;
}

void PieceTable::withBytes(ByteRange range, std::vector<std::uint8_t>& scratch,
                           const std::function<void(std::span<const std::uint8_t>)>& body) const {
    const ByteRange clamped = range.clampedTo(byteCount());
    if (clamped.empty()) {
        body({});
        return;
    }
    const Place place = placeForByte(clamped.lower);
    if (!isEnd(place) && clamped.upper <= place.start + pieceAt(place).length) {
        const Piece& piece = pieceAt(place);
        const std::int64_t start = piece.offset + clamped.lower - place.start;
        sourceOf(piece).withBytes({start, start + clamped.length()}, body);
        return;
    }
    scratch.resize(static_cast<std::size_t>(clamped.length()));
    copyInto(clamped, scratch.data());
    body(scratch);
}

bool PieceTable::stream(std::int64_t blockSize, const IsCancelled& isCancelled,
                        const std::function<void(std::span<const std::uint8_t>)>& sink) const {
    const std::int64_t block = std::max<std::int64_t>(blockSize, 1);
    std::vector<std::uint8_t> buffer;
    for (const Piece& piece : pieces()) {
        const ByteSource& source = sourceOf(piece);
        for (std::int64_t at = piece.offset; at < piece.offset + piece.length;) {
            if (isCancelled && isCancelled()) return false;
            const std::int64_t end = std::min(piece.offset + piece.length, at + block);
            if (source.prefersBufferedReads()) {
                // A mapped file is read into a private block: the pages of the map stay
                // untouched and a file cut short reads as zeros.
                buffer.resize(static_cast<std::size_t>(end - at));
                source.read({at, end}, buffer.data());
                sink(buffer);
            } else {
                source.withBytes({at, end}, sink);
            }
            at = end;
        }
    }
    return true;
}

void PieceTable::splice(std::size_t begin, std::size_t end, std::vector<Piece> replacement) {
    // Pieces [begin, end), counted across the blocks, give way to `replacement`, which goes into
    // the block of `begin` (the last block when `begin` is the end).
    if (blocks_.empty()) blocks_.push_back(Block{});
    Place first = placeOfIndex(begin);
    if (isEnd(first)) first = {blocks_.size() - 1, blocks_.back().pieces.size(), 0, 0};
    const Place last = placeOfIndex(end);
    std::size_t lastBlock = isEnd(last) ? blocks_.size() - 1 : last.block;
    std::size_t lastSlot = isEnd(last) ? blocks_.back().pieces.size() : last.slot;
    if (lastBlock < first.block) {
        lastBlock = first.block;
        lastSlot = first.slot;
    }
    auto& pieces = blocks_[first.block].pieces;
    const auto at = static_cast<std::ptrdiff_t>(first.slot);
    if (lastBlock == first.block) {
        pieces.erase(pieces.begin() + at, pieces.begin() + static_cast<std::ptrdiff_t>(lastSlot));
        pieces.insert(pieces.begin() + at, replacement.begin(), replacement.end());
    } else {
        auto& tail = blocks_[lastBlock].pieces;
        tail.erase(tail.begin(), tail.begin() + static_cast<std::ptrdiff_t>(lastSlot));
        pieces.erase(pieces.begin() + at, pieces.end());
        pieces.insert(pieces.end(), replacement.begin(), replacement.end());
        blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(first.block) + 1,
                      blocks_.begin() + static_cast<std::ptrdiff_t>(lastBlock));
    }
    rebalance(first.block == 0 ? 0 : first.block - 1, first.block + 1);
    rebuildBlockPrefixes();
}

void PieceTable::rebalance(std::size_t firstBlock, std::size_t lastBlock) {
    // Only the blocks from `firstBlock` through `lastBlock` changed: their totals are summed
    // again, an empty one goes, a large one is cut, and small neighbours are joined.
    std::size_t limit = std::min(lastBlock + 1, blocks_.size());  // one past the last to look at
    for (std::size_t b = firstBlock; b < limit;) {
        Block& block = blocks_[b];
        if (block.pieces.empty()) {
            blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(b));
            --limit;
            continue;
        }
        if (b + 1 < blocks_.size() && block.pieces.size() + blocks_[b + 1].pieces.size() <= blockPieces) {
            auto& next = blocks_[b + 1].pieces;
            block.pieces.insert(block.pieces.end(), next.begin(), next.end());
            blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(b) + 1);
            if (b + 1 < limit) --limit;
            continue;
        }
        if (block.pieces.size() > 2 * blockPieces) {
            std::vector<Block> cut;
            for (std::size_t from = 0; from < block.pieces.size(); from += blockPieces) {
                const auto to = std::min(block.pieces.size(), from + blockPieces);
                cut.push_back(Block{{block.pieces.begin() + static_cast<std::ptrdiff_t>(from),
                                     block.pieces.begin() + static_cast<std::ptrdiff_t>(to)},
                                    0,
                                    0});
            }
            limit += cut.size() - 1;
            blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(b));
            blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(b),
                           std::make_move_iterator(cut.begin()), std::make_move_iterator(cut.end()));
        }
        Block& settled = blocks_[b];
        settled.bytes = 0;
        settled.newlines = 0;
        for (const Piece& piece : settled.pieces) {
            settled.bytes += piece.length;
            settled.newlines += piece.newlines;
        }
        ++b;
    }
}

void PieceTable::compactIfNeeded(std::size_t editedBegin, std::size_t editedEnd) {
    if (pieceCount() < compactionThreshold) {
        compactedWhole_ = false;
        return;
    }
    // Once the whole list has been compacted, only the edited pieces and their neighbours can
    // have become mergeable; the result is the same as rewriting the whole list.
    std::size_t begin = 0;
    std::size_t end = pieceCount();
    if (compactedWhole_) {
        begin = editedBegin > 0 ? editedBegin - 1 : 0;
        end = std::min(pieceCount(), editedEnd + 1);
    }
    std::vector<Piece> merged;
    merged.reserve(end - begin);
    Place place = placeOfIndex(begin);
    for (std::size_t i = begin; i < end; ++i, advance(place)) {
        const Piece& piece = pieceAt(place);
        if (piece.length == 0) continue;
        if (!merged.empty()) {
            Piece& previous = merged.back();
            if (previous.fromOriginal == piece.fromOriginal &&
                previous.offset + previous.length == piece.offset &&
                (piece.fromOriginal || previous.length + piece.length <= maximumAddedPieceLength)) {
                previous.length += piece.length;
                previous.newlines += piece.newlines;
                continue;
            }
        }
        merged.push_back(piece);
    }
    if (merged.size() != end - begin) splice(begin, end, std::move(merged));
    compactedWhole_ = true;
}

std::vector<std::uint8_t> PieceTable::replace(ByteRange range, std::span<const std::uint8_t> inserted) {
    materialize();
    const std::int64_t count = byteCount();
    const std::int64_t lo = std::clamp<std::int64_t>(range.lower, 0, count);
    const std::int64_t hi = std::clamp<std::int64_t>(range.upper, lo, count);
    std::vector<std::uint8_t> removed = bytes({lo, hi});
    const auto insertedLength = static_cast<std::int64_t>(inserted.size());

    // Typing at the very end grows the last piece in place while it stays short.
    if (lo == hi && insertedLength > 0 && lo == count && !blocks_.empty()) {
        Piece& last = blocks_.back().pieces.back();
        if (!last.fromOriginal && last.offset + last.length == added_.count() &&
            last.length + insertedLength <= maximumAddedPieceLength) {
            added_.append(inserted);
            const std::int64_t newlines = ByteScan::countNewlines(inserted);
            last.length += insertedLength;
            last.newlines += newlines;
            blocks_.back().bytes += insertedLength;
            blocks_.back().newlines += newlines;
            blockBytes_.back() += insertedLength;
            blockLines_.back() += newlines;
            return removed;
        }
    }

    // The pieces from the one holding `lo` through the one holding `hi` are replaced by what is
    // left of the first before `lo`, the inserted pieces, and what is left of the last after `hi`.
    const Place first = placeForByte(lo);
    std::vector<Piece> replacement;
    std::optional<std::int64_t> newlinesBeforeLo;  // within the piece that holds `lo`
    if (!isEnd(first) && lo > first.start) {
        const Piece& piece = pieceAt(first);
        const std::int64_t length = lo - first.start;
        newlinesBeforeLo = newlinesBefore(piece, length);
        replacement.push_back(Piece{piece.fromOriginal, piece.offset, length, *newlinesBeforeLo});
    }
    if (insertedLength > 0) {
        const std::int64_t start = added_.append(inserted);
        for (std::int64_t at = 0; at < insertedLength; at += maximumAddedPieceLength) {
            const std::int64_t length = std::min(maximumAddedPieceLength, insertedLength - at);
            replacement.push_back(
                Piece{false, start + at, length, ByteScan::countNewlines(inserted.data() + at, length)});
        }
    }
    // `hi` lies in piece `last`, or at the end; a piece that `hi` cuts keeps its tail.
    const Place last = placeForByte(hi);
    std::size_t end = isEnd(last) ? pieceCount() : indexOf(last);
    if (!isEnd(last) && hi > last.start) {
        const Piece& piece = pieceAt(last);
        const std::int64_t relative = hi - last.start;
        // Within the same piece as `lo`, the count before `hi` is the one before `lo` and the
        // removed bytes' own, which are at hand: no second look at a long piece.
        const std::int64_t before = newlinesBeforeLo && last.block == first.block && last.slot == first.slot
                                        ? *newlinesBeforeLo + ByteScan::countNewlines(removed)
                                        : newlinesBefore(piece, relative);
        replacement.push_back(Piece{piece.fromOriginal, piece.offset + relative, piece.length - relative,
                                    piece.newlines - before});
        end += 1;
    }
    const std::size_t begin = isEnd(first) ? pieceCount() : indexOf(first);
    const std::size_t replacedCount = replacement.size();
    splice(begin, end, std::move(replacement));
    compactIfNeeded(begin, begin + replacedCount);
    return removed;
}

}  // namespace brim
