#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brim::LossyUTF8 {

/// One step of a walk over bytes that should be UTF-8: the length of the sequence at a position and
/// whether it is well formed. An ill-formed stretch is the maximal subpart of a sequence (the bytes
/// that could still have begun a valid one), or one byte, so each stretch becomes one U+FFFD.
struct Step {
    std::uint8_t length = 1;
    bool valid = true;
};

/// The sequence at `offset` of `bytes`; `offset` must lie inside them.
[[nodiscard]] Step step(std::span<const std::uint8_t> bytes, std::size_t offset);

/// The bytes as UTF-8 text with each ill-formed stretch replaced by one U+FFFD. Never fails.
[[nodiscard]] std::string repaired(std::span<const std::uint8_t> bytes);

/// Whether the bytes are entirely well-formed UTF-8.
[[nodiscard]] bool isValid(std::span<const std::uint8_t> bytes);

/// Remembers the raw bytes of a line whose repaired text no longer says what is on disk. The store
/// keeps the newest 513 texts.
void remember(const std::string& text, std::span<const std::uint8_t> raw);

/// The raw bytes remembered for a repaired text; absent when there are none. Cheap when the store is
/// empty, which is the usual case.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> raw(const std::string& text);

/// Decodes a line with repair and remembers its raw bytes when the text would not encode back to them.
[[nodiscard]] std::string decodeRemembering(std::span<const std::uint8_t> bytes);

/// Forgets everything remembered (tests, and a document that closes its last window).
void forgetAll();

/// The UTF-16 index in the repaired text of byte offset `offset` of `bytes`. An offset inside a
/// sequence or an ill-formed stretch lands after it; an offset past the end gives the text's length.
[[nodiscard]] std::int64_t utf16Index(std::int64_t offset, std::span<const std::uint8_t> bytes);

/// The number of bytes behind the first `utf16Count` UTF-16 units of the repaired text; a count inside
/// a surrogate pair takes the whole character; a count past the end gives all the bytes.
[[nodiscard]] std::int64_t byteLength(std::int64_t utf16Count, std::span<const std::uint8_t> bytes);

/// The byte offset at which each UTF-16 unit of the repaired text begins, plus one entry for the end:
/// both halves of a surrogate pair name the start of their character.
[[nodiscard]] std::vector<std::int64_t> byteOffsets(std::span<const std::uint8_t> bytes);

} // namespace brim::LossyUTF8
