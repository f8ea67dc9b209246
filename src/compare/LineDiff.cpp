#include "compare/LineDiff.h"

#include "common/Parallel.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace brim::LineDiff {

namespace {

constexpr std::uint64_t fnvOffset = 0xcbf2'9ce4'8422'2325;
constexpr std::uint64_t fnvPrime = 0x100'0000'01b3;

/// Below this many bytes one thread hashes the whole text; above it, slices go to the pool.
constexpr std::size_t parallelHashThreshold = 4 * 1'048'576;

/// The shortest-edit search is tried on stretches of at most this many lines in all, for at most
/// this many rounds (edits); its memory grows with the square of the rounds.
constexpr std::int64_t shortestEditLineLimit = 200'000;
constexpr std::int64_t shortestEditRounds = 2'000;

/// Hashes the lines of `bytes` onto `out`. `IgnoreCase` and `IgnoreWhitespace` are template flags
/// so the plain loop carries no tests per byte.
template <bool IgnoreCase, bool IgnoreWhitespace>
void hashLines(std::span<const std::uint8_t> bytes, std::vector<std::uint64_t>& out) {
    const std::uint8_t* p = bytes.data();
    const std::uint8_t* const end = p + bytes.size();
    while (p < end) {
        const auto* newline = static_cast<const std::uint8_t*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        const std::uint8_t* lineEnd = newline != nullptr ? newline : end;
        // CR LF ends a line as LF does; a CR as the text's very last byte is left out too.
        if (lineEnd > p && lineEnd[-1] == '\r') --lineEnd;
        std::uint64_t hash = fnvOffset;
        bool hashedAny = false;
        for (const std::uint8_t* q = p; q < lineEnd; ++q) {
            std::uint8_t byte = *q;
            if constexpr (IgnoreWhitespace) {
                if (byte == ' ' || byte == '\t' || byte == '\r') continue;
            }
            if constexpr (IgnoreCase) {
                if (byte >= 'A' && byte <= 'Z') byte |= 0x20;
            }
            hash = (hash ^ byte) * fnvPrime;
            hashedAny = true;
        }
        if constexpr (!IgnoreWhitespace) hashedAny = lineEnd > p;
        if (newline == nullptr) {
            // The last line has no end: with whitespace ignored, one of only blanks is no line.
            if (!IgnoreWhitespace || hashedAny) out.push_back(hashedAny ? hash : emptyLineHash);
            break;
        }
        out.push_back(hashedAny ? hash : emptyLineHash);
        p = newline + 1;
    }
}

void hashInto(std::span<const std::uint8_t> bytes, HashOptions options, std::vector<std::uint64_t>& out) {
    if (options.ignoringCase && options.ignoringWhitespace) hashLines<true, true>(bytes, out);
    else if (options.ignoringCase) hashLines<true, false>(bytes, out);
    else if (options.ignoringWhitespace) hashLines<false, true>(bytes, out);
    else hashLines<false, false>(bytes, out);
}

/// Emits hunks from matched line pairs, which arrive in increasing order on both sides.
class HunkBuilder {
public:
    /// `count` consecutive pairs starting at (oldLine, newLine).
    void matched(std::int64_t oldLine, std::int64_t newLine, std::int64_t count) {
        if (count <= 0) return;
        gap(oldLine, newLine);
        oldCursor_ = oldLine + count;
        newCursor_ = newLine + count;
    }

    std::vector<GitHunk> finish(std::int64_t oldCount, std::int64_t newCount) {
        gap(oldCount, newCount);
        return std::move(hunks_);
    }

private:
    void gap(std::int64_t oldLine, std::int64_t newLine) {
        if (oldLine <= oldCursor_ && newLine <= newCursor_) return;
        GitHunk hunk;
        hunk.oldLines = {oldCursor_, oldLine};
        hunk.lines = {newCursor_, newLine};
        if (hunk.oldLines.empty()) hunk.kind = GitHunk::Kind::added;
        else if (hunk.lines.empty()) hunk.kind = GitHunk::Kind::removed;
        else hunk.kind = GitHunk::Kind::modified;
        hunks_.push_back(hunk);
    }

