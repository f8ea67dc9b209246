#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

class DoubleByteCodec;

/// Bytes written for a text, and how many of its characters the set could not hold (each of them was
/// written as "?").
struct EncodedText {
    std::vector<std::uint8_t> bytes;
    std::int64_t unwritable = 0;
};

/// The characters of a text that do not survive a round trip through a set.
struct UnwritableReport {
    std::int64_t count = 0;
    std::vector<std::string> examples;      ///< up to the number asked for, in order of appearance, each once
};

/// The base of every character set that is no table of single bytes and keeps a shift state:
/// ISO-2022 variants kept whole, the Japanese EBCDIC pages, MARC-8. Two codecs with the same `key`
/// are the same codec.
class StatefulCodec {
public:
    virtual ~StatefulCodec() = default;

    [[nodiscard]] virtual std::string key() const = 0;
    /// The text of `bytes` as UTF-8. Never fails: what cannot be read becomes U+FFFD.
    [[nodiscard]] virtual std::string decode(std::span<const std::uint8_t> bytes) const = 0;
    /// The bytes of a UTF-8 text; characters the set lacks are counted and written as "?".
    [[nodiscard]] virtual EncodedText encode(std::string_view text) const = 0;
    /// Whether a shift state ends at this byte, so a conversion may be cut after it.
    [[nodiscard]] virtual bool startsAfresh(std::uint8_t /*byte*/) const { return false; }
    [[nodiscard]] virtual bool isRecordEnd(std::uint8_t /*byte*/) const { return false; }
    /// Where the set sits in the encoding menu.
    [[nodiscard]] virtual std::string menuGroup() const = 0;
    /// True for the mixed single- and double-byte EBCDIC pages.
    [[nodiscard]] virtual bool isEBCDIC() const { return false; }
    /// How believable `bytes` are as this set, 0 to 1; absent for codecs that cannot tell.
    [[nodiscard]] virtual std::optional<double> plausibility(std::span<const std::uint8_t> /*bytes*/) const {
        return std::nullopt;
    }
};

/// A character set: what it is called, how it turns bytes into text and back.
///
/// A plain value, compared by all of its fields and hashed by `id`. Three kinds of set exist: those a
/// system converter reads (`converterName`: an ICU converter's canonical name, or "iconv:" and a glibc
/// name), those with a `table` of their own, and those with a codec (`stateful`, or `doubleByteCodec`).
/// UTF-8 is handled here.
class TextEncoding {
public:
    using Table = std::array<std::uint16_t, 256>;
    using Expansions = std::map<std::uint8_t, std::u16string>;
    /// Two-byte codes of a table set: lead << 8 | second byte, to the units the pair reads as.
    using Pairs = std::map<std::uint16_t, std::u16string>;

    std::string id;                 ///< stable lower-case key; persisted in settings and sessions, never changes
    std::string displayName;        ///< English name; `localisedName()` is what people see
    std::string converterName;      ///< system converter, empty when `table` or `stateful` does the work
    bool asciiCompatible = true;    ///< bytes 0x00-0x7F mean ASCII
    bool ebcdic = false;            ///< an EBCDIC page (see `isEBCDIC`)
    std::shared_ptr<const Table> table;             ///< byte to UTF-16 unit, 0xFFFD unassigned
    std::shared_ptr<const Expansions> expansions;   ///< bytes that decode to several scalars; before `table`
    /// Byte pairs read as one character (or a few): a lead byte followed by the pair's second byte reads
    /// as the pair, followed by anything else as its own table entry. Before `expansions` and `table`.
    std::shared_ptr<const Pairs> pairs;
    std::shared_ptr<const StatefulCodec> stateful;
    /// The codec of a stateless double-byte set read from published tables (the Mac CJK sets); a
    /// process-wide constant, null for every other set.
    const DoubleByteCodec* doubleByteCodec = nullptr;

    friend bool operator==(const TextEncoding& a, const TextEncoding& b);

    // MARK: conversion

    /// The text of `bytes` as UTF-8. Never fails: each ill-formed stretch or unassigned byte becomes
    /// U+FFFD. Callers that must keep stray bytes of a line hand them to `LossyUTF8::remember`.
    [[nodiscard]] std::string decode(std::span<const std::uint8_t> bytes) const;
    /// The same as `decode`, as UTF-16.
    [[nodiscard]] std::u16string decodeToUTF16(std::span<const std::uint8_t> bytes) const;
    /// The text of `bytes`, refused (absent) when a system converter finds ill-formed or unassigned
    /// input. Sets with a table or a stateful codec decode as `decode` does.
    [[nodiscard]] std::optional<std::u16string> decodeStrictly(std::span<const std::uint8_t> bytes) const;

    /// The bytes of a UTF-8 text in this set. Characters the set cannot hold become "?" (0x3F in
    /// ASCII-compatible sets, the set's own question mark otherwise) and are counted.
    [[nodiscard]] EncodedText encode(std::string_view text) const;

    /// Encodes, decodes back and compares character by character: the count of characters that do not
    /// survive and up to `examples` of them.
    [[nodiscard]] UnwritableReport unwritable(std::string_view text, std::size_t examples) const;

    // MARK: properties

