#pragma once

#include "common/BrimError.h"
#include "language/Language.h"

#include <string>
#include <string_view>

namespace brim::LanguageFile {

/// Who wrote the file, which decides how much of the record it may set.
enum class Origin : std::uint8_t {
    builtIn,   ///< the program's own table: every field, and shared "uses" fragments
    userMode,  ///< a user's mode file: no heredocs, interpolation, templates, islands, verbatim
               ///< strings, key strings, interpolated names, quoted names or column-one comments,
               ///< and capitalised names are always types
};

/// A language file that cannot become a language. `what()` is the message for the user.
class Failure : public BrimError {
public:
    enum class Kind : std::uint8_t { notJSON, wrongType, unknownKind, missingID };
    [[nodiscard]] Kind kind() const { return kind_; }

    static Failure notJSON(std::string_view detail);
    static Failure wrongType(std::string_view key, std::string_view expected);
    static Failure unknownKind(std::string_view name);
    static Failure missingID();

private:
    Failure(Kind kind, const std::string& text) : BrimError(text), kind_(kind) {}
    Kind kind_;
};

/// Reads one language from its JSON text. Keys are the `Language` field names; unknown keys are
/// ignored and every key may be absent, taking the mode-file default (strings in `"`, `\` as
/// escape, `_` continuing words, brackets for indentation, indentation folding). Word lists may
/// be arrays or one string of blank-separated words. A blank id takes `stem` lower-cased, a blank
/// display name takes `stem`. A language that ignores case has its words lower-cased, as the
/// lexer looks them up. Throws `Failure` for text that is not such an object.
[[nodiscard]] Language parse(std::string_view text, std::string_view stem, Origin origin);

} // namespace brim::LanguageFile
