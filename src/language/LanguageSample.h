#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace brim::LanguageSample {

/// The most of a file's head that detection ever reads.
inline constexpr std::int64_t sampleBytes = 65'536;

/// The bytes decoded as UTF-8, each bad or cut sequence repaired to U+FFFD. An incomplete
/// sequence at the very end is taken as cut by the sample's limit and dropped. Never fails.
[[nodiscard]] std::string decodeRepairingUTF8(std::span<const std::uint8_t> bytes);

/// The decoded head of a file, as detection reads it: at most `sampleBytes` bytes, looked
/// through gzip when the file is compressed. Reads a bounded prefix whatever the file's size.
/// Nothing when the file cannot be opened or read.
[[nodiscard]] std::optional<std::string> read(const std::string& path);

} // namespace brim::LanguageSample
