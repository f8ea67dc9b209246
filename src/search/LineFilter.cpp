#include "search/LineFilter.h"

#include "bytes/ByteScan.h"
#include "common/Parallel.h"
#include "search/Expression.h"
#include "search/SearchEngine.h"
#include "search/SearchWindow.h"

#include <algorithm>
#include <bit>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <memory>
#include <mutex>

namespace brim {

SearchQuery FilterCondition::query() const {
    SearchQuery query;
    query.pattern = pattern;
    query.isRegex = isRegex;
    query.caseSensitive = caseSensitive;
    query.wholeWord = wholeWord;
    return query;
}

LineFilterStep LineFilterStep::search(SearchQuery query, bool show) {
    LineFilterStep step;
    step.kind = Kind::search;
    step.query = std::move(query);
    step.show = show;
    return step;
}

LineFilterStep LineFilterStep::selected(std::vector<LineRun> lines, bool show) {
    LineFilterStep step;
    step.kind = Kind::selection;
    step.selection = std::move(lines);
    step.show = show;
    return step;
}

LineFilterStep LineFilterStep::from(const FilterCondition& condition) { return search(condition.query(), condition.show); }

namespace LineFilter {

namespace {

constexpr std::int64_t scanChunk = 65'536;

/// The processors the pool runs on, asked once: the system reads a file to answer.
std::size_t processors() {
    static const std::size_t count = activeProcessorCount();
    return count;
}

bool isWordByte(std::uint8_t byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           byte == '_' || byte >= 0x80;
}

/// The line ends in a stretch and where the last one stands (-1 for none), in one pass.
struct NewlineTally {
    std::int64_t count = 0;
    std::int64_t last = -1;
};

#if defined(__x86_64__)
__attribute__((target("avx2,popcnt,lzcnt"))) NewlineTally tallyAVX2(const std::uint8_t* data, std::int64_t from,
                                                                   std::int64_t to) {
    NewlineTally tally;
    const __m256i newline = _mm256_set1_epi8('\n');
    std::int64_t i = from;
    for (; i + 32 <= to; i += 32) {
        const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i));
        const auto mask = static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bytes, newline)));
        if (mask != 0) {
            tally.count += std::popcount(mask);
            tally.last = i + 31 - std::countl_zero(mask);
        }
    }
    for (; i < to; ++i) {
        if (data[i] == '\n') {
            ++tally.count;
            tally.last = i;
        }
    }
    return tally;
}
#endif

NewlineTally tallyNewlines(const std::uint8_t* data, std::int64_t from, std::int64_t to) {
#if defined(__x86_64__)
    static const bool avx2 = __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("popcnt") != 0 &&
                             __builtin_cpu_supports("lzcnt") != 0;
    if (avx2) return tallyAVX2(data, from, to);
#endif
    NewlineTally tally;
    for (std::int64_t i = from; i < to; ++i) {
        if (data[i] == '\n') {
            ++tally.count;
            tally.last = i;
        }
    }
    return tally;
}

/// Adds a line to a list of runs: it grows the last run when it follows it.
void record(std::vector<LineRun>& runs, std::int64_t line, ByteRange bytes) {
    if (!runs.empty() && runs.back().last + 1 == line) {
        runs.back().last = line;
        runs.back().bytes.upper = bytes.upper;
        return;
    }
    runs.push_back({line, line, bytes});
}

/// The first byte after the line end at or after `offset` (within `limit`), or `limit`.
std::int64_t endOfLineFrom(const ByteSource& source, std::int64_t offset, std::int64_t limit) {
    while (offset < limit) {
        const std::int64_t upper = std::min(limit, offset + scanChunk);
        std::int64_t found = -1;
        source.withBytes({offset, upper}, [&found](std::span<const std::uint8_t> bytes) {
            found = ByteScan::firstNewline(bytes.data(), static_cast<std::int64_t>(bytes.size()));
        });
        if (found >= 0) return offset + found + 1;
        offset = upper;
    }
    return limit;
}

/// The start of the line holding byte `offset`.
std::int64_t startOfLineHolding(const ByteSource& source, std::int64_t offset) {
    std::int64_t upper = offset;
    while (upper > 0) {
        const std::int64_t lower = std::max<std::int64_t>(0, upper - scanChunk);
        std::int64_t found = -1;
        source.withBytes({lower, upper}, [&found](std::span<const std::uint8_t> bytes) {
            const void* hit = ::memrchr(bytes.data(), '\n', bytes.size());
            if (hit != nullptr) found = static_cast<const std::uint8_t*>(hit) - bytes.data();
        });
        if (found >= 0) return lower + found + 1;
        upper = lower;
    }
    return 0;
}

