#pragma once

#include "bytes/ByteSource.h"

namespace brim {

/// Bytes that are only ever appended: what a document's edits inserted. No byte ever changes
/// once written, so offsets into the buffer stay valid for the buffer's life. Appending while
/// another thread reads is the caller's fault: background work gets a snapshot instead.
class AppendBuffer final : public ByteSource {
public:
    /// Room reserved at the start, so the first edits never reallocate.
    static constexpr std::size_t initialCapacity = 65'536;

    AppendBuffer() { bytes_.reserve(initialCapacity); }

    /// Appends the bytes and returns the offset where they start.
    std::int64_t append(std::span<const std::uint8_t> bytes);

    [[nodiscard]] const std::vector<std::uint8_t>& bytes() const { return bytes_; }

    [[nodiscard]] std::int64_t count() const override { return static_cast<std::int64_t>(bytes_.size()); }
    void read(ByteRange range, std::uint8_t* destination) const override;
    void withBytes(ByteRange range,
                   const std::function<void(std::span<const std::uint8_t>)>& body) const override;

private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace brim
