#include "settings/EditorConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <mutex>
#include <tuple>

namespace brim::EditorConfig {

namespace {

// Longer section names are not patterns anyone wrote; like other readers of these files, such a
// section matches nothing.
constexpr std::size_t longestPattern = 4'096;
// A `.editorconfig` larger than this is not read.
constexpr std::int64_t largestFile = 1'048'576;
constexpr int foldersUpward = 64;

std::string lowered(std::string_view text) {
    std::string out(text);
    for (auto& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string_view trimmedBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// The code point of the UTF-8 sequence at `i` and its length; none for a byte that starts no
// valid sequence (an overlong form, a surrogate, a cut-off sequence).
std::optional<std::pair<char32_t, std::size_t>> decodeAt(std::string_view text, std::size_t i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) return std::pair{static_cast<char32_t>(c), std::size_t{1}};
    std::size_t extra = 0;
    char32_t lowest = 0;
    if (c >= 0xC2 && c <= 0xDF) {
        extra = 1;
        lowest = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
        extra = 2;
        lowest = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
        extra = 3;
        lowest = 0x10000;
    } else {
        return std::nullopt;
    }
    if (text.size() - i <= extra) return std::nullopt;
    char32_t value = c & (0x3Fu >> extra);
    for (std::size_t k = 1; k <= extra; ++k) {
        const auto next = static_cast<unsigned char>(text[i + k]);
        if ((next & 0xC0) != 0x80) return std::nullopt;
        value = (value << 6) | (next & 0x3Fu);
    }
    if (value < lowest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return std::nullopt;
    return std::pair{value, extra + 1};
}

bool isValidUTF8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto decoded = decodeAt(text, i);
        if (!decoded) return false;
        i += decoded->second;
    }
    return true;
}

// Code points of a UTF-8 text. A byte that starts no valid sequence stands for itself, moved out
// of the way of real characters, so that odd names still compare byte for byte.
std::u32string codePoints(std::string_view text) {
    std::u32string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (const auto decoded = decodeAt(text, i)) {
            out.push_back(decoded->first);
            i += decoded->second;
        } else {
            out.push_back(0x110000 + static_cast<unsigned char>(text[i]));
            ++i;
        }
    }
    return out;
}

// ---- Glob pieces ----

struct Piece {
    enum class Kind : std::uint8_t {
        character,   // one given character
        set,         // one character in (or, negated, not in) the ranges
        one,         // any one character but "/"
        run,         // any characters but "/"
        anything,    // any characters
        directories, // nothing, or any characters ending in "/": the middle of "a/**/b"
        number,      // a whole number from `low` to `high`, written without leading zeros
    };
    Kind kind = Kind::character;
    char32_t character = 0;
    bool negated = false;
    std::vector<std::pair<char32_t, char32_t>> ranges;
    std::int64_t low = 0;
    std::int64_t high = 0;
};

// A numeric range "{n..m}" at `at`; the position after it and the bounds, if there is one.
std::optional<std::tuple<std::size_t, std::int64_t, std::int64_t>> numericRange(const std::u32string& pattern,
                                                                               std::size_t at) {
    auto number = [&](std::size_t& i) -> std::optional<std::int64_t> {
        bool negative = false;
        if (i < pattern.size() && (pattern[i] == U'-' || pattern[i] == U'+')) {
            negative = pattern[i] == U'-';
            ++i;
        }
        const std::size_t start = i;
        std::int64_t value = 0;
        while (i < pattern.size() && pattern[i] >= U'0' && pattern[i] <= U'9') {
            if (i - start >= 18) return std::nullopt;
            value = value * 10 + static_cast<std::int64_t>(pattern[i] - U'0');
            ++i;
        }
        if (i == start) return std::nullopt;
        return negative ? -value : value;
    };
    if (at >= pattern.size() || pattern[at] != U'{') return std::nullopt;
    std::size_t i = at + 1;
    const auto low = number(i);
    if (!low || i + 1 >= pattern.size() || pattern[i] != U'.' || pattern[i + 1] != U'.') return std::nullopt;
    i += 2;
    const auto high = number(i);
    if (!high || i >= pattern.size() || pattern[i] != U'}') return std::nullopt;
    return std::tuple{i + 1, std::min(*low, *high), std::max(*low, *high)};
}

// A class "[...]" at `at`: the position after it and the piece. None when the bracket is never
// closed or the class holds a "/": then the bracket is an ordinary character.
std::optional<std::pair<std::size_t, Piece>> characterClass(const std::u32string& pattern, std::size_t at) {
    Piece piece;
    piece.kind = Piece::Kind::set;
    std::size_t i = at + 1;
    if (i < pattern.size() && pattern[i] == U'!') {
        piece.negated = true;
        ++i;
    }
    std::vector<char32_t> members;
    std::vector<bool> escaped;
    bool first = true;
    while (true) {
        if (i >= pattern.size()) return std::nullopt;
        char32_t c = pattern[i];
        if (c == U']' && !first) break;
        if (c == U'/') return std::nullopt;
        bool wasEscaped = false;
        if (c == U'\\' && i + 1 < pattern.size()) {
            c = pattern[++i];
            wasEscaped = true;
            if (c == U'/') return std::nullopt;
        }
        members.push_back(c);
        escaped.push_back(wasEscaped);
        first = false;
        ++i;
    }
    for (std::size_t k = 0; k < members.size(); ++k) {
        if (k + 2 < members.size() && members[k + 1] == U'-' && !escaped[k + 1]) {
            if (members[k] <= members[k + 2]) piece.ranges.emplace_back(members[k], members[k + 2]);
            k += 2; // a range whose end is below its start adds nothing
        } else {
            piece.ranges.emplace_back(members[k], members[k]);
        }
    }
    return std::pair{i + 1, std::move(piece)};
}

std::vector<Piece> globPieces(const std::u32string& pattern) {
    std::vector<Piece> pieces;
    auto literal = [&](char32_t c) {
        Piece piece;
        piece.character = c;
        pieces.push_back(std::move(piece));
    };
    auto kind = [&](Piece::Kind k) {
        Piece piece;
        piece.kind = k;
        pieces.push_back(std::move(piece));
    };
    std::size_t i = 0;
    while (i < pattern.size()) {
        const char32_t c = pattern[i];
        if (c == U'\\') {
            literal(i + 1 < pattern.size() ? pattern[i + 1] : U'\\');
            i += 2;
        } else if (c == U'*') {
            std::size_t end = i;
            while (end < pattern.size() && pattern[end] == U'*') ++end;
            if (end - i == 1) {
                kind(Piece::Kind::run);
                i = end;
                continue;
            }
            // "**" between slashes, or leading and followed by one, may stand for no folder at all:
            // "a/**/b" takes "a/b", and "**/b" takes "b".
            const bool afterSlash = i == 0 || (!pieces.empty() && pieces.back().kind == Piece::Kind::character &&
                                               pieces.back().character == U'/');
            if (afterSlash && end < pattern.size() && pattern[end] == U'/') {
                kind(Piece::Kind::directories);
                i = end + 1;
            } else {
                kind(Piece::Kind::anything);
                i = end;
            }
        } else if (c == U'?') {
            kind(Piece::Kind::one);
            ++i;
        } else if (c == U'[') {
            if (auto found = characterClass(pattern, i)) {
                pieces.push_back(std::move(found->second));
                i = found->first;
            } else {
                literal(c);
                ++i;
            }
        } else if (c == U'{') {
            if (auto range = numericRange(pattern, i)) {
                Piece piece;
                piece.kind = Piece::Kind::number;
                piece.low = std::get<1>(*range);
                piece.high = std::get<2>(*range);
                pieces.push_back(std::move(piece));
                i = std::get<0>(*range);
            } else {
                literal(c);
                ++i;
            }
        } else {
            literal(c);
            ++i;
        }
    }
    return pieces;
}

bool inSet(const Piece& piece, char32_t c) {
    const bool found = std::any_of(piece.ranges.begin(), piece.ranges.end(),
                                   [&](const auto& range) { return c >= range.first && c <= range.second; });
    return found != piece.negated;
}

// A dynamic programme over the text, pieces from last to first: `reach[i]` says that the pieces
// from this one on match the text from position i to its end. Time is pieces times characters
// (times the digits of a number), whatever the pattern.
bool globMatches(const std::vector<Piece>& pieces, const std::u32string& text) {
    const std::size_t n = text.size();
    std::vector<char> next(n + 1, 0);
    std::vector<char> reach(n + 1, 0);
    next[n] = 1;
    for (std::size_t p = pieces.size(); p-- > 0;) {
        const Piece& piece = pieces[p];
        bool laterSlash = false; // for `directories`: a "/" at or after i with the rest matching after it
        for (std::size_t i = n + 1; i-- > 0;) {
            const bool inside = i < n;
            bool value = false;
            switch (piece.kind) {
            case Piece::Kind::character: value = inside && text[i] == piece.character && next[i + 1]; break;
            case Piece::Kind::set: value = inside && inSet(piece, text[i]) && next[i + 1]; break;
            case Piece::Kind::one: value = inside && text[i] != U'/' && next[i + 1]; break;
            case Piece::Kind::run: value = next[i] || (inside && text[i] != U'/' && reach[i + 1]); break;
            case Piece::Kind::anything: value = next[i] || (inside && reach[i + 1]); break;
            case Piece::Kind::directories:
                if (inside && text[i] == U'/' && next[i + 1]) laterSlash = true;
                value = next[i] || laterSlash;
                break;
            case Piece::Kind::number: {
                std::size_t j = i;
                const bool negative = j < n && text[j] == U'-';
                if (negative) ++j;
                const std::size_t digits = j;
                std::int64_t number = 0;
                while (j < n && text[j] >= U'0' && text[j] <= U'9' && j - digits < 18) {
                    number = number * 10 + static_cast<std::int64_t>(text[j] - U'0');
                    ++j;
                    if (j - digits > 1 && text[digits] == U'0') break; // no leading zeros
                    const std::int64_t signedNumber = negative ? -number : number;
                    if (signedNumber >= piece.low && signedNumber <= piece.high && next[j]) {
                        value = true;
                        break;
                    }
                }
                break;
            }
            }
            reach[i] = value ? 1 : 0;
        }
        std::swap(next, reach);
    }
    return next[0] != 0;
}

// ---- Braces ----

// The position of the "}" that closes the "{" at `open`, skipping escaped characters.
std::optional<std::size_t> closingBrace(std::string_view pattern, std::size_t open) {
    int depth = 0;
    for (std::size_t i = open; i < pattern.size(); ++i) {
        if (pattern[i] == '\\') {
            ++i;
        } else if (pattern[i] == '{') {
            ++depth;
        } else if (pattern[i] == '}' && --depth == 0) {
            return i;
        }
    }
    return std::nullopt;
}

std::vector<std::string_view> alternatives(std::string_view body) {
    std::vector<std::string_view> pieces;
    int depth = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i < body.size(); ++i) {
        if (body[i] == '\\') {
            ++i;
        } else if (body[i] == '{') {
            ++depth;
        } else if (body[i] == '}') {
            --depth;
        } else if (body[i] == ',' && depth == 0) {
            pieces.push_back(body.substr(start, i - start));
            start = i + 1;
        }
    }
    pieces.push_back(body.substr(start));
    return pieces;
}

