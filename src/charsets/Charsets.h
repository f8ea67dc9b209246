#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brim {
class DoubleByteCodec;
}

namespace brim::Charsets {

/// One character set of the catalogue beyond the everyday ones.
///
/// Exactly one of three things converts a set: a system converter (`converterName`), a 256-entry
/// `table` (with `expansions` for bytes that stand for several characters), or a `doubleByteCodec`
/// for the Mac CJK sets.
struct Entry {
    std::string id;                     ///< stable lower-case key ("latin3", "cp737"); persisted, never changes
    std::string displayName;            ///< English name; shown through L()
    std::string group;                  ///< "iso", "windows", "dos", "mac", "cjk", "cyrillic", "south-asia", "other"
    /// The system converter that reads and writes the set: an ICU converter's canonical name
    /// ("ibm-913_P100-2000"), or "iconv:" and a glibc iconv name ("iconv:SHIFT_JISX0213"); empty when
    /// `table` or `doubleByteCodec` does the work.
    std::string converterName;
    std::optional<std::array<std::uint16_t, 256>> table;   ///< byte to UTF-16 unit, 0xFFFD unassigned
    std::vector<std::string> aliases;
    std::map<std::uint8_t, std::u16string> expansions;     ///< bytes that decode to several units
    /// Two-byte codes of a table set (lead << 8 | second byte) and the units each pair reads as. A lead
    /// byte followed by any other byte reads as its table entry.
    std::map<std::uint16_t, std::u16string> pairs;
    /// The Mac double-byte sets' codec (a process-wide constant); null for every other set.
    const DoubleByteCodec* doubleByteCodec = nullptr;
    bool isSingleByte = false;          ///< every byte is a character of its own, whatever comes next (no `pairs`)
    bool isStateful = false;            ///< escape or shift sequences change what later bytes mean
    bool isEBCDIC = false;              ///< an EBCDIC page: not ASCII-compatible, newline 0x15/0x25
};

/// Every catalogue row, in the catalogue's order. Built once on first use (tables parsed then), and
/// shared by every thread afterwards.
[[nodiscard]] const std::vector<Entry>& entries();

/// The row with this id, or null.
[[nodiscard]] const Entry* entry(std::string_view id);

/// Sets of the design's list that are left out because no public mapping of them exists, by
/// display name. They are never guessed.
[[nodiscard]] const std::vector<std::string>& omittedSets();

/// Parses a generated single-byte table ("0041..." in groups of four hex digits). Throws
/// `std::invalid_argument` on malformed data: the generator's output is checked, not trusted.
[[nodiscard]] std::array<std::uint16_t, 256> parseTable(std::string_view hex);

/// Parses generated expansions ("BB:UUUU.UUUU BB:UUUU.UUUU"); throws `std::invalid_argument`.
[[nodiscard]] std::map<std::uint8_t, std::u16string> parseExpansions(std::string_view text);

/// Parses generated two-byte codes ("LLTT:UUUU LLTT:UUUU.UUUU"); throws `std::invalid_argument`.
[[nodiscard]] std::map<std::uint16_t, std::u16string> parsePairs(std::string_view text);

} // namespace brim::Charsets