    [[nodiscard]] std::string localisedName() const;
    /// The byte order mark of the Unicode forms; empty for every other set.
    [[nodiscard]] std::span<const std::uint8_t> bom() const;
    /// 2 for UTF-16, 4 for UTF-32, absent otherwise.
    [[nodiscard]] std::optional<int> unicodeUnitWidth() const;
    [[nodiscard]] bool isEBCDIC() const;
    /// ASCII-compatible, not UTF-8, and the single byte 0x85 reads as U+0085 (NEL).
    [[nodiscard]] bool readsNELAsOneByte() const;
    /// One byte is one scalar: a table without expansions or pairs, or a single-byte system converter.
    [[nodiscard]] bool isSingleByte() const;

    // MARK: the family

    [[nodiscard]] static const TextEncoding& utf8();
    [[nodiscard]] static const TextEncoding& utf16le();
    [[nodiscard]] static const TextEncoding& utf16be();
    [[nodiscard]] static const TextEncoding& utf32le();
    [[nodiscard]] static const TextEncoding& utf32be();
    [[nodiscard]] static const TextEncoding& ascii();
    [[nodiscard]] static const TextEncoding& latin1();
    [[nodiscard]] static const TextEncoding& latin2();
    [[nodiscard]] static const TextEncoding& latin9();
    [[nodiscard]] static const TextEncoding& cp1250();
    [[nodiscard]] static const TextEncoding& cp1251();
    [[nodiscard]] static const TextEncoding& cp1252();
    [[nodiscard]] static const TextEncoding& cp1253();
    [[nodiscard]] static const TextEncoding& cp1254();
    [[nodiscard]] static const TextEncoding& cp1257();
    [[nodiscard]] static const TextEncoding& macRoman();
    [[nodiscard]] static const TextEncoding& koi8r();
    [[nodiscard]] static const TextEncoding& cp437();
    [[nodiscard]] static const TextEncoding& cp850();
    [[nodiscard]] static const TextEncoding& shiftJIS();
    [[nodiscard]] static const TextEncoding& eucJP();
    [[nodiscard]] static const TextEncoding& iso2022JP();
    [[nodiscard]] static const TextEncoding& gb18030();
    [[nodiscard]] static const TextEncoding& big5();
    [[nodiscard]] static const TextEncoding& eucKR();
    [[nodiscard]] static const TextEncoding& ebcdicUS();
    [[nodiscard]] static const TextEncoding& ebcdic037();
    [[nodiscard]] static const TextEncoding& ebcdic273();
    [[nodiscard]] static const TextEncoding& ebcdic875();

    /// The 25 everyday sets, `utf8` to `eucKR`.
    [[nodiscard]] static const std::vector<TextEncoding>& everyday();
    [[nodiscard]] static const std::vector<std::string>& everydayIDs();
    /// One value per catalogue row, in the catalogue's order.
    [[nodiscard]] static const std::vector<TextEncoding>& catalogue();
    /// One value per EBCDIC page with a table of its own: id "ebcdic" and the page number.
    [[nodiscard]] static const std::vector<TextEncoding>& ebcdicPages();
    /// The mixed Japanese EBCDIC pages; empty until their codec is part of the build.
    [[nodiscard]] static const std::vector<TextEncoding>& japaneseEBCDIC();
    /// MARC-8 and the six-bit codes; empty until their codecs are part of the build.
    [[nodiscard]] static const std::vector<TextEncoding>& libraryAndSixBit();
    /// Every set in menu order: everyday, `ebcdicUS`, catalogue, EBCDIC pages, Japanese EBCDIC,
    /// MARC-8 and six-bit.
    [[nodiscard]] static const std::vector<TextEncoding>& all();

    /// The pages whose tables decide which EBCDIC page a text is in: 037, 273, 277, 278, 280, 284, 285,
    /// 297, 420, 424, 500, 870, 871, 875, 880, 905, 1026.
    [[nodiscard]] static const std::vector<TextEncoding>& ebcdicDetectionPages();
    /// The byte values at which the detection pages do not all agree.
    [[nodiscard]] static const std::array<bool, 256>& ebcdicDistinguishingBytes();
    /// The page with id "ebcdic" + number, or `ebcdicUS` when there is none.
    [[nodiscard]] static const TextEncoding& ebcdicPage(std::string_view number);

    // MARK: names

    /// Lower case, letters and digits only.
    [[nodiscard]] static std::string normalise(std::string_view name);
    /// The exact id over `all`.
    [[nodiscard]] static const TextEncoding* byId(std::string_view id);
    /// Every normalised id, display name and alias, and fixed spellings of the everyday sets; the first
    /// set in `all` order wins a name that two sets claim.
    [[nodiscard]] static const std::map<std::string, const TextEncoding*, std::less<>>& byAlias();
    /// An exact id, else `byAlias` under the normalised name.
    [[nodiscard]] static const TextEncoding* named(std::string_view name);
    /// The generous reading of a name a person typed or a file declares: `named`, fixed words, then
    /// a page number after "ebcdic", "cp", "ibm", "codepage", "page" or "x".
    [[nodiscard]] static const TextEncoding* encodingSpelled(std::string_view text);
    /// The set a file name declares in its last or second-to-last dotted piece: "data.cp1047.txt".
    [[nodiscard]] static const TextEncoding* namedByFile(std::string_view name);
    /// An EBCDIC page named by the part of a file name before its first dot: "cp1047.dat", "ibm037".
    [[nodiscard]] static const TextEncoding* ebcdicPageNamedByBaseName(std::string_view name);
};

} // namespace brim

template <>
struct std::hash<brim::TextEncoding> {
    std::size_t operator()(const brim::TextEncoding& encoding) const noexcept {
        return std::hash<std::string>{}(encoding.id);
    }
};