void expand(const std::string& pattern, std::size_t from, std::size_t limit, std::vector<std::string>& out) {
    std::size_t at = from;
    while (true) {
        std::size_t open = std::string::npos;
        for (std::size_t i = at; i < pattern.size(); ++i) {
            if (pattern[i] == '\\') {
                ++i;
            } else if (pattern[i] == '{') {
                open = i;
                break;
            }
        }
        if (open == std::string::npos) {
            if (out.size() < limit) out.push_back(pattern);
            return;
        }
        const auto close = closingBrace(pattern, open);
        if (!close) { // a brace without a partner is an ordinary character
            at = open + 1;
            continue;
        }
        const auto choices = alternatives(std::string_view(pattern).substr(open + 1, *close - open - 1));
        if (choices.size() < 2) { // "{word}", "{}" and "{1..9}" stay as written
            at = *close + 1;
            continue;
        }
        const std::string prefix = pattern.substr(0, open);
        const std::string suffix = pattern.substr(*close + 1);
        for (const auto choice : choices) {
            if (out.size() >= limit) return;
            expand(prefix + std::string(choice) + suffix, open, limit, out);
        }
        return;
    }
}

// ---- Reading files ----

std::optional<File> readFile(const std::filesystem::path& folder) {
    const auto path = folder / ".editorconfig";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > largestFile) {
        ::close(fd);
        return std::nullopt;
    }
    std::string text;
    std::array<char, 16'384> buffer{};
    while (true) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            ::close(fd);
            return std::nullopt;
        }
        if (got == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(got));
        if (static_cast<std::int64_t>(text.size()) > largestFile) {
            ::close(fd);
            return std::nullopt;
        }
    }
    ::close(fd);
    if (!isValidUTF8(text) || text.find('\0') != std::string::npos) return std::nullopt;
    return parse(text, folder.string());
}

