#include "search/ExpressionSyntax.h"

#include "common/Localization.h"

#include <unicode/uchar.h>

#include <cstdio>
#include <optional>
#include <vector>

namespace brim {

PatternError PatternError::invalid(std::string_view description) {
    return {Kind::invalid, L("Invalid pattern: %@", std::string(description))};
}

PatternError PatternError::unsupported(std::string_view description) {
    return {Kind::unsupported, L("Invalid pattern: %@", std::string(description))};
}

namespace ExpressionSyntax {

namespace {

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isASCIIAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// The length of the UTF-8 sequence a lead byte starts; 1 for a stray byte.
std::size_t sequenceLength(char lead) {
    const auto byte = static_cast<unsigned char>(lead);
    if (byte >= 0xF0 && byte <= 0xF4) return 4;
    if (byte >= 0xE0) return byte <= 0xEF ? 3 : 1;
    if (byte >= 0xC2) return 2;
    return 1;
}

std::string hexEscape(std::uint32_t value) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "\\x{%X}", value);
    return buffer;
}

std::optional<std::uint32_t> parseHex(std::string_view digits) {
    std::uint32_t value = 0;
    for (const char c : digits) {
        if (!isHexDigit(c)) return std::nullopt;
        const auto digit = static_cast<std::uint32_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
        value = value * 16 + digit;
    }
    return value;
}

std::optional<std::uint32_t> characterNamed(const std::string& name) {
    for (const UCharNameChoice choice : {U_UNICODE_CHAR_NAME, U_CHAR_NAME_ALIAS, U_EXTENDED_CHAR_NAME}) {
        UErrorCode status = U_ZERO_ERROR;
        const UChar32 scalar = u_charFromName(choice, name.c_str(), &status);
        if (U_SUCCESS(status) && scalar >= 0) return static_cast<std::uint32_t>(scalar);
    }
    return std::nullopt;
}

/// One open group, as far as the translator cares.
struct Group {
    bool lookbehind = false;
};

} // namespace

std::string toPCRE2(std::string_view p) {
    std::string out;
    out.reserve(p.size() + 8);
    std::vector<Group> groups;
    int lookbehinds = 0;
    int classDepth = 0;              // nested sets open inside a class; 0 outside any class
    std::size_t classContentStart = 0;
    const std::size_t n = p.size();

    const auto unboundedLookbehind = [] {
        return PatternError::unsupported(
            L("a lookbehind, (?<=…) or (?<!…), must have a bounded length: *, + and {n,} cannot stand inside one."));
    };

    std::size_t i = 0;
    while (i < n) {
        const char c = p[i];
        if (c == '\\') {
            if (i + 1 >= n) {
                out += c;  // the engine says what is wrong with a lone backslash at the end
                ++i;
                continue;
            }
            const char e = p[i + 1];
            if (e == 'Q') {
                const std::size_t end = p.find("\\E", i + 2);
                const std::size_t stop = end == std::string_view::npos ? n : end + 2;
                out.append(p.substr(i, stop - i));
                i = stop;
                continue;
            }
            if (e == 'u' || e == 'U') {
                const std::size_t digits = e == 'u' ? 4 : 8;
                const auto value = i + 2 + digits <= n ? parseHex(p.substr(i + 2, digits)) : std::nullopt;
                if (!value || *value > 0x10FFFF) {
                    throw PatternError::invalid(e == 'u' ? L("\\u must be followed by four hexadecimal digits.")
                                                         : L("\\U must be followed by eight hexadecimal digits, up to 0010FFFF."));
                }
                out += hexEscape(*value);
                i += 2 + digits;
                continue;
            }
            if (e == 'N' && i + 2 < n && p[i + 2] == '{') {
                const std::size_t close = p.find('}', i + 3);
                if (close == std::string_view::npos) throw PatternError::invalid(L("\\N{ has no closing }."));
                const std::string name(p.substr(i + 3, close - i - 3));
                const auto scalar = characterNamed(name);
                if (!scalar) throw PatternError::invalid(L("there is no character named “%@”.", name));
                out += hexEscape(*scalar);
                i = close + 1;
                continue;
            }
            const std::size_t length = 1 + sequenceLength(e);
            out.append(p.substr(i, std::min(length, n - i)));
            i += length;
            continue;
        }
        if (classDepth > 0) {
            if (c == '[' && i + 1 < n && p[i + 1] == ':') {
                const std::size_t close = p.find(":]", i + 2);
                if (close != std::string_view::npos) {
                    out.append(p.substr(i, close + 2 - i));
                    i = close + 2;
                    continue;
                }
            }
            if (c == '[') {
                if (i + 1 < n && p[i + 1] == '^') {
                    throw PatternError::unsupported(L("a negated set inside a character class, such as [a[^b]], is not supported."));
                }
                ++classDepth;  // a nested set only adds to the class: its members join it
                ++i;
                continue;
            }
            if (c == ']' && i == classContentStart) {
                out += "\\]";
                ++i;
                continue;
            }
            if (c == ']') {
                --classDepth;
                if (classDepth == 0) out += ']';
                ++i;
                continue;
            }
            if ((c == '&' || c == '-') && i + 1 < n && p[i + 1] == c) {
                throw PatternError::unsupported(
                    L("set operations in a character class (&& and --) are not supported; write the class out instead."));
            }
            out += c;
            ++i;
            continue;
        }
        switch (c) {
        case '[':
            classDepth = 1;
            out += c;
            ++i;
            if (i < n && p[i] == '^') {
                out += '^';
                ++i;
            }
            classContentStart = i;
            continue;
        case '(': {
            const bool behind = p.substr(i, 4) == "(?<=" || p.substr(i, 4) == "(?<!";
            groups.push_back({behind});
            if (behind) ++lookbehinds;
            break;
        }
        case ')':
            if (!groups.empty()) {
                if (groups.back().lookbehind) --lookbehinds;
                groups.pop_back();
            }
            break;
        case '*':
        case '+':
            if (lookbehinds > 0) throw unboundedLookbehind();
            break;
        case '{':
            if (lookbehinds > 0) {
                const std::size_t close = p.find('}', i);
                if (close != std::string_view::npos) {
                    const std::string_view inside = p.substr(i + 1, close - i - 1);
                    if (!inside.empty() && inside.back() == ',') throw unboundedLookbehind();
                }
            }
            break;
        default:
            break;
        }
        out += c;
        ++i;
    }
    return out;
}

