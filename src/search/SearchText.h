#pragma once

#include "bytes/ByteSource.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace brim {

/// How a document's bytes stand for text when they are not UTF-8. A document in any other set is
/// held either in a UTF-8 working copy or in its own ASCII-compatible bytes, so lines always end
/// at 0x0A; this says the rest. `searchEncoding` (search/DocumentText.h) makes it from a
/// `TextEncoding`.
struct SearchEncoding {
    /// The bytes of a UTF-8 text in this set; nothing when the set cannot hold all of it.
    std::function<std::optional<std::string>(std::string_view text)> encode;
    /// The text of some bytes as UTF-8. Never fails: what cannot be read becomes U+FFFD.
    std::function<std::string(std::span<const std::uint8_t> bytes)> decode;
    /// How many bytes `encode` would write for a UTF-8 text, counting what the set lacks as one
    /// substitute each: the way back from a decoded offset to a byte offset.
    std::function<std::int64_t(std::string_view text)> encodedLength;
    /// The start of the character holding `offset`, for sets whose trailing bytes can look like
    /// leading ones (Shift-JIS, GB18030, Big5); empty for sets where every byte says what it is.
    std::function<std::int64_t(const ByteSource& source, std::int64_t offset)> characterStart;
    /// The byte length of the character that starts at `bytes[at]` (at least 1, never past the
    /// end), told by its first bytes; empty when every byte is a character of its own.
    std::function<std::size_t(std::span<const std::uint8_t> bytes, std::size_t at)> characterLength;
    /// Bytes below 0x80 that begin a character stand for themselves, as in ASCII, so a window can
    /// keep them as they are and convert only the rest.
    bool asciiCompatible = true;
};

/// What a search runs over: a document's bytes and, when they are not UTF-8, how to read them.
/// Cheap to copy; refers to both, which must outlive it.
class SearchText {
public:
    /// UTF-8 bytes, or bytes in `encoding`. Implicit, so a `ByteSource` can be searched as it is.
    SearchText(const ByteSource& bytes, const SearchEncoding* encoding = nullptr)  // NOLINT(google-explicit-constructor)
        : bytes_(&bytes), encoding_(encoding) {}

    [[nodiscard]] const ByteSource& bytes() const { return *bytes_; }
    [[nodiscard]] const SearchEncoding* encoding() const { return encoding_; }
    [[nodiscard]] bool isUTF8() const { return encoding_ == nullptr; }

private:
    const ByteSource* bytes_;
    const SearchEncoding* encoding_;
};

} // namespace brim
