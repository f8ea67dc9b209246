#pragma once

#include <nlohmann/json.hpp>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

/// The decisions taken for one language, over the global settings. An unset field follows the
/// global setting; a set one overrides it, even when it equals the global value today.
struct LanguageSettings {
    std::string language;                  ///< the language's id
    std::optional<int> tabWidth;
    std::optional<int> indentWidth;
    std::optional<bool> insertSpaces;
    std::optional<bool> softWrap;
    std::optional<std::string> wrapGuides; ///< the guide text as typed; "" is a decision: no guides
    std::optional<std::string> lineEnding; ///< the stored word of a line ending ("lf", "crlf", ...)
    std::optional<std::string> encoding;   ///< the id of a character set

    /// True when nothing is decided: such a record is never stored.
    [[nodiscard]] bool isEmpty() const;

    /// The overrides in one line for the settings list, in this order and each only where
    /// decided: "Tabs" or "4 spaces" (or "Width 4" when only the width is set), "Wrapped" or
    /// "Not wrapped", "Guides at 80, 120" or "No guides", the line ending, the encoding. The two
    /// namers turn the stored words into display names; without them the words stand.
    [[nodiscard]] std::string summary(int defaultTabWidth,
                                      const std::function<std::string(std::string_view)>& lineEndingName = {},
                                      const std::function<std::string(std::string_view)>& encodingName = {}) const;

    /// The record as stored, field names as keys, unset fields left out.
    [[nodiscard]] nlohmann::json toJSON() const;

    /// The record from its stored form; none when the value is not such a record.
    [[nodiscard]] static std::optional<LanguageSettings> fromJSON(const nlohmann::json& value);

    friend bool operator==(const LanguageSettings&, const LanguageSettings&) = default;
};

} // namespace brim
