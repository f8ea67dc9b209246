#pragma once

#include <cstdint>
#include <span>

namespace brim::ByteScan {

/// The number of 0x0A bytes in `count` bytes from `bytes`. Counts whole blocks with a vector
/// compare and a sum, so the cost per byte is the same for short and long lines.
[[nodiscard]] std::int64_t countNewlines(const std::uint8_t* bytes, std::int64_t count);

[[nodiscard]] inline std::int64_t countNewlines(std::span<const std::uint8_t> bytes) {
    return countNewlines(bytes.data(), static_cast<std::int64_t>(bytes.size()));
}

/// Where newline number `n` (from 0) lies in `count` bytes from `bytes`, or -1 when there are
/// fewer than `n + 1`. `passed` receives how many newlines lie before the answer: `n` when one
/// was found, else every newline of the bytes. Blocks without the answer are only counted.
[[nodiscard]] std::int64_t findNewline(const std::uint8_t* bytes, std::int64_t count, std::int64_t n,
                                       std::int64_t& passed);

/// The first 0x0A at or after the start, or -1.
[[nodiscard]] std::int64_t firstNewline(const std::uint8_t* bytes, std::int64_t count);

}  // namespace brim::ByteScan
