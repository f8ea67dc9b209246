#pragma once

#include "bytes/ByteSource.h"

#include <filesystem>

namespace brim {

/// Bytes held in memory. Reading never touches a file; `count` is the array's size.
class MemorySource final : public ByteSource {
public:
    MemorySource() = default;
    explicit MemorySource(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

    /// Reads a whole file into one array of its size, in one allocation. An empty file gives an
    /// empty array at once. Throws `BrimError` "open failed: <reason>", "fstat failed" or "read
    /// failed" (nothing at all could be read from a file that says it has bytes).
    [[nodiscard]] static std::vector<std::uint8_t> bytesOfFile(const std::filesystem::path& path);

    /// The bytes. Changing them while another thread reads the source is the caller's fault.
    [[nodiscard]] const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    [[nodiscard]] std::vector<std::uint8_t>& bytes() { return bytes_; }

    [[nodiscard]] std::int64_t count() const override { return static_cast<std::int64_t>(bytes_.size()); }
    void read(ByteRange range, std::uint8_t* destination) const override;
    void withBytes(ByteRange range,
                   const std::function<void(std::span<const std::uint8_t>)>& body) const override;

private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace brim
