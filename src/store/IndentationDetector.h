#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace brim {

class ByteSource;

/// What indentation detection found in the head of a text.
struct IndentationReport {
    std::optional<bool> useSpaces;       ///< absent when no line is indented
    std::optional<int> width;            ///< absent when the votes say nothing
    std::int64_t sampledLines = 0;       ///< lines looked at, blank ones included
    std::int64_t tabLines = 0;           ///< indented lines that start with a tab somewhere in their indent
    std::int64_t spaceLines = 0;         ///< indented lines with spaces only
    std::array<std::int64_t, 9> deltaVotes{};   ///< votes by change of indentation in columns, 1 to 8

    /// The indented lines, tabs and spaces together.
    [[nodiscard]] std::int64_t indentedLines() const { return tabLines + spaceLines; }

    /// The status bar's tooltip: "12 indented lines, from the first 40" or "No indented lines in the first 40".
    [[nodiscard]] std::string summary() const;

    friend bool operator==(const IndentationReport&, const IndentationReport&) = default;
};

/// Works out whether a text is indented with tabs or spaces, and by how many columns. Never fails.
namespace IndentationDetector {

/// Reads at most `lineLimit` lines of `bytes`, which end at LF, CR or CRLF; a UTF-8 byte order mark
/// is skipped. Odd changes of indentation have no say, so a comment's " * " leaves the width alone.
[[nodiscard]] IndentationReport detect(std::span<const std::uint8_t> bytes, std::int64_t lineLimit);

/// The same over the first `byteLimit` bytes of `source`.
[[nodiscard]] IndentationReport detect(const ByteSource& source, std::int64_t lineLimit, std::int64_t byteLimit);

/// The width the votes give: 2, 4, 8 or none.
[[nodiscard]] std::optional<int> widthFromVotes(const std::array<std::int64_t, 9>& votes);

} // namespace IndentationDetector

} // namespace brim
