#include "language/LanguageFile.h"

#include "common/Localization.h"
#include "language/EmbeddedLanguages.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>

namespace brim::LanguageFile {

using nlohmann::json;

Failure Failure::notJSON(std::string_view detail) {
    return {Kind::notJSON, L("The language file is not JSON Brim can read: %@", detail)};
}

Failure Failure::wrongType(std::string_view key, std::string_view expected) {
    return {Kind::wrongType, L("The language file's \"%@\" should be %@.", key, L(expected))};
}

Failure Failure::unknownKind(std::string_view name) {
    return {Kind::unknownKind, L("\"%@\" is not one of the colours a rule can ask for.", name)};
}

Failure Failure::missingID() { return {Kind::missingID, L("The mode has no id.")}; }

namespace {

std::string trimmedBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

std::string lowercased(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return result;
}

/// The first code point of a UTF-8 string; nothing for an empty one. A bad lead byte stands as
/// itself rather than failing: a mode file's odd character is not worth refusing the file for.
std::optional<char32_t> firstCharacter(std::string_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const auto lead = static_cast<unsigned char>(text[0]);
    int length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 1;
    if (static_cast<std::size_t>(length) > text.size()) {
        length = 1;
    }
    if (length == 1) {
        return static_cast<char32_t>(lead);
    }
    char32_t value = lead & (0xFFu >> (length + 1));
    for (int index = 1; index < length; ++index) {
        value = (value << 6) | (static_cast<unsigned char>(text[static_cast<std::size_t>(index)]) & 0x3Fu);
    }
    return value;
}

/// Reads a file's keys into a record, key by key. Each reader leaves the field alone when the
/// key is absent, so defaults and shared fragments fill what the file does not say.
class Reader {
public:
    explicit Reader(const json& object) : object_(object) {}

    [[nodiscard]] bool has(const char* key) const { return object_.contains(key) && !object_.at(key).is_null(); }

    void string(const char* key, std::string& field) const {
        if (has(key)) {
            field = requireString(key, object_.at(key));
        }
    }

    void optionalString(const char* key, std::optional<std::string>& field) const {
        if (object_.contains(key)) {
            const auto& value = object_.at(key);
            field = value.is_null() ? std::nullopt : std::optional(requireString(key, value));
        }
    }

    void boolean(const char* key, bool& field) const {
        if (has(key)) {
            if (!object_.at(key).is_boolean()) {
                throw Failure::wrongType(key, "true or false");
            }
            field = object_.at(key).get<bool>();
        }
    }

    void strings(const char* key, std::vector<std::string>& field) const {
        if (has(key)) {
            field = list(key);
        }
    }

    void words(const char* key, WordSet& field) const {
        if (has(key)) {
            const auto items = list(key);
            field = WordSet(items.begin(), items.end());
        }
    }

    void characters(const char* key, CharacterSet& field) const {
        if (has(key)) {
            field.clear();
            for (const auto& item : list(key)) {
                if (const auto character = firstCharacter(item)) {
                    field.insert(*character);
                }
            }
        }
    }

    void character(const char* key, std::optional<char32_t>& field) const {
        if (object_.contains(key)) {
            const auto& value = object_.at(key);
            field = value.is_null() ? std::nullopt : firstCharacter(requireString(key, value));
        }
    }

    void pair(const char* key, std::optional<DelimiterPair>& field) const {
        if (object_.contains(key)) {
            const auto& value = object_.at(key);
            if (value.is_array() && value.size() == 2 && value[0].is_string() && value[1].is_string()) {
                field = DelimiterPair{value[0].get<std::string>(), value[1].get<std::string>()};
            } else if (value.is_null() || value.is_array()) {
                field = std::nullopt;   // any other length counts as none
            } else {
                throw Failure::wrongType(key, "a list of an opener and a closer");
            }
        }
    }

