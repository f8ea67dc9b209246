#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace brim {

/// A range of byte offsets, half open: [lower, upper).
struct ByteRange {
    std::int64_t lower = 0;
    std::int64_t upper = 0;

    [[nodiscard]] std::int64_t length() const { return upper > lower ? upper - lower : 0; }
    [[nodiscard]] bool empty() const { return upper <= lower; }
    friend bool operator==(const ByteRange&, const ByteRange&) = default;

    /// The part of the range inside [0, limit); an empty range at the nearer end when none is.
    [[nodiscard]] ByteRange clampedTo(std::int64_t limit) const {
        const std::int64_t low = lower < 0 ? 0 : (lower > limit ? limit : lower);
        const std::int64_t high = upper < low ? low : (upper > limit ? limit : upper);
        return {low, high};
    }
};

/// A read-only store of bytes: a mapped file, an array in memory, or an append-only buffer.
/// Implementations are read from several threads at once.
class ByteSource {
public:
    virtual ~ByteSource() = default;

    /// Total bytes the source was opened with; fixed for the source's life.
    [[nodiscard]] virtual std::int64_t count() const = 0;

    /// Bytes that can still be read: less than `count()` after the file under a map has shrunk.
    [[nodiscard]] virtual std::int64_t readableCount() const { return count(); }

    /// True if bulk scans should `read` into a private buffer instead of touching memory directly.
    [[nodiscard]] virtual bool prefersBufferedReads() const { return false; }

    /// Copies `range` (clamped to `count()`) into `destination`, which holds at least its length.
    /// Never faults: what can no longer be read arrives as zero bytes.
    virtual void read(ByteRange range, std::uint8_t* destination) const = 0;

    /// Calls `body` with the bytes of `range` (clamped to `count()`), valid for the call only.
    /// Never faults: bytes past `readableCount()` are seen as zeros.
    virtual void withBytes(ByteRange range,
                           const std::function<void(std::span<const std::uint8_t>)>& body) const = 0;

    /// The bytes of `range`, clamped to `readableCount()`.
    [[nodiscard]] virtual std::vector<std::uint8_t> data(ByteRange range) const;

    /// The byte at `offset`; 0 outside the readable bytes.
    [[nodiscard]] virtual std::uint8_t byte(std::int64_t offset) const;
};

}  // namespace brim
