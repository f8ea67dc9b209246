#include "settings/LanguageSettings.h"

#include "common/Localization.h"
#include "settings/Settings.h"

#include <limits>

namespace brim {

namespace {

using nlohmann::json;

std::optional<int> integerField(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_number_integer()) return std::nullopt;
    if (found->is_number_unsigned()) {
        const auto value = found->get<std::uint64_t>();
        return value > static_cast<std::uint64_t>(std::numeric_limits<int>::max()) ? std::numeric_limits<int>::max()
                                                                                   : static_cast<int>(value);
    }
    const auto value = found->get<std::int64_t>();
    if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
    if (value < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
    return static_cast<int>(value);
}

std::optional<bool> booleanField(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_boolean()) return std::nullopt;
    return found->get<bool>();
}

std::optional<std::string> stringField(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

} // namespace

bool LanguageSettings::isEmpty() const {
    return !tabWidth && !indentWidth && !insertSpaces && !softWrap && !wrapGuides && !lineEnding && !encoding;
}

std::string LanguageSettings::summary(int defaultTabWidth,
                                      const std::function<std::string(std::string_view)>& lineEndingName,
                                      const std::function<std::string(std::string_view)>& encodingName) const {
    std::vector<std::string> parts;
    if (insertSpaces) {
        const int width = tabWidth.value_or(defaultTabWidth);
        if (!*insertSpaces) {
            parts.push_back(L("Tabs"));
        } else {
            parts.push_back(width == 1 ? L("1 space") : L("%d spaces", width));
        }
    } else if (tabWidth) {
        parts.push_back(L("Width %d", *tabWidth));
    }
    if (softWrap) parts.push_back(*softWrap ? L("Wrapped") : L("Not wrapped"));
    if (wrapGuides) {
        const auto columns = Settings::wrapGuideColumnsIn(*wrapGuides);
        if (columns.empty()) {
            parts.push_back(L("No guides"));
        } else {
            std::string list;
            for (const int column : columns) {
                if (!list.empty()) list += ", ";
                list += std::to_string(column);
            }
            parts.push_back(L("Guides at %@", list));
        }
    }
    if (lineEnding) parts.push_back(lineEndingName ? lineEndingName(*lineEnding) : *lineEnding);
    if (encoding) parts.push_back(encodingName ? encodingName(*encoding) : *encoding);
    std::string line;
    for (const auto& part : parts) {
        if (!line.empty()) line += " · ";
        line += part;
    }
    return line;
}

json LanguageSettings::toJSON() const {
    json object = json::object();
    object["language"] = language;
    if (tabWidth) object["tabWidth"] = *tabWidth;
    if (indentWidth) object["indentWidth"] = *indentWidth;
    if (insertSpaces) object["insertSpaces"] = *insertSpaces;
    if (softWrap) object["softWrap"] = *softWrap;
    if (wrapGuides) object["wrapGuides"] = *wrapGuides;
    if (lineEnding) object["lineEnding"] = *lineEnding;
    if (encoding) object["encoding"] = *encoding;
    return object;
}

std::optional<LanguageSettings> LanguageSettings::fromJSON(const json& value) {
    if (!value.is_object()) return std::nullopt;
    LanguageSettings record;
    auto language = stringField(value, "language");
    if (!language || language->empty()) return std::nullopt;
    record.language = std::move(*language);
    record.tabWidth = integerField(value, "tabWidth");
    record.indentWidth = integerField(value, "indentWidth");
    record.insertSpaces = booleanField(value, "insertSpaces");
    record.softWrap = booleanField(value, "softWrap");
    record.wrapGuides = stringField(value, "wrapGuides");
    record.lineEnding = stringField(value, "lineEnding");
    record.encoding = stringField(value, "encoding");
    return record;
}

} // namespace brim
