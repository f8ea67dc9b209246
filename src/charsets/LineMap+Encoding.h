#pragma once

#include "charsets/TextEncoding.h"

#include <cstdint>
#include <string_view>

// The conversions of the byte store's LineMap for a line stored in any character set.
namespace brim::LineMap {

/// The UTF-16 index in a line's decoded `text` of byte `offset` of the line as stored in `encoding`.
/// Below 1 gives 0. UTF-8 text that was repaired on reading maps through the raw bytes `LossyUTF8`
/// remembered; a set of one byte per character maps one to one; any other set walks the scalars,
/// adding each one's encoded length. An offset inside a character lands after it.
[[nodiscard]] std::int64_t utf16IndexForByteOffset(std::u16string_view text, std::int64_t offset,
                                                   const TextEncoding& encoding);

/// The byte offset in the stored line of UTF-16 index `index` of its decoded text; the reverse of
/// `utf16IndexForByteOffset`. An index inside a surrogate pair lands after the pair.
[[nodiscard]] std::int64_t byteOffsetForUTF16Index(std::u16string_view text, std::int64_t index,
                                                   const TextEncoding& encoding);

} // namespace brim::LineMap