/// What a scan looks for.
struct Plan {
    std::optional<LiteralMatcher> literal;
    std::shared_ptr<const Expression> expression;
    bool wholeWord = false;
};

/// The lines of one block with a match, numbered from the block's first line, and the block's
/// line ends.
struct BlockResult {
    std::vector<LineRun> runs;
    std::int64_t newlines = 0;
    bool cancelled = false;
};

/// Scans one block of whole lines: one match a line is enough, so after a hit the scan goes on
/// at the next line.
BlockResult scanBlock(SearchText text, const Plan& plan, Expression::Matcher* matcher, ByteRange block,
                      const IsCancelled& isCancelled) {
    BlockResult result;
    result.runs.reserve(256);
    const ByteSource& source = text.bytes();
    const std::int64_t total = source.count();
    source.withBytes(block, [&](std::span<const std::uint8_t> bytes) {
        const std::uint8_t* data = bytes.data();
        const auto size = static_cast<std::int64_t>(bytes.size());
        std::int64_t counted = 0;  // line ends before this offset are in `line`
        std::int64_t line = 0;
        // Records the line holding `at` and answers where the next line starts.
        // `counted` always stands at the start of a line. Long gaps are counted with the byte
        // store's block counter, short ones in one pass that also finds the line's start.
        const auto lineMatched = [&](std::int64_t at) {
            std::int64_t start = counted;
            if (at - counted > 4'096) {
                line += ByteScan::countNewlines(data + counted, at - counted);
                const void* before = ::memrchr(data + counted, '\n', static_cast<std::size_t>(at - counted));
                if (before != nullptr) start = static_cast<const std::uint8_t*>(before) - data + 1;
            } else {
                const NewlineTally tally = tallyNewlines(data, counted, at);
                line += tally.count;
                if (tally.last >= 0) start = tally.last + 1;
            }
            const std::int64_t newline = ByteScan::firstNewline(data + at, size - at);
            const std::int64_t end = newline < 0 ? size : at + newline + 1;
            record(result.runs, line, {block.lower + start, block.lower + end});
            if (newline >= 0) ++line;
            counted = end;
            return end;
        };

        if (plan.literal) {
            const LiteralMatcher& literal = *plan.literal;
            const auto length = static_cast<std::int64_t>(literal.length());
            const SearchEncoding* encoding = text.encoding();
            LiteralMatcher::Scanner scanner(literal, bytes);
            for (std::size_t hit = scanner.next(); hit != LiteralMatcher::Scanner::none; hit = scanner.next()) {
                const auto at = static_cast<std::int64_t>(hit);
                if (plan.wholeWord) {
                    const bool wordBefore = at > 0 ? isWordByte(data[at - 1])
                                                   : (block.lower > 0 && isWordByte(source.byte(block.lower - 1)));
                    const bool wordAfter = at + length < size ? isWordByte(data[at + length])
                                                              : (block.lower + at + length < total &&
                                                                 isWordByte(source.byte(block.lower + at + length)));
                    if (wordBefore || wordAfter) continue;
                }
                if (encoding != nullptr && encoding->characterStart &&
                    encoding->characterStart(source, block.lower + at) != block.lower + at) {
                    continue;
                }
                const std::int64_t next = lineMatched(at);
                if (next >= size) break;
                scanner.seek(static_cast<std::size_t>(next));
            }
        } else {
            const SearchWindow window(bytes, block.lower, text.encoding());
            const auto end = matcher->enumerate(
                window.text(), 0, {true, block.upper >= total}, isCancelled, [&](std::size_t start, std::size_t) {
                    const std::int64_t at = window.sourceOffset(start) - block.lower;
                    if (at < counted) return Expression::Matcher::goOn;  // an empty match at a line just taken
                    const std::int64_t next = lineMatched(at);
                    if (next >= size) return Expression::Matcher::stop;
                    return std::max<std::size_t>(window.textOffset(block.lower + next), 1);
                });
            if (end == Expression::Matcher::End::stopped && isCancelled && isCancelled()) result.cancelled = true;
            if (end == Expression::Matcher::End::limit) result.cancelled = true;
        }
        result.newlines = line + ByteScan::countNewlines(data + counted, size - counted);
    });
    return result;
}

/// Matchers for the threads of a parallel scan, made on demand and reused.
class MatcherPool {
public:
    explicit MatcherPool(const Expression* expression) : expression_(expression) {}

