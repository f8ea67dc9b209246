#include "store/LineEndingDetector.h"

#include "bytes/ByteSource.h"
#include "charsets/TextEncoding.h"
#include "common/Localization.h"

#include <algorithm>
#include <array>

namespace brim {

LineEndingReport::LineEndingReport(LineEnding dominantEnding, std::int64_t lf, std::int64_t crlf, std::int64_t cr)
    : dominant(dominantEnding) {
    if (lf > 0) counts[LineEnding::lf] = lf;
    if (crlf > 0) counts[LineEnding::crlf] = crlf;
    if (cr > 0) counts[LineEnding::cr] = cr;
}

std::int64_t LineEndingReport::count(LineEnding kind) const {
    const auto found = counts.find(kind);
    return found == counts.end() ? 0 : found->second;
}

std::vector<LineEnding> LineEndingReport::kinds() const {
    std::vector<LineEnding> result;
    for (const auto kind : allLineEndings) {
        if (count(kind) > 0) result.push_back(kind);
    }
    return result;
}

std::string LineEndingReport::summary() const {
    const auto found = kinds();
    if (found.size() <= 1) return L(displayName(found.empty() ? dominant : found.front()));
    std::string text = L("Mixed (");
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (i > 0) text += ", ";
        text += std::string(shortName(found[i])) + " " + std::to_string(count(found[i]));
    }
    return text + ")";
}

namespace LineEndingDetector {

namespace {

using Counts = std::array<std::int64_t, 9>;

void note(Counts& counts, LineEnding kind) { ++counts[static_cast<std::size_t>(kind)]; }

/// The ASCII control breaks at `i`; returns the bytes consumed, 0 when there is no break there.
std::size_t controlBreak(std::span<const std::uint8_t> bytes, std::size_t i, Counts& counts) {
    const std::uint8_t b = bytes[i];
    const bool hasNext = i + 1 < bytes.size();
    switch (b) {
    case 0x0D:
        if (hasNext && bytes[i + 1] == 0x0A) {
            note(counts, LineEnding::crlf);
            return 2;
        }
        note(counts, LineEnding::cr);
        return 1;
    case 0x0A:
        if (hasNext && bytes[i + 1] == 0x0D) {
            // A CR that begins a CR LF belongs to that pair, not to this LF.
            if (!(i + 2 < bytes.size() && bytes[i + 2] == 0x0A)) {
                note(counts, LineEnding::lfcr);
                return 2;
            }
        }
        note(counts, LineEnding::lf);
        return 1;
    case 0x0B: note(counts, LineEnding::vt); return 1;
    case 0x0C: note(counts, LineEnding::ff); return 1;
    default: return 0;
    }
}

/// UTF-8: walk whole characters, so that the bytes of NEL, LS and PS inside some other sequence (or
/// a stray continuation byte) never count.
void scanUTF8(std::span<const std::uint8_t> bytes, Counts& counts) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        const std::uint8_t b = bytes[i];
        // Only bytes below 14 and lead bytes C2 and E2 can start a break.
        if (b < 0x0E) {
            const std::size_t used = controlBreak(bytes, i, counts);
            i += used > 0 ? used : 1;
        } else if (b < 0x80) {
            ++i;
        } else if (b == 0xC2 && i + 1 < bytes.size() && bytes[i + 1] == 0x85) {
            note(counts, LineEnding::nel);
            i += 2;
        } else if (b == 0xE2 && i + 2 < bytes.size() && bytes[i + 1] == 0x80 &&
                   (bytes[i + 2] == 0xA8 || bytes[i + 2] == 0xA9)) {
            note(counts, bytes[i + 2] == 0xA8 ? LineEnding::ls : LineEnding::ps);
            i += 3;
        } else {
            std::size_t length = 1;
            if (b >= 0xC2 && b <= 0xDF) length = 2;
            else if (b >= 0xE0 && b <= 0xEF) length = 3;
            else if (b >= 0xF0 && b <= 0xF4) length = 4;
            std::size_t k = 1;
            while (k < length && i + k < bytes.size() && (bytes[i + k] & 0xC0) == 0x80) ++k;
            i += k;
        }
    }
}

/// An ASCII-compatible set other than UTF-8: its line breaks are the ASCII controls, and byte 0x85
/// where the set reads it as NEL. Multi-byte sets never use bytes below 0x40 inside a character.
void scanASCIICompatible(std::span<const std::uint8_t> bytes, bool nelByte, Counts& counts) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        const std::uint8_t b = bytes[i];
        if (b < 0x0E) {
            const std::size_t used = controlBreak(bytes, i, counts);
            i += used > 0 ? used : 1;
        } else {
            if (b == 0x85 && nelByte) note(counts, LineEnding::nel);
            ++i;
        }
    }
}

LineEndingReport reportOf(const Counts& counts) {
    LineEndingReport report;
    std::int64_t best = 0;
    for (const auto kind : allLineEndings) {
        const std::int64_t n = counts[static_cast<std::size_t>(kind)];
        if (n > 0) report.counts[kind] = n;
        if (n > best) {
            best = n;
            report.dominant = kind;
        }
    }
    return report;
}

} // namespace

LineEndingReport detect(std::span<const std::uint8_t> bytes, const TextEncoding& encoding) {
    Counts counts{};
    if (encoding.id == "utf8" || encoding.id == "ascii") {
        scanUTF8(bytes, counts);
    } else if (encoding.asciiCompatible && !encoding.stateful) {
        scanASCIICompatible(bytes, encoding.readsNELAsOneByte(), counts);
    } else {
        // UTF-16, UTF-32, EBCDIC and the stateful sets: their breaks are characters, so read them.
        const std::string text = encoding.decode(bytes);
        scanUTF8({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, counts);
    }
    return reportOf(counts);
}

LineEndingReport detect(const ByteSource& source, std::int64_t sampleLimit, const TextEncoding& encoding) {
    const std::int64_t length = std::clamp<std::int64_t>(sampleLimit, 0, source.readableCount());
    LineEndingReport report;
    source.withBytes({0, length}, [&](std::span<const std::uint8_t> bytes) { report = detect(bytes, encoding); });
    return report;
}

std::vector<LineEnding> rareKinds(const LineEndingReport& report) {
    std::vector<LineEnding> kinds;
    for (const auto kind : {LineEnding::nel, LineEnding::ls, LineEnding::ps, LineEnding::vt, LineEnding::ff,
                            LineEnding::lfcr, LineEnding::cr}) {
        if (report.count(kind) < 1) continue;
        // A form feed in an LF file is a page mark, not a line break; only a file made of them is read so.
        if ((kind == LineEnding::vt || kind == LineEnding::ff) && report.dominant != kind) continue;
        kinds.push_back(kind);
    }
    return kinds;
}

} // namespace LineEndingDetector

} // namespace brim
