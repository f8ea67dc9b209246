#include "compare/ByteDiff.h"

#include <algorithm>

namespace brim::ByteDiff {

namespace {

bool isContinuation(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

} // namespace

Edit minimalEdit(std::span<const std::uint8_t> oldBytes, std::span<const std::uint8_t> newBytes, bool utf8Boundaries) {
    if (oldBytes.size() == newBytes.size() && std::equal(oldBytes.begin(), oldBytes.end(), newBytes.begin())) return {};
    const std::size_t shorter = std::min(oldBytes.size(), newBytes.size());
    std::size_t prefix = 0;
    while (prefix < shorter && oldBytes[prefix] == newBytes[prefix]) ++prefix;
    if (utf8Boundaries) {
        // Begin before the whole character, so the replacement is whole characters too.
        while (prefix > 0 && prefix < newBytes.size() && isContinuation(newBytes[prefix])) --prefix;
    }
    std::size_t suffix = 0;
    const std::size_t suffixRoom = shorter - prefix;
    while (suffix < suffixRoom && oldBytes[oldBytes.size() - 1 - suffix] == newBytes[newBytes.size() - 1 - suffix]) {
        ++suffix;
    }
    if (utf8Boundaries) {
        while (suffix > 0 && isContinuation(newBytes[newBytes.size() - suffix])) --suffix;
    }
    Edit edit;
    edit.offset = static_cast<std::int64_t>(prefix);
    edit.removedLength = static_cast<std::int64_t>(oldBytes.size() - suffix - prefix);
    edit.inserted.assign(newBytes.begin() + static_cast<std::ptrdiff_t>(prefix),
                         newBytes.end() - static_cast<std::ptrdiff_t>(suffix));
    return edit;
}

std::vector<std::uint8_t> normalizeLineEndings(std::span<const std::uint8_t> text, std::string_view ending) {
    std::vector<std::uint8_t> out;
    if (ending == "\n" || ending.empty()) return {text.begin(), text.end()};
    out.reserve(text.size() + text.size() / 16);
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\n') continue;
        std::size_t lineEnd = i;
        if (lineEnd > start && text[lineEnd - 1] == '\r') --lineEnd;
        out.insert(out.end(), text.begin() + static_cast<std::ptrdiff_t>(start), text.begin() + static_cast<std::ptrdiff_t>(lineEnd));
        out.insert(out.end(), ending.begin(), ending.end());
        start = i + 1;
    }
    out.insert(out.end(), text.begin() + static_cast<std::ptrdiff_t>(start), text.end());
    return out;
}

} // namespace brim::ByteDiff
