#include "common/Localization.h"

#include <nlohmann/json.hpp>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace brim::Localization {

namespace detail {
// The catalogue file of a language code, embedded at build time; empty when there is none.
std::string_view embeddedCatalogue(std::string_view code);
} // namespace detail

namespace {

std::atomic<int> chosen{-1}; // -1: not resolved yet

std::string_view environmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view{} : std::string_view{value};
}

std::string numberText(const std::string& directive, char conversion, const LocalizedArgument::Value& value) {
    // Rebuild a conversion the C library understands, with the length modifier it needs.
    std::array<char, 512> buffer{};
    int written = 0;
    const bool floating = conversion == 'f' || conversion == 'F' || conversion == 'g' || conversion == 'G' ||
                          conversion == 'e' || conversion == 'E';
    if (floating) {
        const double number = std::holds_alternative<double>(value)
                                  ? std::get<double>(value)
                                  : static_cast<double>(std::get<std::int64_t>(value));
        const std::string full = "%" + directive + conversion;
        written = std::snprintf(buffer.data(), buffer.size(), full.c_str(), number);
    } else {
        const long long number = std::holds_alternative<std::int64_t>(value)
                                     ? static_cast<long long>(std::get<std::int64_t>(value))
                                     : static_cast<long long>(std::get<double>(value));
        const std::string full = "%" + directive + "ll" + conversion;
        written = std::snprintf(buffer.data(), buffer.size(), full.c_str(), number);
    }
    if (written < 0) return {};
    return std::string(buffer.data(), std::min<std::size_t>(static_cast<std::size_t>(written), buffer.size() - 1));
}

std::string asText(const LocalizedArgument::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    if (const auto* number = std::get_if<std::int64_t>(&value)) return std::to_string(*number);
    std::array<char, 64> buffer{};
    const int written = std::snprintf(buffer.data(), buffer.size(), "%g", std::get<double>(value));
    return std::string(buffer.data(), written > 0 ? static_cast<std::size_t>(written) : 0);
}

std::string padded(std::string text, const std::string& directive) {
    // Honour a width and "-" for strings ("%-10s"); a precision cuts the text.
    bool left = false;
    std::size_t i = 0;
    while (i < directive.size() && (directive[i] == '-' || directive[i] == ' ' || directive[i] == '+' || directive[i] == '0' || directive[i] == '#')) {
        left = left || directive[i] == '-';
        ++i;
    }
    std::size_t width = 0;
    while (i < directive.size() && directive[i] >= '0' && directive[i] <= '9') width = width * 10 + static_cast<std::size_t>(directive[i++] - '0');
    if (i < directive.size() && directive[i] == '.') {
        std::size_t precision = 0;
        ++i;
        while (i < directive.size() && directive[i] >= '0' && directive[i] <= '9') precision = precision * 10 + static_cast<std::size_t>(directive[i++] - '0');
        if (text.size() > precision) text.resize(precision);
    }
    if (text.size() < width) {
        const std::string fill(width - text.size(), ' ');
        text = left ? text + fill : fill + text;
    }
    return text;
}

} // namespace

std::string_view word(AppLanguage language) {
    switch (language) {
    case AppLanguage::system: return "system";
    case AppLanguage::english: return "english";
    case AppLanguage::german: return "german";
    case AppLanguage::french: return "french";
    case AppLanguage::italian: return "italian";
    case AppLanguage::spanish: return "spanish";
    }
    return "system";
}

AppLanguage languageForWord(std::string_view text) {
    for (auto language : {AppLanguage::english, AppLanguage::german, AppLanguage::french, AppLanguage::italian,
                          AppLanguage::spanish}) {
        if (word(language) == text) return language;
    }
    return AppLanguage::system;
}

AppLanguage resolve(AppLanguage language, std::string_view systemPreferred) {
    if (language != AppLanguage::system) return language;
    if (systemPreferred.starts_with("de")) return AppLanguage::german;
    if (systemPreferred.starts_with("fr")) return AppLanguage::french;
    if (systemPreferred.starts_with("it")) return AppLanguage::italian;
    if (systemPreferred.starts_with("es")) return AppLanguage::spanish;
    return AppLanguage::english;
}

std::string systemPreferredLanguage() {
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        std::string_view value = environmentValue(name);
        if (std::string_view(name) == "LANGUAGE") value = value.substr(0, value.find(':'));
        if (value.empty() || value == "C" || value == "POSIX" || value.starts_with("C.")) continue;
        return std::string(value);
    }
    return "en";
}

