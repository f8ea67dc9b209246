#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace brim {

class TextEncoding;

/// The nine kinds of line break, in the order that also breaks ties between them. Stored as their words
/// ("lf", "crlf", ...).
enum class LineEnding : std::uint8_t { lf, crlf, cr, nel, ls, ps, vt, ff, lfcr };

inline constexpr std::array<LineEnding, 9> allLineEndings = {
    LineEnding::lf, LineEnding::crlf, LineEnding::cr, LineEnding::nel, LineEnding::ls,
    LineEnding::ps, LineEnding::vt, LineEnding::ff, LineEnding::lfcr};

/// The stored word: "lf", "crlf", "cr", "nel", "ls", "ps", "vt", "ff", "lfcr".
[[nodiscard]] std::string_view word(LineEnding ending);
/// The ending a stored word names; absent for anything else.
[[nodiscard]] std::optional<LineEnding> lineEndingForWord(std::string_view word);
/// The English display name, "LF (Unix)" and so on; shown through L().
[[nodiscard]] std::string_view displayName(LineEnding ending);
/// The short name used in mixed summaries: "LF", "CRLF", "CR", "NEL", "LS", "PS", "VT", "FF", "LFCR".
[[nodiscard]] std::string_view shortName(LineEnding ending);
/// The ending's bytes in UTF-8 (0A, 0D 0A, C2 85, E2 80 A8, ...).
[[nodiscard]] std::string_view utf8Bytes(LineEnding ending);

/// Whether `encoding` can spell the ending: encoding its characters and decoding them gives them back.
[[nodiscard]] bool isSpelledIn(LineEnding ending, const TextEncoding& encoding);
/// The ending itself when `encoding` is UTF-8 or spells it; otherwise `lf`, so an ending a set cannot
/// spell falls back to a line feed rather than to nonsense.
[[nodiscard]] LineEnding spelledIn(LineEnding ending, const TextEncoding& encoding);
/// The bytes the ending is written as in `encoding`: its UTF-8 bytes for UTF-8, its characters encoded
/// when the set spells them, else the set's line feed. Never fails.
[[nodiscard]] std::vector<std::uint8_t> bytesIn(LineEnding ending, const TextEncoding& encoding);

} // namespace brim
