#pragma once

#include <QString>

#include <cstdint>
#include <vector>

namespace brim {
class TextDocument;
}

namespace brim::shell {

/// The text of a stretch of one line as the screen shows it, with the byte offset of every UTF-16
/// unit, so that a caret (a byte offset) and a point on screen (a unit) can be turned into each other.
/// Control characters show as their visible pictures (U+2400 and on); a tab stays a tab.
struct RowText {
    std::int64_t windowStart = 0;   ///< first byte shown
    std::int64_t windowEnd = 0;     ///< byte after the last one shown
    QString text;
    /// `text.size() + 1` entries: where each unit's character starts; the last is `windowEnd`. Both
    /// units of a surrogate pair name the same byte.
    std::vector<std::int64_t> byteOfUnit;

    /// The unit at which the character holding `byte` starts; `text.size()` at or past the end.
    [[nodiscard]] int unitForByte(std::int64_t byte) const;
};

/// Decodes bytes `[from, to)` of the document, which must start on a character; a character cut by
/// `to` is left out. UTF-8 and single-byte sets decode in one pass; other sets character by
/// character. Never fails: what can't be read shows as U+FFFD, one per byte.
[[nodiscard]] RowText decodeRow(const TextDocument& document, std::int64_t from, std::int64_t to);

} // namespace brim::shell
