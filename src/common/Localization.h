#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace brim {

/// The interface languages. Stored in settings as these words; anything else counts as `system`.
enum class AppLanguage : std::uint8_t { system, english, german, french, italian, spanish };

/// One argument of a localised text: a string, an integer or a floating-point number.
class LocalizedArgument {
public:
    using Value = std::variant<std::string, std::int64_t, double>;

    LocalizedArgument(std::string text) : value_(std::move(text)) {}
    LocalizedArgument(std::string_view text) : value_(std::string(text)) {}
    LocalizedArgument(const char* text) : value_(std::string(text)) {}
    template <typename T>
        requires(std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>)
    LocalizedArgument(T number) : value_(static_cast<std::int64_t>(number)) {}
    template <typename T>
        requires std::is_floating_point_v<T>
    LocalizedArgument(T number) : value_(static_cast<double>(number)) {}

    [[nodiscard]] const Value& value() const { return value_; }

private:
    Value value_;
};

namespace Localization {

/// The interface language in force, resolved once from the system on first use unless `setCurrent`
/// or `configure` chose it before. Never `system`.
[[nodiscard]] AppLanguage current();

/// Chooses the interface language for the rest of the process (settings and tests call this).
void setCurrent(AppLanguage language);

/// Resolves `appLanguage` (the stored word) against the system's preferred language and makes the
/// result current.
void configure(std::string_view appLanguageWord);

/// The stored word for a language and back; an unknown word is `system`.
[[nodiscard]] std::string_view word(AppLanguage language);
[[nodiscard]] AppLanguage languageForWord(std::string_view word);

/// The language the stored word stands for: `system` takes the first preferred language and tests
/// it by prefix against "de", "fr", "it" and "es" in that order; what matches none is English.
[[nodiscard]] AppLanguage resolve(AppLanguage chosen, std::string_view systemPreferred);

/// The system's first preferred language from LANGUAGE, LC_ALL, LC_MESSAGES and LANG, in that
/// order, ignoring "C" and "POSIX"; "en" when none says anything.
[[nodiscard]] std::string systemPreferredLanguage();

/// English text to translation, for one language.
using Catalogue = std::map<std::string, std::string, std::less<>>;

/// The catalogue the program carries for `language`, parsed once on first use; empty for English
/// and `system`. An entry whose translation is empty is left out, so its key stands.
[[nodiscard]] const Catalogue& catalogue(AppLanguage language);

/// The two-letter code of a language: "de", "fr", "it", "es"; "en" for English and `system`.
[[nodiscard]] std::string_view code(AppLanguage language);

/// The translation of `key` in the current language; an unknown key stands as it is.
[[nodiscard]] std::string string(std::string_view key);

/// The translation of `key` in the given language.
[[nodiscard]] std::string string(std::string_view key, AppLanguage language);

/// Substitutes printf-style conversions in `pattern`: `%@` and `%s` take a string (or any
/// argument as text), `%d`, `%ld`, `%x`, `%f`, `%.2f` and the like take numbers, `%1$d` names
/// its argument, `%%` is a percent sign. A missing argument leaves the conversion as it is.
[[nodiscard]] std::string format(std::string_view pattern, std::span<const LocalizedArgument> arguments);

} // namespace Localization

/// The localised text for the English `key`, with its arguments substituted.
template <typename... Arguments>
[[nodiscard]] std::string L(std::string_view key, Arguments&&... arguments) {
    if constexpr (sizeof...(Arguments) == 0) {
        return Localization::format(Localization::string(key), {});
    } else {
        const LocalizedArgument list[] = {LocalizedArgument(std::forward<Arguments>(arguments))...};
        return Localization::format(Localization::string(key), list);
    }
}

} // namespace brim
