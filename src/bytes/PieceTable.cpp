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
        source.withBytes({at, end}, [&](std::span<const std::uint8_t> bytes) { count += ByteScan::countNewlines(bytes); });
        at = end;
    }
    return count;
}

} // namespace

PieceTable::PieceTable(std::shared_ptr<const ByteSource> original, LineIndex index)
    : original_(original ? std::move(original) : std::make_shared<MemorySource>()), originalIndex_(std::move(index)) {
    assert(originalIndex_.byteCount() == original_->count() && "the index must be of the original");
    const std::int64_t count = original_->count();
    if (count >= 1) {
        pieces_.push_back(Piece{true, 0, count, 0});
        isPristine_ = true;
    }
    rebuildPrefixes();
}

void PieceTable::materialize() {
    if (!isPristine_) return;
    if (!originalIndex_.isComplete()) {
        auto extension = originalIndex_.plan(*original_, originalIndex_.byteCount());
        if (extension) originalIndex_.commit(std::move(*extension));
    }
    pieces_.front().newlines = originalIndex_.knownNewlines();
    isPristine_ = false;
    compactedWhole_ = true;
    rebuildPrefixes();
}

void PieceTable::rebuildPrefixes() const {
    prefixBytes_.resize(pieces_.size() + 1);
    prefixLines_.resize(pieces_.size() + 1);
    prefixBytes_[0] = 0;
    prefixLines_[0] = 0;
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
        prefixBytes_[i + 1] = prefixBytes_[i] + pieces_[i].length;
        prefixLines_[i + 1] = prefixLines_[i] + pieces_[i].newlines;
    }
    prefixValid_ = true;
}

void PieceTable::ensurePrefixes() const {
    if (!prefixValid_) rebuildPrefixes();
}

std::int64_t PieceTable::byteCount() const {
    ensurePrefixes();
    return prefixBytes_.back();
}

std::int64_t PieceTable::newlineCount() const {
    if (isPristine_) return originalIndex_.knownNewlines();
    ensurePrefixes();
    return prefixLines_.back();
}

const ByteSource& PieceTable::sourceOf(const Piece& piece) const {
    return piece.fromOriginal ? *original_ : static_cast<const ByteSource&>(added_);
}