std::mutex lookupLock;
int openScopes = 0;                                          // guarded by lookupLock
std::map<std::string, std::optional<File>> lookedUp;         // guarded by lookupLock

std::optional<File> lookUp(const std::filesystem::path& folder) {
    {
        std::lock_guard guard(lookupLock);
        if (openScopes > 0) {
            const auto found = lookedUp.find(folder.string());
            if (found != lookedUp.end()) return found->second;
        }
    }
    auto file = readFile(folder);
    std::lock_guard guard(lookupLock);
    if (openScopes > 0) lookedUp.emplace(folder.string(), file);
    return file;
}

std::optional<int> width(const std::optional<std::string>& value) {
    if (!value || value->empty()) return std::nullopt;
    std::string_view text = *value;
    bool negative = false;
    if (text.front() == '+' || text.front() == '-') {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty() || text.size() > 9) return std::nullopt;
    int number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        number = number * 10 + (c - '0');
    }
    if (negative || number < 1 || number > 64) return std::nullopt;
    return number;
}

std::optional<bool> truth(const std::optional<std::string>& value) {
    if (value == "true") return true;
    if (value == "false") return false;
    return std::nullopt;
}

} // namespace

bool Rules::isEmpty() const { return *this == Rules{}; }

File parse(std::string_view text, std::string directory) {
    File file;
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    std::optional<Section> pending;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find_first_of("\r\n", start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = trimmedBlanks(text.substr(start, end - start));
        start = end + (text.substr(end).starts_with("\r\n") ? 2 : 1);

        if (line.empty() || line.front() == '#' || line.front() == ';') continue;
        if (line.front() == '[' && line.back() == ']' && line.size() >= 2) {
            if (pending) file.sections.push_back(std::move(*pending));
            pending = Section{std::string(line.substr(1, line.size() - 2)), directory, {}};
            continue;
        }
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string key = lowered(trimmedBlanks(line.substr(0, equals)));
        if (key.empty()) continue;
        std::string_view value = line.substr(equals + 1);
        // An inline comment needs a blank before it, so "a#b" keeps its "#".
        for (std::size_t i = 1; i < value.size(); ++i) {
            if ((value[i] == '#' || value[i] == ';') && (value[i - 1] == ' ' || value[i - 1] == '\t')) {
                value = value.substr(0, i);
                break;
            }
        }
        value = trimmedBlanks(value);
        if (pending) {
            pending->values[key] = std::string(value);
        } else if (key == "root" && lowered(value) == "true") {
            file.isRoot = true;
        }
    }
    if (pending) file.sections.push_back(std::move(*pending));
    return file;
}

