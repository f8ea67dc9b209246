#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace brim::LineMap {

// Conversions between byte offsets in one line and UTF-16 indices in the line's decoded text,
// the only place where UTF-16 positions exist. An offset inside a character lands after it.

/// How many bytes one scalar takes in the line's encoding. The character-set library supplies
/// this for encodings of variable width; lone surrogates arrive as they are.
using EncodedLength = std::function<std::int64_t(char32_t scalar)>;

/// The two widths the byte store knows without a character-set table.
enum class ByteWidth : std::uint8_t { utf8, singleByte };

/// The bytes a scalar takes in UTF-8; a lone surrogate counts as the 3 bytes of U+FFFD.
[[nodiscard]] std::int64_t utf8Length(char32_t scalar);

/// The UTF-16 index for byte `offset` of a line's UTF-8 bytes. An offset at or past the end
/// gives the UTF-16 length; a byte that starts no valid sequence counts as one unit (one
/// U+FFFD), as the lossy decoder reads it.
[[nodiscard]] std::int64_t utf16IndexForUTF8Offset(std::string_view utf8, std::int64_t offset);

/// The UTF-16 index for byte `offset` of the UTF-8 form of decoded text.
[[nodiscard]] std::int64_t utf16IndexForUTF8Offset(std::u16string_view text, std::int64_t offset);

/// The UTF-16 index for byte `offset` of the line as stored, for UTF-8 or a single-byte
/// encoding. Offsets below 1 give 0.
[[nodiscard]] std::int64_t utf16IndexForByteOffset(std::u16string_view text, std::int64_t offset,
                                                   ByteWidth width);

/// The same for any encoding: walks the scalars, adding each one's encoded length until the
/// offset is reached.
[[nodiscard]] std::int64_t utf16IndexForByteOffset(std::u16string_view text, std::int64_t offset,
                                                   const EncodedLength& encodedLength);

/// The byte offset of UTF-16 index `index` in the line's UTF-8 bytes; an index inside a
/// surrogate pair lands after the pair, one past the end gives the byte length.
[[nodiscard]] std::int64_t utf8OffsetForUTF16Index(std::string_view utf8, std::int64_t index);

/// The byte offset in the stored line of UTF-16 index `index` of its decoded text.
[[nodiscard]] std::int64_t byteOffsetForUTF16Index(std::u16string_view text, std::int64_t index,
                                                   ByteWidth width);
[[nodiscard]] std::int64_t byteOffsetForUTF16Index(std::u16string_view text, std::int64_t index,
                                                   const EncodedLength& encodedLength);

}  // namespace brim::LineMap
