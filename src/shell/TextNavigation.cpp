#include "shell/TextNavigation.h"

#include "store/TextDocument.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace brim::shell::TextNavigation {
namespace {

inline constexpr std::int64_t searchBlock = 65'536;

std::size_t utf8SequenceLength(std::span<const std::uint8_t> bytes) {
    const std::uint8_t lead = bytes[0];
    std::size_t length = 1;
    if (lead >= 0xC2 && lead <= 0xDF) length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) length = 3;
    else if (lead >= 0xF0 && lead <= 0xF4) length = 4;
    if (length > bytes.size()) return 1;
    for (std::size_t i = 1; i < length; ++i) {
        if ((bytes[i] & 0xC0) != 0x80) return 1;
    }
    return length;
}

bool isWordByte(std::uint8_t byte) {
    return byte >= 0x80 || byte == '_' || (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
           (byte >= 'A' && byte <= 'Z');
}

std::int64_t byteAt(const TextDocument& document, std::int64_t offset) {
    const auto bytes = document.table().bytes({offset, offset + 1});
    return bytes.empty() ? -1 : bytes[0];
}

} // namespace

std::int64_t nextCharacter(const TextDocument& document, std::int64_t offset) {
    const std::int64_t end = document.byteCount();
    if (offset >= end) return end;
    offset = std::max<std::int64_t>(offset, 0);
    const auto bytes = document.table().bytes({offset, offset + 4});
    if (bytes.size() >= 2 && bytes[0] == '\r' && bytes[1] == '\n') return offset + 2;
    if (bytes[0] < 0x80 && document.encoding.asciiCompatible) return offset + 1;
    if (document.encoding.id == "utf8") return offset + static_cast<std::int64_t>(utf8SequenceLength(bytes));
    for (std::int64_t step = 1; step <= 4 && offset + step <= end; ++step) {
        if (document.characterStartAtOrBefore(offset + step) == offset + step) return offset + step;
    }
    return offset + 1;
}

std::int64_t previousCharacter(const TextDocument& document, std::int64_t offset) {
    const std::int64_t start = document.textStart();
    offset = std::min(offset, document.byteCount());
    if (offset <= start) return start;
    if (offset >= 2) {
        const auto pair = document.table().bytes({offset - 2, offset});
        if (pair.size() == 2 && pair[0] == '\r' && pair[1] == '\n') return std::max(start, offset - 2);
    }
    return std::max(start, document.characterStartAtOrBefore(offset - 1));
}

std::optional<std::int64_t> knownLineNumber(const TextDocument& document, std::int64_t offset) {
    const PieceTable& table = document.table();
    offset = std::clamp<std::int64_t>(offset, 0, table.byteCount());
    if (!table.isPristine() || table.originalIndex().isComplete() || offset < table.originalIndex().indexedBytes()) {
        return table.lineContainingOffset(offset);
    }
    return std::nullopt;
}

std::int64_t lineStartAtOrBefore(const TextDocument& document, std::int64_t offset) {
    const PieceTable& table = document.table();
    offset = std::clamp<std::int64_t>(offset, 0, table.byteCount());
    if (const auto line = knownLineNumber(document, offset)) return table.offsetOfLine(*line);
    // Beyond the index: look back for the break before `offset`, a block at a time.
    std::vector<std::uint8_t> scratch;
    std::int64_t upper = offset;
    const std::int64_t floor = std::max<std::int64_t>(0, offset - lineSearchLimit);
    while (upper > floor) {
        const std::int64_t lower = std::max(floor, upper - searchBlock);
        std::optional<std::int64_t> found;
        table.withBytes({lower, upper}, scratch, [&](std::span<const std::uint8_t> bytes) {
            for (std::size_t i = bytes.size(); i > 0; --i) {
                if (bytes[i - 1] == '\n') {
                    found = lower + static_cast<std::int64_t>(i);
                    return;
                }
            }
        });
        if (found) return *found;
        upper = lower;
    }
    if (floor == 0) return 0;
    return std::max(document.textStart(), document.characterStartAtOrBefore(floor));
}

std::int64_t lineEndFrom(const TextDocument& document, std::int64_t offset) {
    const PieceTable& table = document.table();
    const std::int64_t end = table.byteCount();
    offset = std::clamp<std::int64_t>(offset, 0, end);
    if (const auto line = knownLineNumber(document, offset)) {
        const std::int64_t nextStart = table.offsetOfLine(*line + 1);
        // Past the index, or on the last line, the answer falls to the search below.
        if (nextStart > offset && nextStart <= end && byteAt(document, nextStart - 1) == '\n') return nextStart - 1;
    }
    return table.nextNewline(offset).value_or(end);
}

std::int64_t contentEnd(const TextDocument& document, std::int64_t lineStart, std::int64_t lineEnd) {
    if (lineEnd > lineStart && lineEnd < document.byteCount() && byteAt(document, lineEnd - 1) == '\r') {
        return lineEnd - 1;
    }
    return lineEnd;
}

std::int64_t linesBack(const TextDocument& document, std::int64_t lineStart, std::int64_t count) {
    std::int64_t at = lineStart;
    for (std::int64_t i = 0; i < count && at > 0; ++i) at = lineStartAtOrBefore(document, at - 1);
    return at;
}

std::int64_t nextWordEnd(const TextDocument& document, std::int64_t offset) {
    const std::int64_t end = document.byteCount();
    const auto bytes = document.table().bytes({offset, std::min(end, offset + 4'096)});
    std::size_t i = 0;
    if (i < bytes.size() && bytes[i] == '\n') return offset + 1;
    while (i < bytes.size() && !isWordByte(bytes[i]) && bytes[i] != '\n') ++i;
    while (i < bytes.size() && isWordByte(bytes[i])) ++i;
    const std::int64_t at = offset + static_cast<std::int64_t>(i);
    return at >= end ? end : std::max(offset + 1, document.characterStartAtOrBefore(at));
}

std::int64_t previousWordStart(const TextDocument& document, std::int64_t offset) {
    const std::int64_t from = std::max<std::int64_t>(document.textStart(), offset - 4'096);
    const auto bytes = document.table().bytes({from, offset});
    std::size_t i = bytes.size();
    if (i > 0 && bytes[i - 1] == '\n') return offset - 1;
    while (i > 0 && !isWordByte(bytes[i - 1]) && bytes[i - 1] != '\n') --i;
    while (i > 0 && isWordByte(bytes[i - 1])) --i;
    const std::int64_t at = from + static_cast<std::int64_t>(i);
    return std::max(document.textStart(), document.characterStartAtOrBefore(at));
}

} // namespace brim::shell::TextNavigation