std::string escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size() * 2);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            out += hexEscape(byte);
        } else if (byte < 0x80 && !isASCIIAlphanumeric(c) && c != '_' && c != ' ') {
            out += '\\';
            out += c;
        } else {
            out += c;
        }
    }
    return out;
}

namespace {

/// Whether a `|` stands outside every group, class and quoted stretch.
bool hasTopLevelAlternation(std::string_view p) {
    int depth = 0;
    bool inClass = false;
    for (std::size_t i = 0; i < p.size(); ++i) {
        const char c = p[i];
        if (c == '\\') {
            if (i + 1 < p.size() && p[i + 1] == 'Q') {
                const std::size_t end = p.find("\\E", i + 2);
                if (end == std::string_view::npos) return false;
                i = end + 1;
            } else {
                ++i;
            }
            continue;
        }
        if (inClass) {
            if (c == ']') inClass = false;
            continue;
        }
        if (c == '[') {
            inClass = true;
            if (i + 1 < p.size() && p[i + 1] == '^') ++i;
            if (i + 1 < p.size() && p[i + 1] == ']') ++i;  // a leading ] belongs to the class
        } else if (c == '(') {
            ++depth;
        } else if (c == ')') {
            --depth;
        } else if (c == '|' && depth <= 0) {
            return true;
        }
    }
    return false;
}

bool isQuantifier(char c) { return c == '?' || c == '*' || c == '+' || c == '{'; }

} // namespace

std::string requiredPrefix(std::string_view p, bool caseInsensitive) {
    if (hasTopLevelAlternation(p)) return {};
    std::size_t i = 0;
    // Zero-width assertions at the start are tested by the anchored match at each candidate.
    while (i < p.size()) {
        if (p[i] == '^') {
            ++i;
        } else if (p.substr(i, 2) == "\\b" || p.substr(i, 2) == "\\B") {
            i += 2;
        } else {
            break;
        }
    }
    std::string prefix;
    while (i < p.size()) {
        const char c = p[i];
        std::string_view piece;
        std::size_t next = i;
        if (c == '\\') {
            if (i + 1 >= p.size()) break;
            const char e = p[i + 1];
            if (isASCIIAlphanumeric(e) || static_cast<unsigned char>(e) >= 0x80) break;
            piece = p.substr(i + 1, 1);
            next = i + 2;
        } else if (static_cast<unsigned char>(c) >= 0x80) {
            const std::size_t length = sequenceLength(c);
            piece = p.substr(i, length);
            next = i + length;
        } else if (std::string_view(".^$|?*+()[]{}").find(c) != std::string_view::npos) {
            break;
        } else {
            piece = p.substr(i, 1);
            next = i + 1;
        }
        if (next < p.size() && isQuantifier(p[next])) break;  // the piece may repeat zero times
        if (caseInsensitive) {
            const auto byte = static_cast<unsigned char>(piece.front());
            const char lower = static_cast<char>(byte | 0x20);
            if (byte >= 0x80 || ((byte | 0x20) >= 'a' && (byte | 0x20) <= 'z' && (lower == 'k' || lower == 's'))) break;
        }
        prefix.append(piece);
        i = next;
    }
    return prefix;
}

} // namespace ExpressionSyntax

} // namespace brim
