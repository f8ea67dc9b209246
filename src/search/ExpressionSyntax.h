#pragma once

#include "common/BrimError.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace brim {

/// A pattern that cannot be searched with: its text is the user's message, beginning
/// "Invalid pattern: ".
class PatternError : public BrimError {
public:
    enum class Kind : std::uint8_t {
        invalid,       ///< the expression engine refused it
        unsupported,   ///< valid ICU syntax with no faithful translation
    };

    static PatternError invalid(std::string_view description);
    static PatternError unsupported(std::string_view description);

    [[nodiscard]] Kind kind() const { return kind_; }

private:
    PatternError(Kind kind, std::string text) : BrimError(std::move(text)), kind_(kind) {}
    Kind kind_;
};

/// Patterns are written in ICU's regular-expression syntax; the engine is PCRE2. These turn the
/// one into the other and read what a search can learn from a pattern before running it.
namespace ExpressionSyntax {

/// The PCRE2 form of an ICU pattern: `\uhhhh`, `\Uhhhhhhhh` and `\N{NAME}` become `\x{...}`, and
/// nested sets in a class that only add to it are flattened. Throws `PatternError` for what would
/// mean something else in PCRE2: set operations in a class (`&&`, `--`), a negated nested set,
/// an unbounded repeat inside a lookbehind, a bad `\u` or an unknown character name.
[[nodiscard]] std::string toPCRE2(std::string_view icuPattern);

/// A pattern that matches `text` literally, in either syntax.
[[nodiscard]] std::string escaped(std::string_view text);

/// Bytes that every match of the PCRE2 pattern begins with, or nothing when that cannot be told
/// cheaply (an alternation at the top, a leading group, class or escape). With `caseInsensitive`
/// the bytes are ASCII and stop before any letter that also folds to a non-ASCII one ("k", "s"),
/// so that A-Z folding finds every candidate the engine would accept.
[[nodiscard]] std::string requiredPrefix(std::string_view pcrePattern, bool caseInsensitive);

} // namespace ExpressionSyntax

} // namespace brim
