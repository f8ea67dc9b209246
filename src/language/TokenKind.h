#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace brim {

/// What a stretch of a line is, for colouring. The order is the themes' and the rule files' order.
enum class TokenKind : std::uint8_t {
    plain,
    keyword,
    type,
    string,
    escape,
    number,
    comment,
    docComment,
    preprocessor,
    attribute,
    function,
    operatorSym,
    punctuation,
    invalid,
    variable,
    inserted,
    deleted,
};

inline constexpr std::array<std::string_view, 17> tokenKindNames = {
    "plain",     "keyword",  "type",        "string",      "escape",  "number",   "comment",  "docComment",
    "preprocessor", "attribute", "function", "operatorSym", "punctuation", "invalid", "variable", "inserted",
    "deleted",
};

/// The name mode files and themes use for a kind.
[[nodiscard]] constexpr std::string_view tokenKindName(TokenKind kind) {
    return tokenKindNames[static_cast<std::size_t>(kind)];
}

/// The kind a name stands for, matched exactly; nothing for any other word.
[[nodiscard]] constexpr std::optional<TokenKind> tokenKindNamed(std::string_view name) {
    for (std::size_t index = 0; index < tokenKindNames.size(); ++index) {
        if (tokenKindNames[index] == name) {
            return static_cast<TokenKind>(index);
        }
    }
    return std::nullopt;
}

} // namespace brim
