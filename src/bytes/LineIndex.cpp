#include "bytes/LineIndex.h"

#include "bytes/ByteScan.h"
#include "common/Parallel.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace brim {

namespace {

/// Slices smaller than this cost more to hand out than they save.
constexpr std::int64_t minimumSliceBytes = 4'194'304;
/// The private block a slice reads into when the source prefers buffered reads. It stays in
/// the processor's second-level cache while it is counted.
constexpr std::int64_t readBlockBytes = 524'288;
/// The window in which queries look at bytes between checkpoints.
constexpr std::int64_t queryWindowBytes = 262'144;

/// Calls `body(bytes, offset)` with consecutive windows of the range until it returns false.
template <typename Body> void forEachWindow(const ByteSource& source, ByteRange range, Body&& body) {
    for (std::int64_t at = range.lower; at < range.upper;) {
        const std::int64_t end = std::min(range.upper, at + queryWindowBytes);
        bool goOn = true;
        source.withBytes({at, end}, [&](std::span<const std::uint8_t> bytes) { goOn = body(bytes, at); });
        if (!goOn) return;
        at = end;
    }
}

}  // namespace

void LineIndex::ChunkScanner::scan(const std::uint8_t* bytes, std::int64_t count) {
    std::int64_t i = 0;
    while (i < count) {
        // Skip straight to the newline that is the next checkpoint; blocks before it are only counted.
        std::int64_t passed = 0;
        const std::int64_t found =
            ByteScan::findNewline(bytes + i, count - i, nextBoundary - newlines, passed);
        newlines += passed;
        if (found < 0) break;
        newlines += 1;
        checkpoints.push_back(offset + i + found + 1);
        nextBoundary += stride;
        i += found + 1;
    }
    offset += count;
}

LineIndex LineIndex::Builder::finish() const {
    LineIndex index(total, stride);
    for (const Chunk& chunk : chunks_) {
        index.chunks_.push_back(chunk);
        index.chunkStartLine_.push_back(index.chunkStartLine_.back() + chunk.newlines);
    }
    if (total > chunkStart_ || chunks_.empty()) {
        index.chunks_.push_back(Chunk{chunkStart_, scanner.newlines, scanner.checkpoints});
        index.chunkStartLine_.push_back(index.chunkStartLine_.back() + scanner.newlines);
    }
    index.indexedBytes_.store(total, std::memory_order_release);
    return index;
}

void LineIndex::Builder::closeChunk() {
    if (total > chunkStart_) chunks_.push_back(Chunk{chunkStart_, scanner.newlines, std::move(scanner.checkpoints)});
    chunkStart_ = total;
    scanner = ChunkScanner(stride, total);
}

void LineIndex::Builder::scanSource(const ByteSource& source, ByteRange range) {
    if (source.prefersBufferedReads()) {
        std::vector<std::uint8_t> block(static_cast<std::size_t>(std::min(readBlockBytes, std::max<std::int64_t>(range.length(), 0))));
        for (std::int64_t at = range.lower; at < range.upper; at += readBlockBytes) {
            const std::int64_t length = std::min(readBlockBytes, range.upper - at);
            source.read({at, at + length}, block.data());
            scan({block.data(), static_cast<std::size_t>(length)});
        }
        return;
    }
    forEachWindow(source, range, [&](std::span<const std::uint8_t> bytes, std::int64_t) {
        scan(bytes);
        return true;
    });
}

namespace {

/// The offset of the last 0x0A in `range` of `source`, or -1; reads backwards from the end, so the
/// cost is the distance to that newline.
std::int64_t lastNewlineIn(const ByteSource& source, ByteRange range) {
    constexpr std::int64_t window = 65'536;
    std::vector<std::uint8_t> block;
    for (std::int64_t end = range.upper; end > range.lower;) {
        const std::int64_t start = std::max(range.lower, end - window);
        block.resize(static_cast<std::size_t>(end - start));
        source.read({start, end}, block.data());
        for (std::int64_t i = end - start - 1; i >= 0; --i) {
            if (block[static_cast<std::size_t>(i)] == 0x0A) return start + i;
        }
        end = start;
    }
    return -1;
}

}  // namespace