std::vector<std::string> expandBraces(std::string_view pattern, std::size_t limit) {
    std::vector<std::string> out;
    if (limit == 0) return out;
    expand(std::string(pattern), 0, limit, out);
    return out;
}

bool matches(std::string_view pattern, std::string_view path, std::string_view relativeTo) {
    if (pattern.empty() || pattern.size() > longestPattern) return false;
    std::string_view relative = path;
    if (!relativeTo.empty() && relative.starts_with(relativeTo) &&
        (relativeTo.back() == '/' || relative.size() == relativeTo.size() || relative[relativeTo.size()] == '/')) {
        relative.remove_prefix(relativeTo.size());
    }
    while (relative.starts_with('/')) relative.remove_prefix(1);
    const bool anchored = pattern.find('/') != std::string_view::npos;
    if (pattern.starts_with('/')) pattern.remove_prefix(1);

    const std::u32string whole = codePoints(relative);
    const auto slash = relative.rfind('/');
    const std::u32string name = codePoints(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
    for (const auto& expansion : expandBraces(pattern)) {
        const auto pieces = globPieces(codePoints(expansion));
        if (globMatches(pieces, whole)) return true;
        if (!anchored && globMatches(pieces, name)) return true;
    }
    return false;
}

std::map<std::string, std::string> resolvedValues(const std::vector<File>& files, std::string_view path) {
    std::map<std::string, std::string> values;
    for (const auto& file : files) {
        for (const auto& section : file.sections) {
            if (!matches(section.pattern, path, section.directory)) continue;
            for (const auto& [key, value] : section.values) {
                if (lowered(value) == "unset") {
                    values.erase(key);
                } else {
                    values[key] = value;
                }
            }
        }
    }
    return values;
}

Rules rulesFrom(const std::map<std::string, std::string>& values) {
    auto get = [&](const char* key) -> std::optional<std::string> {
        const auto found = values.find(key);
        if (found == values.end()) return std::nullopt;
        return lowered(found->second);
    };
    Rules rules;
    const auto style = get("indent_style");
    const auto indentSize = width(get("indent_size"));
    const auto tabWidth = width(get("tab_width"));
    if (style == "space") {
        rules.indentStyle = IndentationStyle::spaces(indentSize.value_or(tabWidth.value_or(4)));
    } else if (style == "tab") {
        rules.indentStyle = IndentationStyle::tabs();
    } else if (indentSize) {
        rules.indentStyle = IndentationStyle::spaces(*indentSize);
    }
    // As in other readers of these files, a tab is as wide as an indent unless it says otherwise.
    rules.tabWidth = tabWidth ? tabWidth : indentSize;

    const auto ending = get("end_of_line");
    if (ending == "lf" || ending == "crlf" || ending == "cr") rules.lineEnding = ending;

    const auto charset = get("charset");
    if (charset == "utf-8" || charset == "utf8") {
        rules.charset = "utf8";
        rules.byteOrderMark = false;
    } else if (charset == "utf-8-bom") {
        rules.charset = "utf8";
        rules.byteOrderMark = true;
    } else if (charset == "utf-16le") {
        rules.charset = "utf16le";
    } else if (charset == "utf-16be") {
        rules.charset = "utf16be";
    } else if (charset == "latin1") {
        rules.charset = "latin1";
    }

    rules.trimTrailingWhitespace = truth(get("trim_trailing_whitespace"));
    rules.insertFinalNewline = truth(get("insert_final_newline"));

    if (const auto length = get("max_line_length")) {
        std::string_view text = *length;
        if (text.starts_with('+')) text.remove_prefix(1);
        if (!text.empty() && text.size() <= 18 &&
            std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            const long long number = std::stoll(std::string(text));
            if (number >= 1) rules.maxLineLength = static_cast<int>(std::min<long long>(number, INT_MAX));
        }
    }
    return rules;
}

Rules resolve(const std::vector<File>& files, std::string_view path) { return rulesFrom(resolvedValues(files, path)); }

Rules rules(const std::filesystem::path& file) {
    std::error_code error;
    std::filesystem::path path = std::filesystem::absolute(file, error);
    if (error) return {};
    path = path.lexically_normal();
    std::filesystem::path folder = path.parent_path();
    std::vector<File> files;
    for (int n = 0; n < foldersUpward; ++n) {
        if (auto found = lookUp(folder)) {
            files.push_back(std::move(*found));
            if (files.back().isRoot) break;
        }
        auto parent = folder.parent_path();
        if (parent == folder) break;
        folder = std::move(parent);
    }
    std::reverse(files.begin(), files.end());
    return resolve(files, path.string());
}

LookupScope::LookupScope() {
    std::lock_guard guard(lookupLock);
    ++openScopes;
}

LookupScope::~LookupScope() {
    std::lock_guard guard(lookupLock);
    if (--openScopes == 0) lookedUp.clear();
}

Application application(const Rules& rules) {
    Application result;
    result.tabWidth = rules.tabWidth;
    result.indentation = rules.indentStyle;
    result.lineEnding = rules.lineEnding;
    return result;
}

} // namespace brim::EditorConfig
