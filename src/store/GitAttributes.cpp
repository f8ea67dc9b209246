#include "store/GitAttributes.h"

#include "settings/EditorConfig.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <system_error>

namespace brim::GitAttributes {

namespace {

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

std::string valueOf(const std::map<std::string, std::string>& attributes, const std::string& name) {
    const auto found = attributes.find(name);
    return found == attributes.end() ? std::string() : found->second;
}

} // namespace

std::vector<Pattern> parse(std::string_view text, const std::string& directory) {
    std::vector<Pattern> patterns;
    std::size_t at = 0;
    while (at <= text.size()) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const auto line = trimmed(text.substr(at, end - at));
        at = end + 1;
        if (line.empty() || line.front() == '#') continue;

        std::size_t split = std::min(line.find_first_of(" \t"), line.size());
        std::string_view glob = line.substr(0, split);
        if (glob.size() >= 2 && glob.front() == '"' && glob.back() == '"') glob = glob.substr(1, glob.size() - 2);

        Pattern pattern;
        pattern.directory = directory;
        pattern.isNegated = !glob.empty() && glob.front() == '!';
        pattern.glob = std::string(pattern.isNegated ? glob.substr(1) : glob);
        auto rest = line.substr(split);
        while (!rest.empty()) {
            const std::size_t start = rest.find_first_not_of(" \t");
            if (start == std::string_view::npos) break;
            rest.remove_prefix(start);
            const std::size_t stop = std::min(rest.find_first_of(" \t"), rest.size());
            const auto field = rest.substr(0, stop);
            rest.remove_prefix(stop);
            if (field.front() == '-') {
                pattern.attributes[std::string(field.substr(1))] = "false";
            } else if (field.front() == '!') {
                pattern.attributes[std::string(field.substr(1))] = "unset";
            } else if (const auto equals = field.find('='); equals != std::string_view::npos) {
                pattern.attributes[std::string(field.substr(0, equals))] = std::string(field.substr(equals + 1));
            } else {
                pattern.attributes[std::string(field)] = "true";
            }
        }
        if (!pattern.glob.empty()) patterns.push_back(std::move(pattern));
    }
    return patterns;
}

Rules resolve(const std::vector<Pattern>& patterns, std::string_view path) {
    std::map<std::string, std::string> attributes;
    for (const auto& pattern : patterns) {
        if (pattern.isNegated) continue;
        if (!EditorConfig::matches(pattern.glob, path, pattern.directory)) continue;
        for (const auto& [name, value] : pattern.attributes) attributes[name] = value;
    }
    Rules rules;
    const std::string text = valueOf(attributes, "text");
    rules.isBinary = valueOf(attributes, "binary") == "true" || text == "false";
    if (text != "false") {
        const std::string eol = valueOf(attributes, "eol");
        if (eol == "crlf") rules.lineEnding = LineEnding::crlf;
        if (eol == "lf") rules.lineEnding = LineEnding::lf;
        const std::string charset = valueOf(attributes, "working-tree-encoding");
        if (!charset.empty()) rules.charset = encodingNamed(charset);
    }
    return rules;
}

std::optional<TextEncoding> encodingNamed(std::string_view name) {
    std::string key;
    for (const char c : name) {
        if (c == '-' || c == '_') continue;
        key += static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    }
    if (key == "UTF8") return TextEncoding::utf8();
    if (key == "UTF16LE") return TextEncoding::utf16le();
    if (key == "UTF16" || key == "UTF16BE") return TextEncoding::utf16be();
    if (key == "UTF32LE") return TextEncoding::utf32le();
    if (key == "UTF32BE") return TextEncoding::utf32be();
    if (key == "LATIN1" || key == "ISO88591") return TextEncoding::latin1();
    if (key == "WINDOWS1252") return TextEncoding::cp1252();
    if (key == "SHIFTJIS" || key == "SJIS") return TextEncoding::shiftJIS();
    return std::nullopt;
}

Rules rules(const std::filesystem::path& file) {
    std::error_code error;
    auto absolute = std::filesystem::absolute(file, error).lexically_normal();
    if (error) return {};
    std::vector<std::vector<Pattern>> files;   // closest first
    auto folder = absolute.parent_path();
    for (int level = 0; level < 64; ++level) {
        std::ifstream in(folder / ".gitattributes", std::ios::binary);
        if (in) {
            const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            files.push_back(parse(text, folder.string()));
        }
        if (std::filesystem::exists(folder / ".git", error)) break;
        const auto parent = folder.parent_path();
        if (parent == folder) break;
        folder = parent;
    }
    std::vector<Pattern> patterns;
    for (auto it = files.rbegin(); it != files.rend(); ++it) patterns.insert(patterns.end(), it->begin(), it->end());
    return resolve(patterns, absolute.string());
}

} // namespace brim::GitAttributes
