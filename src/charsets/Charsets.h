#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace brim::Charsets {

/// One character set of the catalogue beyond the everyday ones.
struct Entry {
    std::string id;                     ///< stable lower-case key ("latin3", "cp737"); persisted, never changes
    std::string displayName;            ///< English name; shown through L()
    std::string group;                  ///< "iso", "windows", "dos", "mac", "cjk", "cyrillic", "south-asia", "other"
    /// The system converter that reads and writes the set: an ICU converter name ("ibm-737_P100-1997"),
    /// or "iconv:" and a glibc iconv name ("iconv:CP737"); empty when `table` does the work.
    std::string converterName;
    std::optional<std::array<std::uint16_t, 256>> table;   ///< byte to UTF-16 unit, 0xFFFD unassigned
    std::vector<std::string> aliases;
    std::map<std::uint8_t, std::u16string> expansions;     ///< bytes that decode to several scalars
};

/// Every catalogue row, in the catalogue's order. Built once on first use.
[[nodiscard]] const std::vector<Entry>& entries();

} // namespace brim::Charsets