std::size_t PieceTable::pieceIndexForByte(std::int64_t offset) const {
    ensurePrefixes();
    if (pieces_.empty()) return 0;
    if (offset >= prefixBytes_.back()) return pieces_.size();
    const auto begin = prefixBytes_.begin();
    const auto after = std::upper_bound(begin, begin + static_cast<std::ptrdiff_t>(pieces_.size()), offset);
    return after == begin ? 0 : static_cast<std::size_t>(after - begin - 1);
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

std::int64_t PieceTable::newlineOffsetInPiece(std::size_t index, std::int64_t k) const {
    const Piece& piece = pieces_[index];
    if (!piece.fromOriginal || piece.length <= directScanLimit) {
        const NewlineSearch search = findNewlineIn(sourceOf(piece), {piece.offset, piece.offset + piece.length}, k);
        return search.found >= 0 ? search.found : piece.length - 1;
    }
    const std::int64_t before = originalIndex_.newlineCountBefore(piece.offset, *original_);
    return originalIndex_.startOffsetOfLine(before + k + 1, *original_) - 1 - piece.offset;
}

std::int64_t PieceTable::offsetOfLine(std::int64_t line) const {
    if (isPristine_) return originalIndex_.startOffsetOfLine(line, *original_);
    if (line < 1) return 0;
    ensurePrefixes();
    if (prefixLines_.back() < line) return prefixBytes_.back();
    // The first piece whose end has seen `line` newlines holds newline number line - 1.
    const auto begin = prefixLines_.begin() + 1;
    const auto found = std::lower_bound(begin, begin + static_cast<std::ptrdiff_t>(pieces_.size()), line);
    const auto i = static_cast<std::size_t>(found - begin);
    return prefixBytes_[i] + newlineOffsetInPiece(i, line - 1 - prefixLines_[i]) + 1;
}

std::int64_t PieceTable::lineContainingOffset(std::int64_t offset) const {
    if (isPristine_) {
        return std::min(originalIndex_.newlineCountBefore(offset, *original_),
                        originalIndex_.estimatedLineCount() - 1);
    }
    ensurePrefixes();
    const std::int64_t o = std::clamp<std::int64_t>(offset, 0, prefixBytes_.back());
    const std::size_t i = pieceIndexForByte(o);
    if (i >= pieces_.size()) return prefixLines_.back();
    return prefixLines_[i] + newlinesBefore(pieces_[i], o - prefixBytes_[i]);
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
    for (std::size_t i = pieceIndexForByte(from); i < pieces_.size(); ++i) {
        const Piece& piece = pieces_[i];
        const std::int64_t relative = std::max<std::int64_t>(from - prefixBytes_[i], 0);
        if (piece.newlines == 0 || newlinesBefore(piece, relative) == piece.newlines) continue;
        // There is a newline after `relative` in this piece, so the scan stops within a line.
        const NewlineSearch search =
            findNewlineIn(sourceOf(piece), {piece.offset + relative, piece.offset + piece.length}, 0);
        if (search.found >= 0) return prefixBytes_[i] + relative + search.found;
    }
    return std::nullopt;
}

void PieceTable::copyInto(ByteRange range, std::uint8_t* destination) const {
    std::size_t i = pieceIndexForByte(range.lower);
    for (std::int64_t at = range.lower; at < range.upper && i < pieces_.size(); ++i) {
        const Piece& piece = pieces_[i];
        const std::int64_t relative = at - prefixBytes_[i];
        const std::int64_t take = std::min(piece.length - relative, range.upper - at);
        if (take <= 0) continue;
        sourceOf(piece).read({piece.offset + relative, piece.offset + relative + take},
                             destination + (at - range.lower));
        at += take;
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
    const std::size_t i = pieceIndexForByte(clamped.lower);
    if (i < pieces_.size() && clamped.upper <= prefixBytes_[i] + pieces_[i].length) {
        const Piece& piece = pieces_[i];
        const std::int64_t start = piece.offset + clamped.lower - prefixBytes_[i];
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
    for (const Piece& piece : pieces_) {
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
    ensurePrefixes();
    const std::size_t oldCount = end - begin;
    const std::size_t newCount = replacement.size();
    // The totals up to the end of the replaced pieces, before the change.
    const std::int64_t oldBytesAfter = prefixBytes_[end];
    const std::int64_t oldLinesAfter = prefixLines_[end];
    // One move of the tail for the pieces and one for each prefix array.
    const auto from = static_cast<std::ptrdiff_t>(begin + std::min(oldCount, newCount));
    const auto to = static_cast<std::ptrdiff_t>(end);
    if (newCount > oldCount) {
        const auto grow = newCount - oldCount;
        pieces_.insert(pieces_.begin() + to, grow, Piece{});
        prefixBytes_.insert(prefixBytes_.begin() + to + 1, grow, 0);
        prefixLines_.insert(prefixLines_.begin() + to + 1, grow, 0);
    } else if (newCount < oldCount) {
        pieces_.erase(pieces_.begin() + from, pieces_.begin() + to);
        prefixBytes_.erase(prefixBytes_.begin() + from + 1, prefixBytes_.begin() + to + 1);
        prefixLines_.erase(prefixLines_.begin() + from + 1, prefixLines_.begin() + to + 1);
    }
    for (std::size_t k = 0; k < newCount; ++k) {
        pieces_[begin + k] = replacement[k];
        prefixBytes_[begin + k + 1] = prefixBytes_[begin + k] + replacement[k].length;
        prefixLines_[begin + k + 1] = prefixLines_[begin + k] + replacement[k].newlines;
    }
    // Everything after moves by what the replaced pieces gained or lost.
    const std::size_t last = begin + newCount;
    const std::int64_t deltaBytes = prefixBytes_[last] - oldBytesAfter;
    const std::int64_t deltaLines = prefixLines_[last] - oldLinesAfter;
    if (deltaBytes != 0 || deltaLines != 0) {
        for (std::size_t k = last + 1; k < prefixBytes_.size(); ++k) {
            prefixBytes_[k] += deltaBytes;
            prefixLines_[k] += deltaLines;
        }
    }
    prefixValid_ = true;
}

void PieceTable::compactIfNeeded(std::size_t editedBegin, std::size_t editedEnd) {
    if (pieces_.size() < compactionThreshold) {
        compactedWhole_ = false;
        return;
    }
    // Once the whole list has been compacted, only the edited pieces and their neighbours can
    // have become mergeable; the result is the same as rewriting the whole list.
    std::size_t begin = 0;
    std::size_t end = pieces_.size();
    if (compactedWhole_) {
        begin = editedBegin > 0 ? editedBegin - 1 : 0;
        end = std::min(pieces_.size(), editedEnd + 1);
    }
    std::vector<Piece> merged;
    merged.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
        const Piece& piece = pieces_[i];
        if (piece.length == 0) continue;
        if (!merged.empty()) {
            Piece& previous = merged.back();
            if (previous.fromOriginal == piece.fromOriginal && previous.offset + previous.length == piece.offset &&
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
    ensurePrefixes();
    const std::int64_t count = prefixBytes_.back();
    const std::int64_t lo = std::clamp<std::int64_t>(range.lower, 0, count);
    const std::int64_t hi = std::clamp<std::int64_t>(range.upper, lo, count);
    std::vector<std::uint8_t> removed = bytes({lo, hi});
    const auto insertedLength = static_cast<std::int64_t>(inserted.size());

    // Typing at the very end grows the last piece in place while it stays short.
    if (lo == hi && insertedLength > 0 && lo == count && !pieces_.empty()) {
        Piece& last = pieces_.back();
        if (!last.fromOriginal && last.offset + last.length == added_.count() &&
            last.length + insertedLength <= maximumAddedPieceLength) {
            added_.append(inserted);
            const std::int64_t newlines = ByteScan::countNewlines(inserted);
            last.length += insertedLength;
            last.newlines += newlines;
            prefixBytes_.back() += insertedLength;
            prefixLines_.back() += newlines;
            return removed;
        }
    }

    // The pieces from the one holding `lo` through the one holding `hi` are replaced by what is
    // left of the first before `lo`, the inserted pieces, and what is left of the last after `hi`.
    const std::size_t first = pieceIndexForByte(lo);
    std::vector<Piece> replacement;
    if (first < pieces_.size() && lo > prefixBytes_[first]) {
        const Piece& piece = pieces_[first];
        const std::int64_t length = lo - prefixBytes_[first];
        replacement.push_back(Piece{piece.fromOriginal, piece.offset, length, newlinesBefore(piece, length)});
    }
    if (insertedLength > 0) {
        const std::int64_t start = added_.append(inserted);
        for (std::int64_t at = 0; at < insertedLength; at += maximumAddedPieceLength) {
            const std::int64_t length = std::min(maximumAddedPieceLength, insertedLength - at);
            replacement.push_back(Piece{false, start + at, length,
                                        ByteScan::countNewlines(inserted.data() + at, length)});
        }
    }
    // `hi` lies in piece `last`, or at the end; a piece that `hi` cuts keeps its tail.
    const std::size_t last = pieceIndexForByte(hi);
    std::size_t end = last;
    if (last < pieces_.size() && hi > prefixBytes_[last]) {
        const Piece& piece = pieces_[last];
        const std::int64_t relative = hi - prefixBytes_[last];
        replacement.push_back(Piece{piece.fromOriginal, piece.offset + relative, piece.length - relative,
                                    piece.newlines - newlinesBefore(piece, relative)});
        end = last + 1;
    }
    const std::size_t replacedCount = replacement.size();
    splice(first, end, std::move(replacement));
    compactIfNeeded(first, first + replacedCount);
    return removed;
}

} // namespace brim
