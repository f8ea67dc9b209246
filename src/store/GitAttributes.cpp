#include "store/GitAttributes.h"

#include "settings/EditorConfig.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>

namespace brim::GitAttributes {

namespace {

constexpr int folderLimit = 64;

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

/// The next field of `line` up to a blank or tab, taken off the front.
std::string_view nextField(std::string_view& line) {
    line = trimmed(line);
    std::size_t end = 0;
    if (!line.empty() && line.front() == '"') {
        // A quoted pattern may hold blanks.
        const auto close = line.find('"', 1);
        end = close == std::string_view::npos ? line.size() : close + 1;
    } else {
        while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    }
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(end);
    return field;
}

std::optional<std::string> readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool exists(const std::filesystem::path& path, bool folder) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return false;
    return folder ? S_ISDIR(info.st_mode) : true;
}

bool isFalse(const std::map<std::string, std::string>& attributes, const std::string& name) {
    const auto found = attributes.find(name);
    return found != attributes.end() && found->second == "false";
}

} // namespace

std::vector<Pattern> parse(std::string_view text, const std::string& directory) {
    std::vector<Pattern> patterns;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = trimmed(text.substr(start, end - start));
        start = end + 1;
        if (line.empty() || line.front() == '#') continue;
        Pattern pattern;
        pattern.directory = directory;
        std::string_view glob = nextField(line);
        if (glob.size() >= 2 && glob.front() == '"' && glob.back() == '"') glob = glob.substr(1, glob.size() - 2);
        if (glob.empty()) continue;
        if (glob.front() == '!') {
            pattern.isNegated = true;
            glob.remove_prefix(1);
        }
        pattern.glob = std::string(glob);
        for (std::string_view field = nextField(line); !field.empty(); field = nextField(line)) {
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
        patterns.push_back(std::move(pattern));
    }
    return patterns;
}

Rules resolve(const std::vector<Pattern>& patterns, std::string_view path) {
    std::map<std::string, std::string> attributes;
    for (const Pattern& pattern : patterns) {
        // Git refuses negative patterns in attribute files; so does this.
        if (pattern.isNegated) continue;
        // A file's lines speak only for what lies below its folder.
        const std::string_view folder = pattern.directory;
        if (!folder.empty() && !(path.starts_with(folder) && (folder.back() == '/' || (path.size() > folder.size() && path[folder.size()] == '/')))) {
            continue;
        }
        if (!EditorConfig::matches(pattern.glob, path, pattern.directory)) continue;
        for (const auto& [name, value] : pattern.attributes) attributes[name] = value;
    }
    Rules rules;
    const auto binary = attributes.find("binary");
    const bool notText = isFalse(attributes, "text");
    rules.isBinary = (binary != attributes.end() && binary->second == "true") || notText;
    if (!notText) {
        if (const auto eol = attributes.find("eol"); eol != attributes.end()) {
            if (eol->second == "crlf") rules.lineEnding = LineEnding::crlf;
            else if (eol->second == "lf") rules.lineEnding = LineEnding::lf;
        }
        if (const auto charset = attributes.find("working-tree-encoding"); charset != attributes.end()) {
            rules.charset = encodingNamed(charset->second);
        }
    }
    return rules;
}

Rules rules(const std::filesystem::path& file) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(file, error).lexically_normal();
    if (error) return {};
    // Closest folder first while walking; resolved outermost first.
    std::vector<std::vector<Pattern>> found;
    std::filesystem::path folder = absolute.parent_path();
    std::optional<std::filesystem::path> root;
    for (int level = 0; level < folderLimit; ++level) {
        if (const auto text = readText(folder / ".gitattributes")) found.push_back(parse(*text, folder.string()));
        if (exists(folder / ".git", false)) {
            root = folder;
            break;
        }
        if (folder == folder.root_path() || !folder.has_parent_path()) break;
        folder = folder.parent_path();
    }
    std::vector<Pattern> patterns;
    for (auto lines = found.rbegin(); lines != found.rend(); ++lines) {
        patterns.insert(patterns.end(), std::make_move_iterator(lines->begin()), std::make_move_iterator(lines->end()));
    }
    if (root && exists(*root / ".git", true)) {
        // The repository's own attributes are relative to its root and override the tree's.
        if (const auto text = readText(*root / ".git" / "info" / "attributes")) {
            auto own = parse(*text, root->string());
            patterns.insert(patterns.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
        }
    }
    return resolve(patterns, absolute.string());
}

std::optional<TextEncoding> encodingNamed(std::string_view name) {
    std::string key;
    for (const char c : name) {
        if (c == '-' || c == '_') continue;
        key.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
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

} // namespace brim::GitAttributes
