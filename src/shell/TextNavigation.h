#pragma once

#include <cstdint>
#include <optional>

namespace brim {
class TextDocument;
}

/// Where the caret and the screen may go in a document's bytes: whole characters, line starts and
/// ends. Everything here reads at most a bounded stretch of bytes, so it costs the same in a 20 GB file
/// as in a small one, except `lineEndFrom`, which must find the end of the line it is given.
namespace brim::shell::TextNavigation {

/// How far back `lineStartAtOrBefore` looks for a line break beyond the indexed part before it treats
/// the stretch as a piece of one very long line.
inline constexpr std::int64_t lineSearchLimit = 1'048'576;

/// The start of the character after the one at `offset`: CR LF counts as one, a stray byte as one.
/// The document's end stays where it is.
[[nodiscard]] std::int64_t nextCharacter(const TextDocument& document, std::int64_t offset);

/// The start of the character before `offset`; never before `textStart()` (a byte order mark).
[[nodiscard]] std::int64_t previousCharacter(const TextDocument& document, std::int64_t offset);

/// The start of the line holding byte `offset`: exact where the line index reaches, else found by
/// looking back at most `lineSearchLimit` bytes; past that, the character start `lineSearchLimit` back.
[[nodiscard]] std::int64_t lineStartAtOrBefore(const TextDocument& document, std::int64_t offset);

/// The offset of the line break (0x0A) that ends the line going on at `offset`, or the document's end.
[[nodiscard]] std::int64_t lineEndFrom(const TextDocument& document, std::int64_t offset);

/// The end of a line's content: before the CR of a CR LF pair ending at `lineEnd`.
[[nodiscard]] std::int64_t contentEnd(const TextDocument& document, std::int64_t lineStart, std::int64_t lineEnd);

/// The line number of the line holding `offset` when the index already knows it; nothing beyond.
[[nodiscard]] std::optional<std::int64_t> knownLineNumber(const TextDocument& document, std::int64_t offset);

/// The start of the line `count` lines before the one starting at `lineStart`; stops at the top.
[[nodiscard]] std::int64_t linesBack(const TextDocument& document, std::int64_t lineStart, std::int64_t count);

/// The start of the word boundary after / before `offset` (letters, digits, '_' and all non-ASCII
/// bytes make words).
[[nodiscard]] std::int64_t nextWordEnd(const TextDocument& document, std::int64_t offset);
[[nodiscard]] std::int64_t previousWordStart(const TextDocument& document, std::int64_t offset);

} // namespace brim::shell::TextNavigation
