#pragma once

#include "charsets/LineEnding.h"

#include <cstdint>
#include <map>
#include <span>
#include <vector>
#include <string>

namespace brim {

class ByteSource;
class TextEncoding;

/// What kinds of line break a sample holds, and which one a new break should be.
struct LineEndingReport {
    LineEnding dominant = LineEnding::lf;
    std::map<LineEnding, std::int64_t> counts;   ///< only kinds that were found

    LineEndingReport() = default;
    /// From counts of the three everyday kinds; kinds with no count are left out.
    LineEndingReport(LineEnding dominantEnding, std::int64_t lf, std::int64_t crlf, std::int64_t cr);

    /// The count of one kind, 0 when absent.
    [[nodiscard]] std::int64_t count(LineEnding kind) const;
    /// The kinds found, in the table's order.
    [[nodiscard]] std::vector<LineEnding> kinds() const;
    /// The display name when one kind is present (or none); else "Mixed (LF 12, CRLF 3)".
    [[nodiscard]] std::string summary() const;

    friend bool operator==(const LineEndingReport&, const LineEndingReport&) = default;
};

namespace LineEndingDetector {

/// Counts the line breaks in the first `sampleLimit` bytes of `source`, read as `encoding`. CR LF is
/// one break and so is LF CR; NEL, LS and PS count in UTF-8 only where they are whole characters, and
/// byte 0x85 only in a set that reads it as NEL. The dominant kind is the first, in the table's order,
/// with the highest count; `lf` when there is none. Never fails.
[[nodiscard]] LineEndingReport detect(const ByteSource& source, std::int64_t sampleLimit, const TextEncoding& encoding);

/// The same over bytes in memory.
[[nodiscard]] LineEndingReport detect(std::span<const std::uint8_t> bytes, const TextEncoding& encoding);

/// The kinds a document can't keep in its table and turns into LF in a working copy: CR, NEL, LS, PS
/// and LF CR whenever present; VT and FF only when they dominate (otherwise they are page marks).
[[nodiscard]] std::vector<LineEnding> rareKinds(const LineEndingReport& report);

} // namespace LineEndingDetector

} // namespace brim