void LineIndex::Builder::appendIndexed(const LineIndex& index, const ByteSource& source, ByteRange range) {
    if (range.empty()) return;
    if (index.stride() != stride || index.indexedBytes() < range.upper || index.chunks_.empty()) {
        scanSource(source, range);
        return;
    }
    // A chunk of the new index may start wherever the text's own chunk has a checkpoint, if it starts
    // where the line ending at that checkpoint starts: its newlines are then numbered as the
    // original's, and every later checkpoint of the original is one of its own, moved. The bytes
    // between such places are scanned; they are fewer than `stride` lines at each end of a chunk.
    for (std::int64_t position = range.lower; position < range.upper;) {
        const std::size_t i = index.chunkIndexForByte(position);
        const Chunk& chunk = index.chunks_[i];
        const std::int64_t chunkEnd = i + 1 < index.chunks_.size() ? index.chunks_[i + 1].startByte : index.indexedBytes();
        const std::int64_t end = std::min(range.upper, chunkEnd);
        const auto& checkpoints = chunk.checkpoints;
        auto k = static_cast<std::size_t>(std::upper_bound(checkpoints.begin(), checkpoints.end(), position) -
                                          checkpoints.begin());
        std::int64_t lineStart = -1;
        for (; k < checkpoints.size() && checkpoints[k] <= end; ++k) {
            const std::int64_t newline = checkpoints[k] - 1;
            const std::int64_t before = lastNewlineIn(source, {std::max(position, chunk.startByte), newline});
            const std::int64_t start = before >= 0 ? before + 1 : chunk.startByte;
            if (start >= position) {
                lineStart = start;
                break;
            }
        }
        if (lineStart < 0) {
            scanSource(source, {position, end});
            position = end;
            continue;
        }
        scanSource(source, {position, lineStart});
        closeChunk();
        const std::int64_t delta = total - lineStart;
        Chunk moved;
        moved.startByte = total;
        std::size_t last = k;
        while (last < checkpoints.size() && checkpoints[last] <= end) {
            moved.checkpoints.push_back(checkpoints[last] + delta);
            ++last;
        }
        --last;
        const auto first = static_cast<std::int64_t>(k);
        if (end == chunkEnd) {
            moved.newlines = chunk.newlines - first * stride;
        } else {
            std::int64_t tail = 0;
            std::vector<std::uint8_t> block;
            for (std::int64_t at = checkpoints[last]; at < end; at += queryWindowBytes) {
                block.resize(static_cast<std::size_t>(std::min(queryWindowBytes, end - at)));
                source.read({at, at + static_cast<std::int64_t>(block.size())}, block.data());
                tail += ByteScan::countNewlines(block);
            }
            moved.newlines = (static_cast<std::int64_t>(last) - first) * stride + 1 + tail;
        }
        chunks_.push_back(std::move(moved));
        total += end - lineStart;
        chunkStart_ = total;
        scanner = ChunkScanner(stride, total);
        position = end;
    }
}

LineIndex::LineIndex(std::int64_t byteCount, std::int64_t stride)
    : stride_(stride < 1 ? 1 : stride), byteCount_(byteCount < 0 ? 0 : byteCount) {}

LineIndex::LineIndex(const LineIndex& other)
    : stride_(other.stride_), chunks_(other.chunks_), chunkStartLine_(other.chunkStartLine_),
      indexedBytes_(other.indexedBytes()), byteCount_(other.byteCount_), densityHint_(other.densityHint_) {}

LineIndex& LineIndex::operator=(const LineIndex& other) {
    if (this == &other) return *this;
    stride_ = other.stride_;
    chunks_ = other.chunks_;
    chunkStartLine_ = other.chunkStartLine_;
    indexedBytes_.store(other.indexedBytes(), std::memory_order_release);
    byteCount_ = other.byteCount_;
    densityHint_ = other.densityHint_;
    return *this;
}

LineIndex::LineIndex(LineIndex&& other) noexcept
    : stride_(other.stride_), chunks_(std::move(other.chunks_)),
      chunkStartLine_(std::move(other.chunkStartLine_)), indexedBytes_(other.indexedBytes()),
      byteCount_(other.byteCount_), densityHint_(other.densityHint_) {
    other.chunkStartLine_ = {0};
    other.indexedBytes_.store(0);
}

LineIndex& LineIndex::operator=(LineIndex&& other) noexcept {
    if (this == &other) return *this;
    stride_ = other.stride_;
    chunks_ = std::move(other.chunks_);
    chunkStartLine_ = std::move(other.chunkStartLine_);
    indexedBytes_.store(other.indexedBytes(), std::memory_order_release);
    byteCount_ = other.byteCount_;
    densityHint_ = other.densityHint_;
    other.chunkStartLine_ = {0};
    other.indexedBytes_.store(0);
    return *this;
}

std::optional<LineIndex> LineIndex::build(const ByteSource& source, std::int64_t stride,
                                          const Progress& progress, const IsCancelled& isCancelled) {
    LineIndex index(source.count(), stride);
    auto extension = index.plan(source, index.byteCount(), progress, isCancelled);
    if (!extension) return std::nullopt;
    index.commit(std::move(*extension));
    return index;
}