    /// An array of strings, or one string of words separated by blanks.
    [[nodiscard]] std::vector<std::string> list(const char* key) const {
        const auto& value = object_.at(key);
        std::vector<std::string> result;
        if (value.is_string()) {
            const auto text = value.get<std::string>();
            std::size_t position = 0;
            while (position < text.size()) {
                const auto start = text.find_first_not_of(" \t\n", position);
                if (start == std::string::npos) {
                    break;
                }
                const auto end = std::min(text.find_first_of(" \t\n", start), text.size());
                result.push_back(text.substr(start, end - start));
                position = end;
            }
            return result;
        }
        if (!value.is_array()) {
            throw Failure::wrongType(key, "a list of strings");
        }
        for (const auto& item : value) {
            result.push_back(requireString(key, item));
        }
        return result;
    }

private:
    static std::string requireString(const char* key, const json& value) {
        if (!value.is_string()) {
            throw Failure::wrongType(key, "text");
        }
        return value.get<std::string>();
    }

    const json& object_;
};

TokenKind kindNamed(const json& value) {
    const auto name = value.is_string() ? value.get<std::string>() : value.dump();
    const auto kind = tokenKindNamed(name);
    if (!kind) {
        throw Failure::unknownKind(name);
    }
    return *kind;
}

std::vector<HighlightRule> readRules(const json& value) {
    if (!value.is_array()) {
        throw Failure::wrongType("highlightRules", "a list of rules");
    }
    std::vector<HighlightRule> rules;
    for (const auto& item : value) {
        if (!item.is_object() || !item.contains("pattern") || !item["pattern"].is_string() || !item.contains("kind")) {
            throw Failure::wrongType("highlightRules", "a list of rules, each with a pattern and a kind");
        }
        HighlightRule rule;
        rule.pattern = item["pattern"].get<std::string>();
        rule.kind = kindNamed(item["kind"]);
        if (item.contains("group") && item["group"].is_number_integer()) {
            rule.group = item["group"].get<int>();
        }
        if (item.contains("caseInsensitive") && item["caseInsensitive"].is_boolean()) {
            rule.caseInsensitive = item["caseInsensitive"].get<bool>();
        }
        if (item.contains("over") && !item["over"].is_null()) {
            rule.over = kindNamed(item["over"]);
        }
        rules.push_back(std::move(rule));
    }
    return rules;
}

std::vector<TemplateIsland> readIslands(const json& value) {
    if (!value.is_array()) {
        throw Failure::wrongType("templateIslands", "a list of regions");
    }
    std::vector<TemplateIsland> islands;
    for (const auto& item : value) {
        if (!item.is_object() || !item.value("open", json()).is_string() || !item.value("close", json()).is_string()) {
            throw Failure::wrongType("templateIslands", "a list of regions, each with an open and a close");
        }
        islands.push_back({item["open"].get<std::string>(), item["close"].get<std::string>(),
                           item.value("isComment", false)});
    }
    return islands;
}

/// The fields every origin may set.
void readCommon(const Reader& reader, const json& object, Language& language) {
    reader.string("id", language.id);
    reader.string("displayName", language.displayName);
    reader.strings("extensions", language.extensions);
    for (auto& extension : language.extensions) {
        extension = lowercased(extension);
    }
    reader.strings("filenames", language.filenames);
    reader.words("keywords", language.keywords);
    reader.words("types", language.types);
    reader.words("constants", language.constants);
    reader.strings("lineComments", language.lineComments);
    reader.words("docLineComments", language.docLineComments);
    reader.pair("blockComment", language.blockComment);
    reader.boolean("nestedBlockComments", language.nestedBlockComments);
    reader.strings("stringDelimiters", language.stringDelimiters);
    reader.strings("rawStringPrefixes", language.rawStringPrefixes);
    reader.optionalString("charDelimiter", language.charDelimiter);
    reader.character("escapeCharacter", language.escapeCharacter);
    reader.optionalString("preprocessorPrefix", language.preprocessorPrefix);
    reader.optionalString("attributePrefix", language.attributePrefix);
    reader.characters("identifierExtra", language.identifierExtra);
    reader.characters("identifierStartExtra", language.identifierStartExtra);
    reader.characters("variableSigils", language.variableSigils);
    reader.boolean("caseSensitive", language.caseSensitive);
    reader.boolean("highlightsFunctionCalls", language.highlightsFunctionCalls);
    reader.strings("indentAfterSuffixes", language.indentAfterSuffixes);
    reader.strings("indentAfterPrefixes", language.indentAfterPrefixes);
    reader.strings("outdentPrefixes", language.outdentPrefixes);
    reader.characters("electricCharacters", language.electricCharacters);
    if (reader.has("foldStyle")) {
        const auto style = object.at("foldStyle").is_string() ? lowercased(object.at("foldStyle").get<std::string>()) : "";
        language.foldStyle = style == "brackets"           ? FoldStyle::brackets
                             : style == "markdownheadings" ? FoldStyle::markdownHeadings
                                                           : FoldStyle::indentation;
    }
    if (reader.has("highlightRules")) {
        language.highlightRules = readRules(object.at("highlightRules"));
    }
}

/// The fields only the program's own table may set: they switch on scanner features that a
/// user's mode cannot reach.
void readBuiltInOnly(const Reader& reader, const json& object, Language& language) {
    reader.strings("columnOneLineComments", language.columnOneLineComments);
    reader.boolean("capitalisedNamesAreTypes", language.capitalisedNamesAreTypes);
    reader.strings("heredocMarkers", language.heredocMarkers);
    reader.pair("interpolation", language.interpolation);
    reader.words("interpolationDelimiters", language.interpolationDelimiters);
    reader.boolean("keyStringsBeforeColon", language.keyStringsBeforeColon);
    reader.strings("templateOpens", language.templateOpens);
    reader.string("templateClose", language.templateClose);
    reader.string("templateLanguageID", language.templateLanguageID);
    if (reader.has("templateIslands")) {
        language.templateIslands = readIslands(object.at("templateIslands"));
    }
    reader.words("verbatimDelimiters", language.verbatimDelimiters);
    reader.character("interpolatedNameSigil", language.interpolatedNameSigil);
    reader.boolean("quotedIdentifiers", language.quotedIdentifiers);
}

void read(const json& object, Origin origin, Language& language) {
    const Reader reader(object);
    readCommon(reader, object, language);
    if (origin == Origin::builtIn) {
        readBuiltInOnly(reader, object, language);
    }
}

json parseObject(std::string_view text) {
    json object;
    try {
        object = json::parse(text.begin(), text.end(), nullptr, true, true);
    } catch (const json::exception& error) {
        throw Failure::notJSON(error.what());
    }
    if (!object.is_object()) {
        throw Failure::notJSON(L("the text is not one object"));
    }
    return object;
}

const json& presets() {
    static const json table = parseObject(EmbeddedLanguages::presets());
    return table;
}

} // namespace

Language parse(std::string_view text, std::string_view stem, Origin origin) {
    const json object = parseObject(text);

    Language language;
    language.stringDelimiters = {"\""};
    language.escapeCharacter = U'\\';
    language.identifierExtra = {U'_'};
    language.indentAfterSuffixes = {"{", "(", "["};
    language.outdentPrefixes = {"}", ")", "]"};
    language.electricCharacters = {U'}', U')', U']'};
    language.foldStyle = FoldStyle::indentation;
    language.capitalisedNamesAreTypes = true;

    if (origin == Origin::builtIn && object.contains("uses")) {
        for (const auto& name : Reader(object).list("uses")) {
            if (!presets().contains(name) || !presets().at(name).is_object()) {
                throw Failure::wrongType("uses", "the name of a shared fragment");
            }
            read(presets().at(name), origin, language);
        }
    }
    read(object, origin, language);

    // Words of a language that ignores case are looked up lower-cased: keep them so.
    if (!language.caseSensitive) {
        for (auto* set : {&language.keywords, &language.types, &language.constants}) {
            WordSet lowered;
            for (const auto& word : *set) {
                lowered.insert(lowercased(word));
            }
            *set = std::move(lowered);
        }
    }
    if (trimmedBlanks(language.id).empty()) {
        language.id = lowercased(stem);
    }
    if (trimmedBlanks(language.displayName).empty()) {
        language.displayName = std::string(stem);
    }
    if (language.id.empty()) {
        throw Failure::missingID();
    }
    return language;
}

} // namespace brim::LanguageFile