    std::vector<GitHunk> hunks_;
    std::int64_t oldCursor_ = 0;
    std::int64_t newCursor_ = 0;
};

/// The matcher: patience anchors on lines unique to both sides of a stretch, worked off an explicit
/// stack so that neither recursion depth nor stack size depends on the input's shape.
class Matcher {
public:
    Matcher(std::span<const std::uint64_t> oldHashes, std::span<const std::uint64_t> newHashes)
        : old_(oldHashes), new_(newHashes) {
        const auto total = static_cast<std::int64_t>(oldHashes.size() + newHashes.size());
        // Scanning for unique lines costs the stretch's size each time. Ordinary texts scan each
        // line a few times; input built to peel one anchor per level would scan quadratically, so
        // past this budget stretches go straight to the bounded exact match.
        scanBudget_ = 8 * total + 65'536;
        // The shortest-edit search may spend about as much as a few passes over the text, plus a
        // fixed allowance that covers ordinary source files outright.
        editStepBudget_ = 16 * total + 4'000'000;
    }

    std::vector<GitHunk> run() {
        tasks_.push_back({0, static_cast<std::int64_t>(old_.size()), 0, static_cast<std::int64_t>(new_.size()), false});
        while (!tasks_.empty()) {
            const Task task = tasks_.back();
            tasks_.pop_back();
            if (task.isDiagonal) {
                builder_.matched(task.oldLower, task.newLower, task.oldUpper - task.oldLower);
            } else {
                match(task);
            }
        }
        return builder_.finish(static_cast<std::int64_t>(old_.size()), static_cast<std::int64_t>(new_.size()));
    }

private:
    struct Task {
        std::int64_t oldLower, oldUpper, newLower, newUpper;
        bool isDiagonal;   // matched pairs (oldLower + k, newLower + k) for k < oldUpper - oldLower
    };
    struct Pair {
        std::uint32_t oldLine;
        std::uint32_t newLine;
    };
    struct Slot {
        std::uint32_t oldLine = empty;   // first occurrence in the old stretch; `empty` = free slot
        std::uint32_t newLine = 0;
        std::uint8_t oldCount = 0;       // 0, 1 or 2 (two or more)
        std::uint8_t newCount = 0;
        static constexpr std::uint32_t empty = std::numeric_limits<std::uint32_t>::max();
    };

    void pushDiagonal(std::int64_t oldLine, std::int64_t newLine, std::int64_t count) {
        if (count > 0) tasks_.push_back({oldLine, oldLine + count, newLine, newLine + count, true});
    }
    void pushStretch(std::int64_t oldLower, std::int64_t oldUpper, std::int64_t newLower, std::int64_t newUpper) {
        // A stretch with an empty side has nothing to match: the builder sees it as a gap.
        if (oldLower < oldUpper && newLower < newUpper) tasks_.push_back({oldLower, oldUpper, newLower, newUpper, false});
    }