    std::unique_ptr<Expression::Matcher> acquire() {
        if (expression_ == nullptr) return nullptr;
        {
            std::lock_guard guard(lock_);
            if (!free_.empty()) {
                auto matcher = std::move(free_.back());
                free_.pop_back();
                return matcher;
            }
        }
        return std::make_unique<Expression::Matcher>(*expression_);
    }

    void release(std::unique_ptr<Expression::Matcher> matcher) {
        if (!matcher) return;
        std::lock_guard guard(lock_);
        free_.push_back(std::move(matcher));
    }

private:
    const Expression* expression_;
    std::mutex lock_;
    std::vector<std::unique_ptr<Expression::Matcher>> free_;  // guarded by lock_
};

} // namespace

Result matchingRuns(SearchText text, const SearchQuery& query, std::optional<std::span<const LineRun>> candidates,
                    const RunsFound& found, const Progress& progress, const IsCancelled& isCancelled) {
    Result result;
    if (query.pattern.empty()) return result;
    const ByteSource& source = text.bytes();
    const std::int64_t count = source.count();
    const std::vector<LineRun> whole = {{0, 0, {0, count}}};
    const std::span<const LineRun> runs = candidates ? *candidates : std::span<const LineRun>(whole);

    Plan plan;
    plan.wholeWord = query.wholeWord;
    plan.literal = SearchEngine::literalMatcher(query, text);
    if (!plan.literal) plan.expression = SearchEngine::expression(query);
    MatcherPool pool(plan.expression.get());

    std::int64_t toDo = 0;
    for (const LineRun& run : runs) toDo += run.bytes.clampedTo(count).length();
    std::int64_t done = 0;
    const std::size_t waveSize = processors() * 4;

    for (const LineRun& candidate : runs) {
        const ByteRange bytes = candidate.bytes.clampedTo(count);
        std::int64_t line = candidate.first;
        std::int64_t position = bytes.lower;
        if (candidates) result.linesSeen += candidate.lineCount();
        while (position < bytes.upper) {
            if (isCancelled && isCancelled()) {
                result.isComplete = false;
                return result;
            }
            // A wave of blocks, each ending at a line end, scanned side by side.
            std::vector<ByteRange> blocks;
            while (blocks.size() < waveSize && position < bytes.upper) {
                const std::int64_t end = position + blockSize >= bytes.upper
                                             ? bytes.upper
                                             : endOfLineFrom(source, position + blockSize - 1, bytes.upper);
                blocks.push_back({position, end});
                position = end;
            }
            std::vector<BlockResult> scanned(blocks.size());
            parallelFor(blocks.size(), [&](std::size_t i) {
                if (isCancelled && isCancelled()) {
                    scanned[i].cancelled = true;
                    return;
                }
                auto matcher = pool.acquire();
                scanned[i] = scanBlock(text, plan, matcher.get(), blocks[i], isCancelled);
                pool.release(std::move(matcher));
            });
            const std::size_t reported = result.matched.empty() ? 0 : result.matched.size() - 1;
            for (std::size_t i = 0; i < blocks.size(); ++i) {
                if (scanned[i].cancelled) {
                    result.isComplete = false;
                    return result;
                }
                for (const LineRun& run : scanned[i].runs) {
                    const LineRun shifted{line + run.first, line + run.last, run.bytes};
                    result.matchedLines += run.lineCount();
                    if (!result.matched.empty() && result.matched.back().last + 1 == shifted.first) {
                        result.matched.back().last = shifted.last;
                        result.matched.back().bytes.upper = shifted.bytes.upper;
                        continue;
                    }
                    if (result.matched.size() >= runLimit) {
                        result.matchedLines -= run.lineCount();
                        result.reachedLimit = true;
                        result.isComplete = false;
                        return result;
                    }
                    result.matched.push_back(shifted);
                }
                line += scanned[i].newlines;
                done += blocks[i].length();
            }
            if (found && result.matched.size() > reported) {
                found(std::span<const LineRun>(result.matched).subspan(reported));
            }
            if (progress) progress(static_cast<double>(done) / static_cast<double>(std::max<std::int64_t>(toDo, 1)));
        }
        if (!candidates) result.linesSeen = line + 1;
    }
    return result;
}

std::vector<LineRun> complement(std::span<const LineRun> runs, std::int64_t lineCount, std::int64_t byteCount) {
    std::vector<LineRun> out;
    std::int64_t line = 0;
    std::int64_t byte = 0;
    for (const LineRun& run : runs) {
        if (run.first > line) out.push_back({line, run.first - 1, {byte, run.bytes.lower}});
        line = run.last + 1;
        byte = run.bytes.upper;
    }
    if (line <= lineCount - 1) out.push_back({line, lineCount - 1, {byte, std::max(byte, byteCount)}});
    return out;
}

