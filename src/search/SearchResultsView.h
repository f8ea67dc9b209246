#pragma once

#include "bytes/LineIndex.h"
#include "search/SearchText.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brim {

/// A row of a results list: one match, with the line it is in.
struct SearchResult {
    /// A location and length in UTF-16 units.
    struct Span {
        std::int64_t location = 0;
        std::int64_t length = 0;
        friend bool operator==(const Span&, const Span&) = default;
    };

    ByteRange range;
    /// The line, from 0, and the match's UTF-16 column in it.
    std::int64_t line = 0;
    std::int64_t column = 0;
    /// The line without its line end, or a piece of a long one with "…" where it was cut.
    std::string text;
    /// Where the match stands in `text`, in UTF-16 units.
    Span matchInText;
    std::optional<std::filesystem::path> file;
    std::optional<std::string> documentName;
};

namespace SearchResultsView {

/// Lines longer than this many UTF-16 units are shown as a piece around the match.
inline constexpr std::int64_t longLine = 400;
/// How much of the line a piece keeps before the match.
inline constexpr std::int64_t leadIn = 60;

/// Rows for up to `limit` matches, which must be in ascending order. Line numbers come from
/// `lines` where it has indexed that far, otherwise from counting line ends along the way, so
/// the cost follows the distance covered, not the number of matches. Never fails: stray bytes
/// show as U+FFFD.
[[nodiscard]] std::vector<SearchResult> build(SearchText text, std::span<const ByteRange> ranges, std::int64_t limit,
                                              const LineIndex* lines = nullptr);

} // namespace SearchResultsView

} // namespace brim
