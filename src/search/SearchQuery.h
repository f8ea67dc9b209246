#pragma once

#include <string>

namespace brim {

/// What the user asked to find, as the find bar, a filter row or a terminal command builds it.
/// A plain value compared field by field.
struct SearchQuery {
    std::string pattern;
    std::string replacement;
    /// The pattern is a regular expression in ICU's syntax; otherwise it is text to find as it is.
    bool isRegex = false;
    bool caseSensitive = false;
    bool wholeWord = false;
    bool wrapAround = false;
    /// For replacing: keep the case of what is replaced.
    bool preserveCase = false;

    friend bool operator==(const SearchQuery&, const SearchQuery&) = default;
};

} // namespace brim