std::vector<LineRun> union_(std::span<const LineRun> a, std::span<const LineRun> b) {
    std::vector<LineRun> out;
    out.reserve(a.size() + b.size());
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() || j < b.size()) {
        const LineRun& next = (j >= b.size() || (i < a.size() && a[i].first <= b[j].first)) ? a[i++] : b[j++];
        if (!out.empty() && next.first <= out.back().last + 1) {
            if (next.last > out.back().last) {
                out.back().last = next.last;
                out.back().bytes.upper = next.bytes.upper;
            }
        } else {
            out.push_back(next);
        }
    }
    return out;
}

std::vector<LineRun> subtract(std::span<const LineRun> a, std::span<const LineRun> b) {
    std::vector<LineRun> out;
    std::size_t j = 0;
    for (const LineRun& run : a) {
        LineRun rest = run;
        bool gone = false;
        while (j < b.size() && b[j].last < rest.first) ++j;
        for (std::size_t k = j; k < b.size() && b[k].first <= rest.last; ++k) {
            const LineRun& cut = b[k];
            if (cut.first > rest.first) out.push_back({rest.first, cut.first - 1, {rest.bytes.lower, cut.bytes.lower}});
            if (cut.last >= rest.last) {
                gone = true;
                break;
            }
            rest.first = cut.last + 1;
            rest.bytes.lower = cut.bytes.upper;
        }
        if (!gone) out.push_back(rest);
    }
    return out;
}

std::vector<LineRun> intersect(std::span<const LineRun> a, std::span<const LineRun> b) {
    std::vector<LineRun> out;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        const LineRun& x = a[i];
        const LineRun& y = b[j];
        const std::int64_t first = std::max(x.first, y.first);
        const std::int64_t last = std::min(x.last, y.last);
        if (first <= last) {
            const std::int64_t lower = x.first >= y.first ? x.bytes.lower : y.bytes.lower;
            const std::int64_t upper = x.last <= y.last ? x.bytes.upper : y.bytes.upper;
            out.push_back({first, last, {lower, upper}});
        }
        if (x.last < y.last) {
            ++i;
        } else {
            ++j;
        }
    }
    return out;
}

std::vector<LineRun> widened(SearchText text, std::span<const LineRun> runs, std::int64_t before, std::int64_t after) {
    const ByteSource& source = text.bytes();
    const std::int64_t count = source.count();
    std::vector<LineRun> grown;
    grown.reserve(runs.size());
    for (LineRun run : runs) {
        for (std::int64_t k = 0; k < before && run.first > 0 && run.bytes.lower > 0; ++k) {
            run.bytes.lower = startOfLineHolding(source, run.bytes.lower - 1);
            --run.first;
        }
        for (std::int64_t k = 0; k < after && run.bytes.upper < count; ++k) {
            run.bytes.upper = endOfLineFrom(source, run.bytes.upper, count);
            ++run.last;
        }
        if (!grown.empty() && run.first <= grown.back().last + 1) {
            grown.back().last = std::max(grown.back().last, run.last);
            grown.back().bytes.upper = std::max(grown.back().bytes.upper, run.bytes.upper);
        } else {
            grown.push_back(run);
        }
    }
    return grown;
}

Result apply(SearchText text, std::span<const LineFilterStep> steps, std::int64_t lineCount, std::int64_t byteCount,
             std::optional<std::span<const LineRun>> candidates, std::int64_t contextBefore, std::int64_t contextAfter,
             const Progress& progress, const IsCancelled& isCancelled) {
    Result result;
    std::vector<LineRun> remaining;
    if (candidates) {
        remaining.assign(candidates->begin(), candidates->end());
    } else if (lineCount > 0) {
        remaining.push_back({0, lineCount - 1, {0, byteCount}});
    }
    const std::vector<LineRun> initial = remaining;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const LineFilterStep& step = steps[i];
        if (step.kind == LineFilterStep::Kind::selection) {
            remaining = step.show ? intersect(remaining, step.selection) : subtract(remaining, step.selection);
            continue;
        }
        if (step.query.pattern.empty()) continue;  // asks for nothing, so it narrows nothing
        const double base = static_cast<double>(i) / static_cast<double>(steps.size());
        const Progress stepProgress = [&](double f) {
            if (progress) progress(base + f / static_cast<double>(steps.size()));
        };
        const Result matched = matchingRuns(text, step.query, std::span<const LineRun>(remaining), {}, stepProgress, isCancelled);
        if (!matched.isComplete) {
            result.isComplete = false;
            result.reachedLimit = matched.reachedLimit;
            return result;
        }
        remaining = step.show ? matched.matched : subtract(remaining, matched.matched);
    }
    if (contextBefore > 0 || contextAfter > 0) {
        remaining = intersect(widened(text, remaining, contextBefore, contextAfter), initial);
    }
    for (const LineRun& run : remaining) result.matchedLines += run.lineCount();
    result.linesSeen = 0;
    for (const LineRun& run : initial) result.linesSeen += run.lineCount();
    result.matched = std::move(remaining);
    return result;
}

