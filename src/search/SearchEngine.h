#pragma once

#include "common/BrimError.h"
#include "common/SerialQueue.h"
#include "search/Expression.h"
#include "search/LiteralMatcher.h"
#include "search/SearchQuery.h"
#include "search/SearchText.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace brim {

/// One match: a half-open range of byte offsets.
struct SearchHit {
    ByteRange range;
    friend bool operator==(const SearchHit&, const SearchHit&) = default;
};

/// Every match of a query, counted to the end.
struct FindAllResult {
    /// The first `limit` matches, in order.
    std::vector<ByteRange> matches;
    /// Every match found, also those past `limit`.
    std::int64_t total = 0;
    /// Start offsets of an even sample of all the matches, for the marks beside the scroll bar.
    std::vector<std::int64_t> spread;
    /// The cancel test turned true: the fields hold what was found before that.
    bool cancelled = false;
    /// An expression reached the engine's limits on one match (or a deadline passed): the fields
    /// hold what was found before it, and the rest of the text was not searched.
    bool timedOut = false;
};

/// Finds text in documents of any size: a literal byte scanner that runs at memory speed and
/// needs no line index, and a regular-expression path that runs PCRE2 over windows of whole
/// lines. All offsets in and out are byte offsets. Everything here is synchronous and may run
/// on any thread beside the document's owner; `isCancelled` may be called from several threads.
///
/// An expression matches within a window of about 1 MiB of whole lines and cannot match across
/// the end of one; `.` does not cross line ends.
namespace SearchEngine {

/// The block a literal scan reads at a time.
inline constexpr std::int64_t blockSize = 8'388'608;
/// The stretch of whole lines an expression sees at a time.
inline constexpr std::int64_t windowSize = 1'048'576;

/// The literal scanner for a query, or nothing when the query needs the expression engine: a
/// regular expression, a pattern with no bytes, one the text's character set cannot hold, or a
/// case-insensitive pattern with a character beyond ASCII. With `useHistogram` the anchors of a
/// text of 256 KiB or more are chosen by sampling it; a smaller text is scanned faster than it
/// could be sampled, and takes the static ranks.
[[nodiscard]] std::optional<LiteralMatcher> literalMatcher(const SearchQuery& query, SearchText text,
                                                           bool useHistogram = true);

/// The compiled expression for a query that has no literal matcher. Compiled expressions are
/// kept for reuse, so a search over many files compiles once. Throws `PatternError`.
[[nodiscard]] std::shared_ptr<const Expression> expression(const SearchQuery& query);

/// Throws `PatternError` if the query's expression (or the pattern escaped for the expression
/// engine) does not compile; returns at once for a query the literal scanner serves.
void validate(const SearchQuery& query);

/// Every match in the text, counted to the end; the first `limit` are kept (0 only counts) and
/// `spread` samples at most max(`spreadCapacity`, 8) of them. Matches never overlap. Throws
/// `PatternError` for a bad expression; cancelling or an expression that runs away returns what
/// was found, flagged.
[[nodiscard]] FindAllResult findAll(SearchText text, const SearchQuery& query, std::int64_t limit, int spreadCapacity,
                                    const Progress& progress = {}, const IsCancelled& isCancelled = {});

/// The first match at or after `from`; with `wrapAround`, then the first one before it. Nothing
/// when there is none or the search was cancelled. Throws `PatternError`, and `BrimError` when
/// an expression runs into the engine's limits.
[[nodiscard]] std::optional<SearchHit> findNext(SearchText text, const SearchQuery& query, std::int64_t from,
                                                const Progress& progress = {}, const IsCancelled& isCancelled = {});

/// The last match that ends at or before `before`, overlapping ones included for a literal.
/// Throws as `findNext` does.
[[nodiscard]] std::optional<SearchHit> scanBackward(SearchText text, const SearchQuery& query, std::int64_t before,
                                                    const Progress& progress = {},
                                                    const IsCancelled& isCancelled = {});

/// The matches inside `range`, at most `limit` of them (Replace All, a search in the
/// selection). Throws as `findNext` does.
[[nodiscard]] std::vector<ByteRange> collect(SearchText text, const SearchQuery& query, ByteRange range,
                                             std::int64_t limit, const IsCancelled& isCancelled = {});

/// The matches of a band of whole lines (`band` runs from the first line's start to the last
/// one's end) for the marks on screen. Never throws: a bad expression gives none, and an
/// expression slower than `deadline` leaves the band partly marked.
[[nodiscard]] std::vector<ByteRange> matches(SearchText text, const SearchQuery& query, ByteRange band,
                                             std::int64_t limit,
                                             std::chrono::milliseconds deadline = std::chrono::milliseconds(250));

/// Failure texts of the engine itself.
[[nodiscard]] BrimError expressionTooSlow();

} // namespace SearchEngine

} // namespace brim