std::optional<LineIndex::Extension> LineIndex::plan(const ByteSource& source, std::int64_t throughByte,
                                                    const Progress& progress,
                                                    const IsCancelled& isCancelled) const {
    const std::int64_t from = indexedBytes();
    const std::int64_t target = std::clamp<std::int64_t>(throughByte, 0, byteCount_);
    if (from >= target) return Extension{{}, from, from};

    const std::int64_t bytes = target - from;
    const auto processors = static_cast<std::int64_t>(std::max<std::size_t>(activeProcessorCount(), 1));
    const std::int64_t slices =
        std::min(std::max<std::int64_t>(bytes / minimumSliceBytes, 1), processors * 4);
    const std::int64_t sliceSize = (bytes + slices - 1) / slices;
    const bool buffered = source.prefersBufferedReads();
    const std::int64_t stride = stride_;

    std::vector<Chunk> chunks(static_cast<std::size_t>(slices));
    std::atomic<bool> cancelled{false};
    std::atomic<std::int64_t> finished{0};
    const auto stopping = [&] {
        if (cancelled.load(std::memory_order_relaxed)) return true;
        if (isCancelled && isCancelled()) {
            cancelled.store(true, std::memory_order_relaxed);
            return true;
        }
        return false;
    };

    parallelFor(static_cast<std::size_t>(slices), [&](std::size_t s) {
        const std::int64_t start = from + static_cast<std::int64_t>(s) * sliceSize;
        const std::int64_t end = std::min(start + sliceSize, target);
        Chunk& chunk = chunks[s];
        chunk.startByte = start;
        if (stopping()) return;
        ChunkScanner scanner(stride, start);
        if (start < end && buffered) {
            std::vector<std::uint8_t> block(static_cast<std::size_t>(std::min(readBlockBytes, end - start)));
            for (std::int64_t at = start; at < end; at += readBlockBytes) {
                const std::int64_t length = std::min(readBlockBytes, end - at);
                source.read({at, at + length}, block.data());
                scanner.scan(block.data(), length);
                if (stopping()) return;
            }
        } else if (start < end) {
            source.withBytes({start, end}, [&](std::span<const std::uint8_t> all) {
                for (std::size_t at = 0; at < all.size(); at += static_cast<std::size_t>(readBlockBytes)) {
                    scanner.scan(
                        all.subspan(at, std::min(all.size() - at, static_cast<std::size_t>(readBlockBytes))));
                    if (stopping()) return;
                }
            });
            if (cancelled.load(std::memory_order_relaxed)) return;
        }
        chunk.newlines = scanner.newlines;
        chunk.checkpoints = std::move(scanner.checkpoints);
        const std::int64_t done = finished.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (progress) progress(static_cast<double>(done) / static_cast<double>(slices));
    });
    if (cancelled.load()) return std::nullopt;

    // Slices past the target (rounding up the slice size can leave some) hold nothing.
    std::erase_if(chunks, [&](const Chunk& chunk) { return chunk.startByte >= target; });
    return Extension{std::move(chunks), target, from};
}

bool LineIndex::commit(Extension extension) {
    const std::int64_t from = indexedBytes();
    if (extension.from != from) return false;
    const std::int64_t upTo = std::clamp(extension.upTo, from, byteCount_);
    for (auto& chunk : extension.chunks) {
        if (chunk.startByte >= upTo) continue;
        chunkStartLine_.push_back(chunkStartLine_.back() + chunk.newlines);
        chunks_.push_back(std::move(chunk));
    }
    indexedBytes_.store(upTo, std::memory_order_release);
    return true;
}

bool LineIndex::extend(const ByteSource& source, std::int64_t line, std::int64_t step,
                       const Progress& progress, const IsCancelled& isCancelled) {
    while (true) {
        const std::int64_t known = knownNewlines();
        const std::int64_t indexed = indexedBytes();
        if (known >= line || indexed >= byteCount_) return true;
        const double bytesPerLine =
            known < 1 ? 64.0 : static_cast<double>(indexed) / static_cast<double>(known);
        const double wanted = bytesPerLine * static_cast<double>(line - known) * 1.25;
        const auto room = static_cast<double>(byteCount_ - indexed);
        const std::int64_t jump =
            std::max(wanted >= room ? byteCount_ - indexed : static_cast<std::int64_t>(wanted),
                     std::max<std::int64_t>(step, 1));
        auto extension = plan(source, std::min(indexed + std::min(jump, byteCount_ - indexed), byteCount_),
                              progress, isCancelled);
        if (!extension) return false;
        commit(std::move(*extension));
    }
}