std::vector<LineRun> afterEdit(std::span<const LineRun> runs, const LineEdit& edit) {
    const std::int64_t newLines = std::max<std::int64_t>(edit.newLineCount, 1);
    const std::int64_t lineShift = newLines - (edit.lastLine - edit.firstLine + 1);
    const std::int64_t byteShift = edit.newByteCount - edit.oldBytes.length();
    bool firstShown = false;
    std::vector<LineRun> out;
    out.reserve(runs.size() + 1);
    for (const LineRun& run : runs) {
        if (run.contains(edit.firstLine)) firstShown = true;
        if (run.last < edit.firstLine) {
            out.push_back(run);
        } else if (run.first > edit.lastLine) {
            out.push_back({run.first + lineShift, run.last + lineShift,
                           {run.bytes.lower + byteShift, run.bytes.upper + byteShift}});
        } else {
            if (run.first < edit.firstLine) out.push_back({run.first, edit.firstLine - 1, {run.bytes.lower, edit.oldBytes.lower}});
            if (run.last > edit.lastLine) {
                out.push_back({edit.lastLine + 1 + lineShift, run.last + lineShift,
                               {edit.oldBytes.upper + byteShift, run.bytes.upper + byteShift}});
            }
        }
    }
    if (firstShown) {
        const LineRun stretch{edit.firstLine, edit.firstLine + newLines - 1,
                              {edit.oldBytes.lower, edit.oldBytes.lower + edit.newByteCount}};
        return union_(out, std::span<const LineRun>(&stretch, 1));
    }
    return out;
}

} // namespace LineFilter

// MARK: RowMap

RowMap::RowMap(std::vector<LineRun> shown) : runs_(std::move(shown)) { rebuild(); }

void RowMap::rebuild() {
    rowStarts_.assign(runs_.size() + 1, 0);
    for (std::size_t i = 0; i < runs_.size(); ++i) rowStarts_[i + 1] = rowStarts_[i] + runs_[i].lineCount();
}

void RowMap::append(std::span<const LineRun> more) {
    if (rowStarts_.empty()) rowStarts_.push_back(0);
    for (const LineRun& run : more) {
        if (!runs_.empty() && run.first <= runs_.back().last + 1) {
            if (run.last <= runs_.back().last) continue;
            runs_.back().last = run.last;
            runs_.back().bytes.upper = run.bytes.upper;
            rowStarts_.back() = rowStarts_[runs_.size() - 1] + runs_.back().lineCount();
        } else {
            runs_.push_back(run);
            rowStarts_.push_back(rowStarts_.back() + run.lineCount());
        }
    }
}

void RowMap::applyEdit(const LineEdit& edit) {
    runs_ = LineFilter::afterEdit(runs_, edit);
    rebuild();
}

std::optional<std::int64_t> RowMap::lineForRow(std::int64_t row) const {
    if (row < 0 || row >= rowCount()) return std::nullopt;
    const auto after = std::upper_bound(rowStarts_.begin(), rowStarts_.end(), row);
    const auto index = static_cast<std::size_t>(after - rowStarts_.begin()) - 1;
    return runs_[index].first + (row - rowStarts_[index]);
}

std::optional<std::int64_t> RowMap::rowForLine(std::int64_t line) const {
    const auto it = std::lower_bound(runs_.begin(), runs_.end(), line,
                                     [](const LineRun& run, std::int64_t value) { return run.last < value; });
    if (it == runs_.end() || !it->contains(line)) return std::nullopt;
    const auto index = static_cast<std::size_t>(it - runs_.begin());
    return rowStarts_[index] + (line - it->first);
}

std::optional<std::int64_t> RowMap::nearestShownLine(std::int64_t line) const {
    if (runs_.empty()) return std::nullopt;
    const auto it = std::lower_bound(runs_.begin(), runs_.end(), line,
                                     [](const LineRun& run, std::int64_t value) { return run.last < value; });
    if (it == runs_.end()) return runs_.back().last;
    return it->contains(line) ? line : it->first;
}

} // namespace brim