    void match(Task task) {
        std::int64_t oldLower = task.oldLower;
        std::int64_t newLower = task.newLower;
        std::int64_t oldUpper = task.oldUpper;
        std::int64_t newUpper = task.newUpper;
        const auto at = [](std::span<const std::uint64_t> hashes, std::int64_t i) {
            return hashes[static_cast<std::size_t>(i)];
        };

        const std::int64_t prefixStart = oldLower;
        const std::int64_t prefixNewStart = newLower;
        while (oldLower < oldUpper && newLower < newUpper && at(old_, oldLower) == at(new_, newLower)) {
            ++oldLower;
            ++newLower;
        }
        builder_.matched(prefixStart, prefixNewStart, oldLower - prefixStart);

        std::int64_t suffix = 0;
        while (oldLower < oldUpper - suffix && newLower < newUpper - suffix &&
               at(old_, oldUpper - suffix - 1) == at(new_, newUpper - suffix - 1)) {
            ++suffix;
        }
        oldUpper -= suffix;
        newUpper -= suffix;
        pushDiagonal(oldUpper, newUpper, suffix);   // runs after everything pushed below
        if (oldLower == oldUpper || newLower == newUpper) return;

        // A stretch small enough for the exact table gets the fewest changed lines there are, and
        // so does a larger one whose edit distance is small enough to find within a bounded cost;
        // anchors only serve to split what is left, where a unique line that moved far could
        // otherwise pull everything between into the change.
        if ((oldUpper - oldLower) * (newUpper - newLower) <= exactMatchCellLimit) {
            exactMatch(oldLower, oldUpper, newLower, newUpper);
            return;
        }
        if (shortestEdit(oldLower, oldUpper, newLower, newUpper)) return;
        const std::int64_t size = (oldUpper - oldLower) + (newUpper - newLower);
        if (scanned_ + size <= scanBudget_) {
            scanned_ += size;
            const std::vector<Pair> anchors = longestIncreasingByOldLine(uniqueCommonLines(oldLower, oldUpper, newLower, newUpper));
            if (!anchors.empty()) {
                // Pushed in reverse so that they run in order: stretch, run of anchors, stretch, ...
                std::int64_t nextOld = oldUpper;
                std::int64_t nextNew = newUpper;
                std::size_t i = anchors.size();
                while (i > 0) {
                    // A run of anchors on consecutive lines is one diagonal.
                    std::size_t first = i - 1;
                    while (first > 0 && anchors[first - 1].oldLine + 1 == anchors[first].oldLine &&
                           anchors[first - 1].newLine + 1 == anchors[first].newLine) {
                        --first;
                    }
                    const std::int64_t runOld = anchors[first].oldLine;
                    const std::int64_t runNew = anchors[first].newLine;
                    const auto runLength = static_cast<std::int64_t>(i - first);
                    pushStretch(runOld + runLength, nextOld, runNew + runLength, nextNew);
                    pushDiagonal(runOld, runNew, runLength);
                    nextOld = runOld;
                    nextNew = runNew;
                    i = first;
                }
                pushStretch(oldLower, nextOld, newLower, nextNew);
                return;
            }
        }
        exactMatch(oldLower, oldUpper, newLower, newUpper);
    }