std::size_t LineIndex::chunkIndexForByte(std::int64_t offset) const {
    const auto after =
        std::upper_bound(chunks_.begin(), chunks_.end(), offset,
                         [](std::int64_t value, const Chunk& chunk) { return value < chunk.startByte; });
    return after == chunks_.begin() ? 0 : static_cast<std::size_t>(after - chunks_.begin() - 1);
}

std::int64_t LineIndex::startOffsetOfLine(std::int64_t line, const ByteSource& source) const {
    if (line < 1) return 0;
    const std::int64_t indexed = indexedBytes();
    const std::int64_t known = knownNewlines();
    if (line >= known + 1 || chunks_.empty()) return std::min(indexed, byteCount_);
    // The chunk that holds newline number line - 1: the last whose first line is below `line`.
    const auto begin = chunkStartLine_.begin();
    const auto after = std::upper_bound(begin, begin + static_cast<std::ptrdiff_t>(chunks_.size()), line - 1);
    const auto i = static_cast<std::size_t>(after - begin - 1);
    const Chunk& chunk = chunks_[i];
    const std::int64_t k = line - chunkStartLine_[i] - 1;
    if (k >= chunk.newlines) return indexed;
    const std::int64_t c = k / stride_;
    if (c >= static_cast<std::int64_t>(chunk.checkpoints.size())) return indexed;
    const std::int64_t start = chunk.checkpoints[static_cast<std::size_t>(c)];
    std::int64_t remaining = k - c * stride_;
    if (remaining == 0) return start;
    const std::int64_t chunkEnd = i + 1 < chunks_.size() ? chunks_[i + 1].startByte : indexed;
    // Newline number remaining - 1 after the checkpoint ends the line before ours.
    std::int64_t result = start;
    forEachWindow(source, {start, chunkEnd}, [&](std::span<const std::uint8_t> bytes, std::int64_t at) {
        std::int64_t passed = 0;
        const std::int64_t found = ByteScan::findNewline(
            bytes.data(), static_cast<std::int64_t>(bytes.size()), remaining - 1, passed);
        if (found >= 0) {
            result = at + found + 1;
            return false;
        }
        if (passed > 0) {
            // Remember the last newline seen, in case the scan ends short of the one wanted.
            for (std::int64_t j = static_cast<std::int64_t>(bytes.size()) - 1; j >= 0; --j) {
                if (bytes[static_cast<std::size_t>(j)] == 0x0A) {
                    result = at + j + 1;
                    break;
                }
            }
        }
        remaining -= passed;
        return true;
    });
    return result;
}

std::int64_t LineIndex::newlineCountBefore(std::int64_t offset, const ByteSource& source) const {
    const std::int64_t b = std::clamp<std::int64_t>(offset, 0, indexedBytes());
    if (chunks_.empty()) return 0;
    const std::size_t i = chunkIndexForByte(b);
    const Chunk& chunk = chunks_[i];
    // The known counts on either side of `b`: the chunk's start or a checkpoint before it, and a
    // checkpoint or the chunk's end after it. The scan goes from the nearer one.
    std::int64_t before = chunk.startByte;
    std::int64_t countBefore = 0;
    const auto after = std::upper_bound(chunk.checkpoints.begin(), chunk.checkpoints.end(), b);
    const auto j = static_cast<std::int64_t>(after - chunk.checkpoints.begin()) - 1;
    if (j >= 0) {
        before = chunk.checkpoints[static_cast<std::size_t>(j)];
        countBefore = j * stride_ + 1;
    }
    std::int64_t next = i + 1 < chunks_.size() ? chunks_[i + 1].startByte : indexedBytes();
    std::int64_t countNext = chunk.newlines;
    if (after != chunk.checkpoints.end()) {
        next = *after;
        countNext = (j + 1) * stride_ + 1;
    }
    std::int64_t scanned = 0;
    const bool forward = b - before <= next - b;
    forEachWindow(source, forward ? ByteRange{before, b} : ByteRange{b, next},
                  [&](std::span<const std::uint8_t> bytes, std::int64_t) {
                      scanned += ByteScan::countNewlines(bytes);
                      return true;
                  });
    return chunkStartLine_[i] + (forward ? countBefore + scanned : countNext - scanned);
}

std::int64_t LineIndex::estimatedLineCount() const {
    const std::int64_t known = knownNewlines();
    const std::int64_t indexed = indexedBytes();
    if (indexed >= byteCount_) return known + 1;
    double density = densityHint_;
    if (indexed >= 1 && density <= 0 && known >= 1)
        density = static_cast<double>(indexed) / static_cast<double>(known);
    if (density <= 0) return known + 1;
    return known + static_cast<std::int64_t>(static_cast<double>(byteCount_ - indexed) / density) + 1;
}

}  // namespace brim
