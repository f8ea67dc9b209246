#pragma once

#include "charsets/TextEncoding.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace brim::SystemConverter {

/// How a system converter treats bytes it cannot read.
enum class Reading : std::uint8_t {
    strict,     ///< the first ill-formed or unassigned byte refuses the whole input
    repairing,  ///< each such stretch becomes one U+FFFD
};

/// Decodes with a system converter: an ICU converter by its canonical name, or "iconv:" and a glibc
/// name. Each thread keeps its own converters. Strict reading gives absent on bad input; repairing
/// reading always answers. A name that no converter answers to reads every byte as U+FFFD (strictly:
/// absent).
[[nodiscard]] std::optional<std::u16string> decode(const std::string& name, std::span<const std::uint8_t> bytes,
                                                   Reading reading);

/// Encodes UTF-16 text; what the set cannot hold becomes "?" in the set's own spelling and is counted.
[[nodiscard]] EncodedText encode(const std::string& name, std::u16string_view text);

/// Whether the converter reads one byte as one scalar and keeps no state.
[[nodiscard]] bool isSingleByte(const std::string& name);

/// Whether a converter of this name can be opened at all.
[[nodiscard]] bool exists(const std::string& name);

} // namespace brim::SystemConverter
