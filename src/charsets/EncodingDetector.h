#pragma once

#include "bytes/ByteSource.h"
#include "charsets/TextEncoding.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

/// What detection concluded about a file's bytes, and why.
struct EncodingDetection {
    TextEncoding encoding;
    bool hasBOM = false;            ///< the bytes begin with the encoding's byte order mark
    double confidence = 0;          ///< 0 to 1
    std::string reason;             ///< the sentence `brim --encoding` prints
    std::optional<TextEncoding> alternative;   ///< a second reading that scored close and reads differently
};

namespace EncodingDetector {

/// What a UTF-8 check of a sample found.
struct UTF8Result {
    enum class Kind : std::uint8_t { ascii, valid, invalid };
    Kind kind = Kind::ascii;
    std::int64_t multiByteSequences = 0;    ///< for `valid`

    friend bool operator==(const UTF8Result&, const UTF8Result&) = default;
};

/// The bytes a detection looks at: the head, or for a large file pieces of its head, middle and tail
/// joined together.
struct Sample {
    std::vector<std::uint8_t> bytes;
    /// Offsets in `bytes` where a piece begins that does not follow the one before it in the file.
    std::vector<std::size_t> joins;
};

/// Decides the character set of the bytes of `source`. Never fails: every input gets an encoding.
/// Reads at most three pieces of 262,144 bytes, so a file of any size costs the same. `fallback` is the
/// set of last resort for 8-bit text that nothing reads cleanly; `name` is the file's name, if any, whose
/// suffixes may name a set.
[[nodiscard]] EncodingDetection detect(const ByteSource& source, const TextEncoding& fallback,
                                       std::string_view name = {});

/// The same over bytes in memory.
[[nodiscard]] EncodingDetection detect(std::span<const std::uint8_t> bytes, const TextEncoding& fallback,
                                       std::string_view name = {});

/// The head, middle and tail pieces of a source, trimmed to whole UTF-8 characters at their cuts.
[[nodiscard]] Sample sample(const ByteSource& source);

/// Whether the bytes are ASCII, valid UTF-8 (with the count of multi-byte sequences) or not UTF-8. A
/// sequence left unfinished by the end of the bytes does not make them invalid.
[[nodiscard]] UTF8Result validateUTF8(std::span<const std::uint8_t> bytes);

/// The bytes without up to three leading continuation bytes and, with `trimmingEnd`, without a last
/// character that the end cuts in two. ASCII is left exactly as it is.
[[nodiscard]] std::span<const std::uint8_t> trimmedToCharacterBoundaries(std::span<const std::uint8_t> bytes,
                                                                          bool trimmingEnd);

// The steps of a detection, each answering or passing.

[[nodiscard]] std::optional<EncodingDetection> detectBOM(std::span<const std::uint8_t> head);
/// UTF-16 by its NUL bytes, then UTF-32 and UTF-16 by the pattern of their code units.
[[nodiscard]] std::optional<EncodingDetection> detectUTF16WithoutBOM(std::span<const std::uint8_t> head);
/// UTF-32 whose every unit is a scalar of text, some of them ASCII.
[[nodiscard]] std::optional<EncodingDetection> detectUTF32WithoutBOM(std::span<const std::uint8_t> head);
/// UTF-16 whose units are mostly of one alphabet beside ASCII, or mostly ideographs, kana and Hangul.
[[nodiscard]] std::optional<EncodingDetection> detectUTF16CodeUnits(std::span<const std::uint8_t> head);
[[nodiscard]] std::optional<EncodingDetection> detectEBCDIC(std::span<const std::uint8_t> sample);
/// EBCDIC of any page by its word spaces (0x40), the page chosen by scoring.
[[nodiscard]] std::optional<EncodingDetection> detectEBCDICBySpacing(std::span<const std::uint8_t> bytes);
/// Which EBCDIC page the bytes are in; `ebcdic037` unless the text tells the pages apart.
[[nodiscard]] const TextEncoding& ebcdicPage(std::span<const std::uint8_t> bytes);
/// The mixed Japanese EBCDIC pages, given the codecs of pages 939 and 1399.
[[nodiscard]] std::optional<EncodingDetection> detectJapaneseEBCDIC(std::span<const std::uint8_t> bytes,
                                                                    const TextEncoding& page939,
                                                                    const TextEncoding& page1399);
[[nodiscard]] std::optional<EncodingDetection> detectCJK(const Sample& sample);
/// 7-bit text with the escapes or shifts of ISO-2022-JP, -KR, -CN or HZ, read as that set.
[[nodiscard]] std::optional<EncodingDetection> detectSevenBitCJK(const Sample& sample);
[[nodiscard]] EncodingDetection detectLegacy8Bit(std::span<const std::uint8_t> sample, const TextEncoding& fallback);

/// The single-byte sets an 8-bit text is scored as, in order of preference, with `fallback` last.
/// Latin-1, Latin-9 and Latin-2 drop out when the text holds bytes 0x80-0x9F.
[[nodiscard]] std::vector<TextEncoding> legacyCandidates(bool hasC1Bytes, const TextEncoding& fallback);

/// Whether the double-byte characters of `bytes` in `encoding` are mostly rare ones (lead bytes beyond
/// the common planes), which says the bytes are not that set.
[[nodiscard]] bool readsAsRareCharacters(std::span<const std::uint8_t> bytes, const TextEncoding& encoding);

/// Whether ideographs in the text mostly sit between ASCII letters, as a misread accented Latin text's do.
[[nodiscard]] bool breaksLatinWords(std::u32string_view text);

} // namespace EncodingDetector

} // namespace brim
