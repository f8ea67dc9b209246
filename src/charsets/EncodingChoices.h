#pragma once

#include "bytes/ByteSource.h"
#include "charsets/TextEncoding.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The readings of a file side by side, for the user to compare and choose from. The bytes are never
/// changed: choosing a reading re-reads the file.
namespace brim::EncodingChoices {

/// One reading of the file's most telling stretch.
struct Candidate {
    TextEncoding encoding;
    double score = 0;           ///< the scorer's verdict over the first 8,192 bytes; 0 where it has none
    std::string sample;         ///< the stretch as this set reads it, on one line
    bool isCurrent = false;     ///< the set the document is read in now
    bool isDetected = false;    ///< the set detection chose
};

/// The window of the bytes with the most bytes at or above 0x80: all of them up to `length`, otherwise
/// the first window of `length` (slid in steps of a quarter) with the most such bytes, or the first
/// window when there are none.
[[nodiscard]] ByteRange interestingRange(std::span<const std::uint8_t> bytes, std::size_t length = 240);

/// Whether `encoding` reads `window` without losing a byte: what it decodes to encodes back to the same
/// bytes, or it has a table that disagrees only at bytes it leaves unassigned, at most 5% of them.
[[nodiscard]] bool canRead(std::span<const std::uint8_t> window, const TextEncoding& encoding);

/// The text on one line: line breaks become U+2424, other controls their Control Pictures sign.
[[nodiscard]] std::string oneLine(std::string_view text);

/// The readings of `bytes` among `encodings`: those that read the telling stretch (the current and the
/// detected set always), sorted current first, then detected, then by score, then by name.
[[nodiscard]] std::vector<Candidate> candidates(std::span<const std::uint8_t> bytes, const TextEncoding& current,
                                                const TextEncoding& detected, std::span<const TextEncoding> encodings);

} // namespace brim::EncodingChoices
