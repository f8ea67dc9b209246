#include "store/IndentationDetector.h"

#include "bytes/ByteSource.h"
#include "common/ByteFormatter.h"
#include "common/Localization.h"

#include <algorithm>
#include <cstdlib>

namespace brim {

std::string IndentationReport::summary() const {
    const std::string looked = ByteFormatter::decimal(sampledLines);
    if (indentedLines() == 0) return L("No indented lines in the first ") + looked;
    return ByteFormatter::decimal(indentedLines()) + L(" indented lines, from the first ") + looked;
}

namespace IndentationDetector {

std::optional<int> widthFromVotes(const std::array<std::int64_t, 9>& votes) {
    const std::int64_t a = votes[2] + votes[6];
    const std::int64_t b = votes[4];
    const std::int64_t c = votes[8];
    if (a + b + c == 0) return std::nullopt;
    if (b < a && a >= c) return 2;
    if (b >= a && b >= c) {
        if (a == 0) return 4;
        return b >= 2 * a ? 4 : 2;
    }
    // Eight-column steps lead.
    if (b == 0) return 8;
    return c >= 2 * b ? 8 : 4;
}

IndentationReport detect(std::span<const std::uint8_t> bytes, std::int64_t lineLimit) {
    IndentationReport report;
    std::size_t at = 0;
    if (bytes.size() >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) at = 3;

    std::int64_t previousSpaces = 0;
    bool previousHadTabs = false;
    while (at < bytes.size() && report.sampledLines < lineLimit) {
        // One line: its leading whitespace, then whether anything else is on it.
        std::int64_t tabs = 0;
        std::int64_t spaces = 0;
        std::size_t i = at;
        while (i < bytes.size() && (bytes[i] == ' ' || bytes[i] == '\t')) {
            if (bytes[i] == '\t') ++tabs; else ++spaces;
            ++i;
        }
        const bool blank = i >= bytes.size() || bytes[i] == '\n' || bytes[i] == '\r';
        while (i < bytes.size() && bytes[i] != '\n' && bytes[i] != '\r') ++i;
        if (i < bytes.size()) {
            if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
            ++i;
        }
        at = i;
        ++report.sampledLines;
        if (blank) continue;

        if (tabs > 0) {
            ++report.tabLines;
            previousHadTabs = true;
            continue;
        }
        if (spaces > 0) ++report.spaceLines;
        if (!previousHadTabs) {
            const std::int64_t delta = std::llabs(spaces - previousSpaces);
            if (delta >= 1 && delta <= 8) ++report.deltaVotes[static_cast<std::size_t>(delta)];
        }
        previousSpaces = spaces;
        previousHadTabs = false;
    }

    if (report.indentedLines() > 0) report.useSpaces = report.spaceLines >= report.tabLines;
    report.width = widthFromVotes(report.deltaVotes);
    return report;
}

IndentationReport detect(const ByteSource& source, std::int64_t lineLimit, std::int64_t byteLimit) {
    const std::int64_t length = std::clamp<std::int64_t>(byteLimit, 0, source.readableCount());
    IndentationReport report;
    source.withBytes({0, length}, [&](std::span<const std::uint8_t> bytes) { report = detect(bytes, lineLimit); });
    return report;
}

} // namespace IndentationDetector

} // namespace brim