AppLanguage current() {
    int value = chosen.load(std::memory_order_acquire);
    if (value < 0) {
        value = static_cast<int>(resolve(AppLanguage::system, systemPreferredLanguage()));
        int expected = -1;
        if (!chosen.compare_exchange_strong(expected, value, std::memory_order_acq_rel)) value = expected;
    }
    return static_cast<AppLanguage>(value);
}

void setCurrent(AppLanguage language) {
    chosen.store(static_cast<int>(resolve(language, systemPreferredLanguage())), std::memory_order_release);
}

void configure(std::string_view appLanguageWord) { setCurrent(languageForWord(appLanguageWord)); }

std::string string(std::string_view key) { return string(key, current()); }

std::string_view code(AppLanguage language) {
    switch (language) {
    case AppLanguage::german: return "de";
    case AppLanguage::french: return "fr";
    case AppLanguage::italian: return "it";
    case AppLanguage::spanish: return "es";
    case AppLanguage::system:
    case AppLanguage::english: return "en";
    }
    return "en";
}

const Catalogue& catalogue(AppLanguage language) {
    static constexpr std::size_t languageCount = 6;
    static std::array<std::once_flag, languageCount> parsed;
    // Never destroyed: a message made while the process ends (a last settings write failing, say)
    // must still find its catalogue.
    static auto* const catalogues = new std::array<Catalogue, languageCount>();
    const auto index = static_cast<std::size_t>(language);
    std::call_once(parsed[index], [&] {
        if (language == AppLanguage::english || language == AppLanguage::system) return;
        // The build refuses a catalogue that is not a JSON object, so a failure here is not
        // expected; the keys then stand untranslated rather than the program stopping.
        const auto document = nlohmann::json::parse(detail::embeddedCatalogue(code(language)), nullptr, false);
        if (!document.is_object()) return;
        for (const auto& [key, value] : document.items()) {
            if (value.is_string() && !value.get_ref<const std::string&>().empty()) {
                (*catalogues)[index].emplace(key, value.get<std::string>());
            }
        }
    });
    return (*catalogues)[index];
}

std::string string(std::string_view key, AppLanguage language) {
    const auto& entries = catalogue(language);
    const auto found = entries.find(key);
    return found == entries.end() ? std::string(key) : found->second;
}

std::string format(std::string_view pattern, std::span<const LocalizedArgument> arguments) {
    std::string out;
    out.reserve(pattern.size() + 16);
    std::size_t next = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const char c = pattern[i];
        if (c != '%') {
            out.push_back(c);
            continue;
        }
        if (i + 1 < pattern.size() && pattern[i + 1] == '%') {
            out.push_back('%');
            ++i;
            continue;
        }
        // %[n$][flags][width][.precision][length]conversion
        std::size_t j = i + 1;
        std::size_t position = 0;
        std::size_t k = j;
        while (k < pattern.size() && pattern[k] >= '0' && pattern[k] <= '9') ++k;
        if (k > j && k < pattern.size() && pattern[k] == '$') {
            position = static_cast<std::size_t>(std::atoi(std::string(pattern.substr(j, k - j)).c_str()));
            j = k + 1;
        }
        const std::size_t directiveStart = j;
        while (j < pattern.size() && std::string_view("-+ #0").find(pattern[j]) != std::string_view::npos) ++j;
        while (j < pattern.size() && pattern[j] >= '0' && pattern[j] <= '9') ++j;
        if (j < pattern.size() && pattern[j] == '.') {
            ++j;
            while (j < pattern.size() && pattern[j] >= '0' && pattern[j] <= '9') ++j;
        }
        const std::string directive(pattern.substr(directiveStart, j - directiveStart));
        while (j < pattern.size() && std::string_view("hlqLzjt").find(pattern[j]) != std::string_view::npos) ++j;
        if (j >= pattern.size()) {
            out.append(pattern.substr(i));
            break;
        }
        const char conversion = pattern[j];
        const std::size_t index = position > 0 ? position - 1 : next++;
        if (index >= arguments.size() || std::string_view("@sdiuxXoFfgGeEc").find(conversion) == std::string_view::npos) {
            out.append(pattern.substr(i, j - i + 1));
            i = j;
            continue;
        }
        const auto& value = arguments[index].value();
        if (conversion == '@' || conversion == 's') {
            out += padded(asText(value), directive);
        } else if (conversion == 'c') {
            out += asText(value);
        } else if (std::holds_alternative<std::string>(value)) {
            out += padded(std::get<std::string>(value), directive);
        } else {
            out += numberText(directive, conversion == 'i' ? 'd' : conversion, value);
        }
        i = j;
    }
    return out;
}

} // namespace brim::Localization