    /// The (old, new) pairs of hashes that occur exactly once in each stretch, in new-line order.
    std::vector<Pair> uniqueCommonLines(std::int64_t oldLower, std::int64_t oldUpper, std::int64_t newLower,
                                        std::int64_t newUpper) {
        const auto oldCount = static_cast<std::size_t>(oldUpper - oldLower);
        int bits = 4;
        while ((std::size_t{1} << bits) < oldCount + oldCount / 2 + 1) ++bits;
        const std::size_t capacity = std::size_t{1} << bits;
        const std::size_t mask = capacity - 1;
        if (slots_.size() < capacity) slots_.resize(capacity);
        std::fill_n(slots_.begin(), capacity, Slot{});
        const auto home = [&](std::uint64_t hash) {
            return static_cast<std::size_t>((hash * 0x9e37'79b9'7f4a'7c15ULL) >> (64 - bits));
        };
        // Finds the slot of `hash`, or the free slot where it would go.
        const auto find = [&](std::uint64_t hash) -> Slot& {
            std::size_t i = home(hash);
            while (true) {
                Slot& slot = slots_[i];
                if (slot.oldLine == Slot::empty || old_[slot.oldLine] == hash) return slot;
                i = (i + 1) & mask;
            }
        };

        for (std::int64_t line = oldLower; line < oldUpper; ++line) {
            Slot& slot = find(old_[static_cast<std::size_t>(line)]);
            if (slot.oldLine == Slot::empty) {
                slot.oldLine = static_cast<std::uint32_t>(line);
                slot.oldCount = 1;
            } else {
                slot.oldCount = 2;
            }
        }
        for (std::int64_t line = newLower; line < newUpper; ++line) {
            Slot& slot = find(new_[static_cast<std::size_t>(line)]);
            if (slot.oldLine == Slot::empty) continue;   // not in the old stretch: never a pair
            if (slot.newCount == 0) slot.newLine = static_cast<std::uint32_t>(line);
            slot.newCount = static_cast<std::uint8_t>(std::min(slot.newCount + 1, 2));
        }
        std::vector<Pair> pairs;
        for (std::int64_t line = newLower; line < newUpper; ++line) {
            const Slot& slot = find(new_[static_cast<std::size_t>(line)]);
            if (slot.oldLine != Slot::empty && slot.oldCount == 1 && slot.newCount == 1) {
                pairs.push_back({slot.oldLine, static_cast<std::uint32_t>(line)});
            }
        }
        return pairs;
    }

    /// Patience sorting: the longest subsequence of `pairs` strictly increasing in old line.
    static std::vector<Pair> longestIncreasingByOldLine(const std::vector<Pair>& pairs) {
        if (pairs.empty()) return {};
        constexpr std::size_t none = std::numeric_limits<std::size_t>::max();
        std::vector<std::size_t> pileTops;                 // index into `pairs` of each pile's top
        std::vector<std::size_t> predecessor(pairs.size(), none);
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            // The first pile whose top's old line is not below this one.
            const auto pile = std::lower_bound(pileTops.begin(), pileTops.end(), pairs[i].oldLine,
                                               [&](std::size_t top, std::uint32_t value) { return pairs[top].oldLine < value; });
            if (pile != pileTops.begin()) predecessor[i] = *(pile - 1);
            if (pile == pileTops.end()) pileTops.push_back(i);
            else *pile = i;
        }
        std::vector<Pair> result(pileTops.size());
        std::size_t at = pileTops.back();
        for (std::size_t k = result.size(); k > 0; --k) {
            result[k - 1] = pairs[at];
            at = predecessor[at];
        }
        return result;
    }

    /// The fewest changed lines by the greedy O((N+M)D) search for the shortest edit, keeping each
    /// round's furthest reaches to walk the path back. Gives up (false) past `shortestEditRounds`
    /// rounds or when the steps spent here, over all stretches, pass their budget.
    bool shortestEdit(std::int64_t oldLower, std::int64_t oldUpper, std::int64_t newLower, std::int64_t newUpper) {
        const std::int64_t oldCount = oldUpper - oldLower;
        const std::int64_t newCount = newUpper - newLower;
        if (oldCount + newCount > shortestEditLineLimit) return false;
        const std::int64_t maxRounds = std::min<std::int64_t>(shortestEditRounds, oldCount + newCount);
        // Round d keeps the reaches of diagonals -d..d at rounds_[d * d + (k + d)].
        rounds_.clear();
        std::vector<std::int64_t> reach(static_cast<std::size_t>(2 * maxRounds + 3), 0);
        const std::int64_t centre = maxRounds + 1;
        const auto at = [&](std::int64_t k) -> std::int64_t& { return reach[static_cast<std::size_t>(centre + k)]; };
        const auto same = [&](std::int64_t x, std::int64_t y) {
            return old_[static_cast<std::size_t>(oldLower + x)] == new_[static_cast<std::size_t>(newLower + y)];
        };
        std::int64_t finalRound = -1;
        for (std::int64_t d = 0; d <= maxRounds && finalRound < 0; ++d) {
            for (std::int64_t k = -d; k <= d; k += 2) {
                std::int64_t x = (k == -d || (k != d && at(k - 1) < at(k + 1))) ? at(k + 1) : at(k - 1) + 1;
                std::int64_t y = x - k;
                const std::int64_t snakeFrom = x;
                while (x < oldCount && y < newCount && same(x, y)) {
                    ++x;
                    ++y;
                }
                at(k) = x;
                editSteps_ += x - snakeFrom;
                if (x >= oldCount && y >= newCount) finalRound = d;
            }
            for (std::int64_t k = -d; k <= d; ++k) rounds_.push_back(static_cast<std::int32_t>(at(k)));
            editSteps_ += 2 * d + 1;
            if (editSteps_ > editStepBudget_) return false;
        }
        if (finalRound < 0) return false;

        const auto roundReach = [&](std::int64_t d, std::int64_t k) {
            return static_cast<std::int64_t>(rounds_[static_cast<std::size_t>(d * d + (k + d))]);
        };
        std::vector<Pair> reversed;
        std::int64_t x = oldCount;
        std::int64_t y = newCount;
        for (std::int64_t d = finalRound; d > 0; --d) {
            const std::int64_t k = x - y;
            const bool down = k == -d || (k != d && roundReach(d - 1, k - 1) < roundReach(d - 1, k + 1));
            const std::int64_t previousK = down ? k + 1 : k - 1;
            const std::int64_t previousX = roundReach(d - 1, previousK);
            const std::int64_t snakeStart = down ? previousX : previousX + 1;
            while (x > snakeStart && y > snakeStart - k) {
                --x;
                --y;
                reversed.push_back({static_cast<std::uint32_t>(oldLower + x), static_cast<std::uint32_t>(newLower + y)});
            }
            x = previousX;
            y = previousX - previousK;
        }
        while (x > 0 && y > 0) {
            --x;
            --y;
            reversed.push_back({static_cast<std::uint32_t>(oldLower + x), static_cast<std::uint32_t>(newLower + y)});
        }
        for (auto pair = reversed.rbegin(); pair != reversed.rend(); ++pair) builder_.matched(pair->oldLine, pair->newLine, 1);
        return true;
    }

    /// The longest common subsequence by a full table, when the stretch is small enough; otherwise
    /// nothing matches and the stretch becomes one modified block.
    void exactMatch(std::int64_t oldLower, std::int64_t oldUpper, std::int64_t newLower, std::int64_t newUpper) {
        const std::int64_t oldCount = oldUpper - oldLower;
        const std::int64_t newCount = newUpper - newLower;
        if (oldCount * newCount > exactMatchCellLimit) return;
        const auto width = static_cast<std::size_t>(newCount + 1);
        table_.assign(static_cast<std::size_t>(oldCount + 1) * width, 0);
        const auto cell = [&](std::int64_t i, std::int64_t j) -> std::int32_t& {
            return table_[static_cast<std::size_t>(i) * width + static_cast<std::size_t>(j)];
        };
        for (std::int64_t i = 0; i < oldCount; ++i) {
            const std::uint64_t oldHash = old_[static_cast<std::size_t>(oldLower + i)];
            for (std::int64_t j = 0; j < newCount; ++j) {
                cell(i + 1, j + 1) = oldHash == new_[static_cast<std::size_t>(newLower + j)]
                                         ? cell(i, j) + 1
                                         : std::max(cell(i, j + 1), cell(i + 1, j));
            }
        }
        std::vector<Pair> reversed;
        std::int64_t i = oldCount;
        std::int64_t j = newCount;
        while (i > 0 && j > 0) {
            if (old_[static_cast<std::size_t>(oldLower + i - 1)] == new_[static_cast<std::size_t>(newLower + j - 1)]) {
                reversed.push_back({static_cast<std::uint32_t>(oldLower + i - 1), static_cast<std::uint32_t>(newLower + j - 1)});
                --i;
                --j;
            } else if (cell(i - 1, j) < cell(i, j - 1)) {
                --j;   // ties give up old lines first
            } else {
                --i;
            }
        }
        for (auto pair = reversed.rbegin(); pair != reversed.rend(); ++pair) builder_.matched(pair->oldLine, pair->newLine, 1);
    }

    std::span<const std::uint64_t> old_;
    std::span<const std::uint64_t> new_;
    std::vector<Task> tasks_;
    HunkBuilder builder_;
    std::vector<Slot> slots_;        // scratch for `uniqueCommonLines`, reused
    std::vector<std::int32_t> table_;  // scratch for `exactMatch`, reused
    std::vector<std::int32_t> rounds_; // scratch for `shortestEdit`, reused
    std::int64_t editSteps_ = 0;
    std::int64_t editStepBudget_ = 0;
    std::int64_t scanned_ = 0;
    std::int64_t scanBudget_ = 0;
};

} // namespace

std::vector<std::uint64_t> lineHashes(std::span<const std::uint8_t> bytes, HashOptions options) {
    std::vector<std::uint64_t> result;
    // Asking for the processor count reads a file: only large texts ask.
    const std::size_t workers = bytes.size() < parallelHashThreshold ? 1 : activeProcessorCount();
    if (workers < 2) {
        hashInto(bytes, options, result);
        return result;
    }
    // Slices end just after a LF, so each holds whole lines and only the last can end unterminated.
    const std::size_t sliceCount = workers * 4;
    std::vector<std::size_t> bounds{0};
    for (std::size_t k = 1; k < sliceCount; ++k) {
        std::size_t at = std::max(bounds.back(), bytes.size() * k / sliceCount);
        const void* newline = at < bytes.size() ? std::memchr(bytes.data() + at, '\n', bytes.size() - at) : nullptr;
        if (newline == nullptr) break;
        at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(newline) - bytes.data()) + 1;
        if (at > bounds.back() && at < bytes.size()) bounds.push_back(at);
    }
    bounds.push_back(bytes.size());
    std::vector<std::vector<std::uint64_t>> slices(bounds.size() - 1);
    parallelFor(slices.size(), [&](std::size_t k) {
        slices[k].reserve((bounds[k + 1] - bounds[k]) / 32);
        hashInto(bytes.subspan(bounds[k], bounds[k + 1] - bounds[k]), options, slices[k]);
    });
    std::size_t total = 0;
    for (const auto& slice : slices) total += slice.size();
    result.reserve(total);
    for (const auto& slice : slices) result.insert(result.end(), slice.begin(), slice.end());
    return result;
}

