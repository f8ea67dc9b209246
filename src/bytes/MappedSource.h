#pragma once

#include "bytes/ByteSource.h"

#include <filesystem>
#include <mutex>
#include <optional>

namespace brim {

/// A file mapped read-only into memory, for files too large to read at once.
///
/// A file may shrink under its map (a log cut by rotation, a rewrite in place); touching a page
/// past the new end would kill the process. So reads clamp to `readableCount()` and see zeros
/// where the bytes went, `read` goes through `pread` rather than the map, and a touch of a page
/// that has gone before anyone noticed gets a page of zeros instead of the fatal signal.
class MappedSource final : public ByteSource {
public:
    /// Opens and maps the whole file. Throws `BrimError`: "open failed: <reason>", "fstat failed",
    /// "empty file cannot be mapped", "mmap failed: <reason>".
    explicit MappedSource(const std::filesystem::path& path);
    ~MappedSource() override;
    MappedSource(const MappedSource&) = delete;
    MappedSource& operator=(const MappedSource&) = delete;

    [[nodiscard]] std::int64_t count() const override { return count_; }
    [[nodiscard]] std::int64_t readableCount() const override;
    [[nodiscard]] bool prefersBufferedReads() const override { return true; }

    /// Reads through the descriptor, never the map: what the file no longer has arrives as zeros.
    void read(ByteRange range, std::uint8_t* destination) const override;

    /// A pointer straight into the map when the whole range is readable; otherwise a zero-filled
    /// copy of the range with the readable head read in.
    void withBytes(ByteRange range,
                   const std::function<void(std::span<const std::uint8_t>)>& body) const override;

    /// Looks at the file's size again: if it is now shorter than `count()`, the readable size
    /// drops to it (never below 0). Returns the readable size; a failing `fstat` changes nothing.
    /// The map itself is never replaced.
    std::int64_t refreshReadableSize();

    /// Asks the system to bring the range's pages in ahead of use. A hint only.
    void prefetch(ByteRange range) const;

    /// Switches the read-ahead advice of the whole file, for the map and for `read`: sequential
    /// for a pass from front to back, random jumps (the default) otherwise.
    void adviseSequential(bool sequential) const;

    /// How many touches of pages that had gone were answered with zeros, process-wide.
    [[nodiscard]] static std::int64_t absorbedFaultCount();

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] const std::uint8_t* base() const { return base_; }

private:
    const std::uint8_t* base_ = nullptr;
    std::int64_t count_ = 0;
    std::filesystem::path path_;
    int fd_ = -1;
    mutable std::mutex lock_;
    std::optional<std::int64_t> truncatedTo_;  // guarded by lock_
};

}  // namespace brim
