#include "search/SearchResultsView.h"

#include "bytes/ByteScan.h"
#include "search/SearchWindow.h"

#include <algorithm>
#include <cstring>

namespace brim::SearchResultsView {

namespace {

constexpr std::int64_t scanChunk = 1'048'576;
/// A line up to this long is decoded whole and kept for its other matches.
constexpr std::int64_t wholeLineLimit = 65'536;
constexpr std::string_view ellipsis = "\xE2\x80\xA6";

/// Counts line ends between two offsets, a chunk at a time.
std::int64_t newlinesBetween(const ByteSource& source, std::int64_t from, std::int64_t to) {
    std::int64_t count = 0;
    while (from < to) {
        const std::int64_t upper = std::min(to, from + scanChunk);
        source.withBytes({from, upper}, [&count](std::span<const std::uint8_t> bytes) {
            count += ByteScan::countNewlines(bytes);
        });
        from = upper;
    }
    return count;
}

std::int64_t lineStartOf(const ByteSource& source, std::int64_t offset) {
    std::int64_t upper = offset;
    while (upper > 0) {
        const std::int64_t lower = std::max<std::int64_t>(0, upper - 65'536);
        std::int64_t found = -1;
        source.withBytes({lower, upper}, [&found](std::span<const std::uint8_t> bytes) {
            const void* hit = ::memrchr(bytes.data(), '\n', bytes.size());
            if (hit != nullptr) found = static_cast<const std::uint8_t*>(hit) - bytes.data();
        });
        if (found >= 0) return lower + found + 1;
        upper = lower;
    }
    return 0;
}

/// The end of the line's text: before its 0x0A (and a CR before that), or the end of the source.
std::int64_t lineTextEnd(const ByteSource& source, std::int64_t offset) {
    const std::int64_t count = source.count();
    while (offset < count) {
        const std::int64_t upper = std::min(count, offset + 65'536);
        std::int64_t found = -1;
        source.withBytes({offset, upper}, [&found](std::span<const std::uint8_t> bytes) {
            const void* hit = std::memchr(bytes.data(), '\n', bytes.size());
            if (hit != nullptr) found = static_cast<const std::uint8_t*>(hit) - bytes.data();
        });
        if (found >= 0) {
            const std::int64_t end = offset + found;
            return end > 0 && source.byte(end - 1) == '\r' ? end - 1 : end;
        }
        offset = upper;
    }
    return count;
}

/// UTF-16 units of text given as UTF-8.
std::int64_t unitsOf(std::string_view utf8) {
    return UTF8::utf16Length({reinterpret_cast<const std::uint8_t*>(utf8.data()), utf8.size()});
}

/// The byte offset in UTF-8 `text` after `units` UTF-16 units from `from`, never past the end.
std::size_t advanceUnits(std::string_view text, std::size_t from, std::int64_t units) {
    const auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    std::size_t i = from;
    while (i < bytes.size() && units > 0) {
        const UTF8::Step step = UTF8::step(bytes, i);
        units -= step.valid && step.length == 4 ? 2 : 1;
        i += step.length;
    }
    return i;
}

/// Steps back `units` characters' worth from `from` in UTF-8 text.
std::size_t retreatUnits(std::string_view text, std::size_t from, std::int64_t units) {
    std::size_t i = from;
    while (i > 0 && units > 0) {
        --i;
        while (i > 0 && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80 && from - i < 4) --i;
        --units;
    }
    return i;
}

/// The decoded text of a line, or of the part of it the rows need.
struct LineText {
    std::int64_t line = -1;
    std::int64_t start = 0;        // the line's first byte
    std::int64_t end = 0;          // where its text ends
    std::int64_t textStart = 0;    // the first byte of `text`
    std::string text;              // UTF-8
    bool exact = false;            // `text` is the line's own bytes, offset for offset
    /// For long lines: a running count of UTF-16 units from the line start.
    std::int64_t countedTo = 0;
    std::int64_t countedUnits = 0;
};

std::string decode(SearchText text, ByteRange range, bool* exact = nullptr) {
    std::string out;
    text.bytes().withBytes(range, [&](std::span<const std::uint8_t> bytes) {
        if (!text.isUTF8()) {
            out = text.encoding()->decode(bytes);
        } else if (UTF8::firstInvalid(bytes) == bytes.size()) {
            out.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            if (exact != nullptr) *exact = true;
        } else {
            out = UTF8::repaired(bytes);
        }
    });
    return out;
}

/// Cuts `line` (the UTF-8 text of a line from its start) to a piece around a match that begins
/// `before` bytes in and is `length` bytes long; fills the row's text and match span.
void cutAround(std::string_view line, std::size_t before, std::size_t length, bool cutAtStart, bool cutAtEnd,
               SearchResult& row) {
    const std::size_t pieceStart = retreatUnits(line, before, leadIn);
    std::size_t pieceEnd = advanceUnits(line, pieceStart, longLine);
    if (pieceEnd < before + length) pieceEnd = std::min(line.size(), std::max(pieceEnd, before));
    const bool leading = pieceStart > 0 || cutAtStart;
    const bool trailing = pieceEnd < line.size() || cutAtEnd;
    row.text.clear();
    if (leading) row.text += ellipsis;
    row.text.append(line.substr(pieceStart, pieceEnd - pieceStart));
    if (trailing) row.text += ellipsis;
    const std::int64_t location = (leading ? 1 : 0) + unitsOf(line.substr(pieceStart, before - pieceStart));
    const std::size_t matchEnd = std::min(before + length, pieceEnd);
    row.matchInText = {location, unitsOf(line.substr(before, matchEnd > before ? matchEnd - before : 0))};
}

} // namespace

std::vector<SearchResult> build(SearchText text, std::span<const ByteRange> ranges, std::int64_t limit,
                                const LineIndex* lines) {
    std::vector<SearchResult> rows;
    const ByteSource& source = text.bytes();
    const std::int64_t count = source.count();
    const auto wanted = static_cast<std::size_t>(std::clamp<std::int64_t>(limit, 0, static_cast<std::int64_t>(ranges.size())));
    rows.reserve(wanted);
    // The line cursor: `cursorLine` lines end before `cursorOffset`.
    std::int64_t cursorOffset = 0;
    std::int64_t cursorLine = 0;
    LineText current;

    for (std::size_t i = 0; i < wanted; ++i) {
        const ByteRange range = ranges[i].clampedTo(count);
        SearchResult row;
        row.range = range;
        if (range.lower < cursorOffset) {  // out of order: count afresh
            cursorOffset = 0;
            cursorLine = 0;
        }
        if (lines != nullptr && range.lower <= lines->indexedBytes() && range.lower - cursorOffset > scanChunk) {
            cursorLine = lines->newlineCountBefore(range.lower, source);
        } else {
            cursorLine += newlinesBetween(source, cursorOffset, range.lower);
        }
        cursorOffset = range.lower;
        row.line = cursorLine;

        if (current.line != row.line) {
            current = LineText{};
            current.line = row.line;
            current.start = lineStartOf(source, range.lower);
            current.end = std::max(lineTextEnd(source, range.lower), range.lower);
            current.countedTo = current.start;
            if (current.end - current.start <= wholeLineLimit) {
                current.textStart = current.start;
                current.text = decode(text, {current.start, current.end}, &current.exact);
            }
        }
        const std::int64_t matchEnd = std::min(range.upper, current.end);
        if (current.end - current.start <= wholeLineLimit) {
            // Positions in the decoded line: the same bytes for UTF-8, decoded prefixes otherwise.
            const auto prefixBytes = [&](std::int64_t offset) -> std::size_t {
                if (current.exact) return static_cast<std::size_t>(offset - current.start);
                if (text.isUTF8()) return UTF8::repaired(source.data({current.start, offset})).size();
                return decode(text, {current.start, offset}).size();
            };
            const std::size_t before = prefixBytes(range.lower);
            const std::size_t length = prefixBytes(std::max(matchEnd, range.lower)) - before;
            row.column = unitsOf(std::string_view(current.text).substr(0, before));
            if (unitsOf(current.text) <= longLine) {
                row.text = current.text;
                row.matchInText = {row.column, unitsOf(std::string_view(current.text).substr(before, length))};
            } else {
                cutAround(current.text, before, length, false, false, row);
            }
        } else {
            // A very long line: count columns along it, and decode only the piece around the match.
            if (range.lower < current.countedTo) {
                current.countedTo = current.start;
                current.countedUnits = 0;
            }
            current.countedUnits += unitsOf(decode(text, {current.countedTo, range.lower}));
            current.countedTo = range.lower;
            row.column = current.countedUnits;
            const std::int64_t pieceStart = std::max(current.start, range.lower - leadIn * 4);
            const std::int64_t pieceEnd = std::min(current.end, std::max(matchEnd, range.lower) + longLine * 4);
            const std::string before = decode(text, {pieceStart, range.lower});
            const std::string piece = before + decode(text, {range.lower, pieceEnd});
            const std::size_t matchBytes = decode(text, {range.lower, std::max(matchEnd, range.lower)}).size();
            cutAround(piece, before.size(), matchBytes, pieceStart > current.start, pieceEnd < current.end, row);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

} // namespace brim::SearchResultsView
