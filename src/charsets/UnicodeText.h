#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace brim::UnicodeText {

/// Appends one scalar as UTF-8 or UTF-16. A surrogate or a value above U+10FFFF becomes U+FFFD.
void appendUTF8(std::string& out, char32_t scalar);
void appendUTF16(std::u16string& out, char32_t scalar);

/// UTF-16 to UTF-8; a lone surrogate becomes U+FFFD.
[[nodiscard]] std::string toUTF8(std::u16string_view text);
/// UTF-8 to UTF-16; each ill-formed stretch becomes one U+FFFD.
[[nodiscard]] std::u16string toUTF16(std::string_view text);
/// The scalars of UTF-16 text; a lone surrogate becomes U+FFFD.
[[nodiscard]] std::u32string toScalars(std::u16string_view text);
/// The scalars of UTF-8 text; each ill-formed stretch becomes one U+FFFD.
[[nodiscard]] std::u32string toScalars(std::string_view text);
/// UTF-16 with lone surrogates replaced by U+FFFD.
[[nodiscard]] std::u16string repairedUTF16(std::u16string_view text);

} // namespace brim::UnicodeText