std::vector<GitHunk> hunks(std::span<const std::uint64_t> oldHashes, std::span<const std::uint64_t> newHashes) {
    if (oldHashes.size() == newHashes.size() && std::equal(oldHashes.begin(), oldHashes.end(), newHashes.begin())) {
        return {};
    }
    constexpr std::size_t indexable = std::numeric_limits<std::uint32_t>::max() - 1;
    if (oldHashes.size() >= indexable || newHashes.size() >= indexable) {
        // Beyond what line indices of 32 bits address: one block, rather than a wrong answer.
        return {{GitHunk::Kind::modified, {0, static_cast<std::int64_t>(newHashes.size())},
                 {0, static_cast<std::int64_t>(oldHashes.size())}}};
    }
    return Matcher(oldHashes, newHashes).run();
}

std::vector<std::span<const std::uint8_t>> split(std::span<const std::uint8_t> bytes) {
    std::vector<std::span<const std::uint8_t>> lines;
    const std::uint8_t* p = bytes.data();
    const std::uint8_t* const end = p + bytes.size();
    while (p < end) {
        const auto* newline = static_cast<const std::uint8_t*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        const std::uint8_t* lineEnd = newline != nullptr ? newline : end;
        if (lineEnd > p && lineEnd[-1] == '\r') --lineEnd;
        lines.emplace_back(p, static_cast<std::size_t>(lineEnd - p));
        if (newline == nullptr) break;
        p = newline + 1;
    }
    return lines;
}

std::int64_t newLineForOldLine(std::int64_t line, std::span<const GitHunk> hunks) {
    std::int64_t shift = 0;
    for (const GitHunk& hunk : hunks) {
        if (hunk.oldLines.upper > line) break;
        shift += hunk.lines.length() - hunk.oldLines.length();
    }
    return std::max<std::int64_t>(0, line + shift);
}

std::int64_t oldLineForNewLine(std::int64_t line, std::span<const GitHunk> hunks) {
    std::int64_t shift = 0;
    for (const GitHunk& hunk : hunks) {
        if (hunk.lines.upper > line) break;
        shift += hunk.oldLines.length() - hunk.lines.length();
    }
    return std::max<std::int64_t>(0, line + shift);
}

std::vector<GitHunk> mirrored(std::span<const GitHunk> hunks) {
    std::vector<GitHunk> result;
    result.reserve(hunks.size());
    for (const GitHunk& hunk : hunks) {
        const auto kind = static_cast<GitHunk::Kind>(2 - static_cast<int>(hunk.kind));
        result.push_back({kind, hunk.oldLines, hunk.lines});
    }
    return result;
}

} // namespace brim::LineDiff
