#pragma once

#include <span>
#include <string_view>

namespace brim::EmbeddedLanguages {

/// One language data file as it was embedded at build time.
struct EmbeddedFile {
    std::string_view id;      ///< the file's stem, which is the language's id
    bool island;              ///< reached only by name, inside template regions
    std::string_view text;    ///< the JSON text
};

/// The built-in languages in table order, the island languages after them.
[[nodiscard]] std::span<const EmbeddedFile> files();

/// Shared fragments that language files pull in with "uses".
[[nodiscard]] std::string_view presets();

} // namespace brim::EmbeddedLanguages
