#pragma once

#include "bytes/ByteSource.h"
#include "common/SerialQueue.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace brim {

/// Lines per checkpoint in normal use.
inline constexpr std::int64_t defaultIndexStride = 4'096;

/// Where lines start in a read-only `ByteSource` of any size, and which line a byte is in.
///
/// Lines are counted by 0x0A alone and numbered from 0; a source with n newlines has n + 1
/// lines. The index keeps one offset per `stride` newlines, so a billion lines cost about two
/// megabytes, and it answers for the part of the source it has seen: it may be partial
/// (`indexedBytes() < byteCount()`) and grows by `plan` on any thread and `commit` on the
/// owning one. Queries and `commit` belong to one thread; `plan` may run beside them.
class LineIndex {
public:
    /// One scanned slice of the source.
    struct Chunk {
        std::int64_t startByte = 0;
        std::int64_t newlines = 0;
        /// `checkpoints[j]` is the offset of the byte after the chunk's newline number
        /// `j * stride` (from 0).
        std::vector<std::int64_t> checkpoints;
        friend bool operator==(const Chunk&, const Chunk&) = default;
    };

    /// Counts newlines through consecutive blocks and notes every `stride`-th.
    struct ChunkScanner {
        std::int64_t stride = defaultIndexStride;
        std::int64_t newlines = 0;
        std::vector<std::int64_t> checkpoints;
        /// The newline count at which the next checkpoint falls.
        std::int64_t nextBoundary = 0;
        /// The source offset of the next byte to be scanned.
        std::int64_t offset = 0;

        ChunkScanner() = default;
        explicit ChunkScanner(std::int64_t strideValue, std::int64_t startOffset = 0)
            : stride(strideValue < 1 ? 1 : strideValue), offset(startOffset) {}

        /// Scans the next `count` bytes of the source.
        void scan(const std::uint8_t* bytes, std::int64_t count);
        void scan(std::span<const std::uint8_t> bytes) {
            scan(bytes.data(), static_cast<std::int64_t>(bytes.size()));
        }
    };

    /// What `plan` found, not yet part of the index.
    struct Extension {
        std::vector<Chunk> chunks;
        std::int64_t upTo = 0;
        std::int64_t from = 0;
    };

    /// Builds an index from blocks as they are written, so a saved file needs no second pass.
    /// Stretches of a source whose index is already known are taken from that index, reading only
    /// the bytes about their ends.
    class Builder {
    public:
        explicit Builder(std::int64_t strideValue = defaultIndexStride)
            : stride(strideValue < 1 ? 1 : strideValue), scanner(stride) {}

        /// Scans the next block.
        void scan(std::span<const std::uint8_t> bytes) {
            scanner.scan(bytes);
            total += static_cast<std::int64_t>(bytes.size());
        }

        /// Appends the bytes of `range` of `source`, whose lines `index` knows (it covers the range
        /// and has this builder's stride). What the index does not cover is scanned.
        void appendIndexed(const LineIndex& index, const ByteSource& source, ByteRange range);

        /// The complete index of everything appended.
        [[nodiscard]] LineIndex finish() const;

        std::int64_t stride;
        ChunkScanner scanner;
        std::int64_t total = 0;

    private:
        void scanSource(const ByteSource& source, ByteRange range);
        /// Ends the chunk being scanned and starts a new one at `total`.
        void closeChunk();

        std::vector<Chunk> chunks_;
        std::int64_t chunkStart_ = 0;
    };

    /// A deferred index over a source of `byteCount` bytes: nothing scanned yet.
    explicit LineIndex(std::int64_t byteCount = 0, std::int64_t stride = defaultIndexStride);
    LineIndex(const LineIndex& other);
    LineIndex& operator=(const LineIndex& other);
    LineIndex(LineIndex&& other) noexcept;
    LineIndex& operator=(LineIndex&& other) noexcept;
    ~LineIndex() = default;

    /// Scans the whole source, in parallel slices. Nothing if cancelled.
    [[nodiscard]] static std::optional<LineIndex> build(const ByteSource& source,
                                                        std::int64_t stride = defaultIndexStride,
                                                        const Progress& progress = {},
                                                        const IsCancelled& isCancelled = {});

    /// Scans from `indexedBytes()` through `throughByte` (clamped to the source) in parallel
    /// slices and returns what it found, or nothing if cancelled. Reads only `indexedBytes()`
    /// and `byteCount()` of the index, so it may run on any thread while the owner queries.
    /// `progress` and `isCancelled` are called from the slices' threads, possibly at once.
    /// A source that prefers buffered reads is read into one private block per slice.
    [[nodiscard]] std::optional<Extension> plan(const ByteSource& source, std::int64_t throughByte,
                                                const Progress& progress = {},
                                                const IsCancelled& isCancelled = {}) const;

    /// Adds what a plan found. Ignored unless the plan started where the index now ends, so a
    /// stale or duplicate plan changes nothing. Returns whether it was taken.
    bool commit(Extension extension);

    /// Plans and commits in growing steps of at least `step` bytes until line `line` starts
    /// within the indexed part or the source is done. False if cancelled.
    bool extend(const ByteSource& source, std::int64_t line, std::int64_t step = 1'048'576,
                const Progress& progress = {}, const IsCancelled& isCancelled = {});

    /// The offset where line `line` starts; for a line not reached yet, where indexing stopped.
    /// Scans at most `stride - 1` newlines.
    [[nodiscard]] std::int64_t startOffsetOfLine(std::int64_t line, const ByteSource& source) const;

    /// Newlines before byte `offset`, which is clamped to the indexed part.
    [[nodiscard]] std::int64_t newlineCountBefore(std::int64_t offset, const ByteSource& source) const;

    /// Exact once complete (known newlines + 1); before that an estimate from the density of
    /// what was scanned, or from `densityHint()` when set.
    [[nodiscard]] std::int64_t estimatedLineCount() const;

    /// Newlines found so far.
    [[nodiscard]] std::int64_t knownNewlines() const { return chunkStartLine_.back(); }
    [[nodiscard]] bool isComplete() const { return indexedBytes() >= byteCount_; }

    [[nodiscard]] std::int64_t stride() const { return stride_; }
    [[nodiscard]] std::int64_t byteCount() const { return byteCount_; }
    [[nodiscard]] std::int64_t indexedBytes() const { return indexedBytes_.load(std::memory_order_acquire); }
    [[nodiscard]] const std::vector<Chunk>& chunks() const { return chunks_; }
    [[nodiscard]] const std::vector<std::int64_t>& chunkStartLine() const { return chunkStartLine_; }

    /// Average bytes per line from a sample; 0 when none. Only guides `estimatedLineCount`.
    [[nodiscard]] double densityHint() const { return densityHint_; }
    void setDensityHint(double bytesPerLine) { densityHint_ = bytesPerLine > 0 ? bytesPerLine : 0; }

private:
    [[nodiscard]] std::size_t chunkIndexForByte(std::int64_t offset) const;

    std::int64_t stride_ = defaultIndexStride;
    std::vector<Chunk> chunks_;
    std::vector<std::int64_t> chunkStartLine_{0};
    std::atomic<std::int64_t> indexedBytes_{0};  // written by commit, read by plan on any thread
    std::int64_t byteCount_ = 0;
    double densityHint_ = 0;
};

}  // namespace brim
