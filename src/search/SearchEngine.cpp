#include "search/SearchEngine.h"

#include "bytes/MappedSource.h"
#include "common/Localization.h"
#include "common/Parallel.h"
#include "search/ExpressionSyntax.h"
#include "search/SearchWindow.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>

namespace brim::SearchEngine {

namespace {

using Clock = std::chrono::steady_clock;

/// The processors the pool runs on, asked once: the system reads a file to answer.
std::size_t processors() {
    static const std::size_t count = activeProcessorCount();
    return count;
}

/// Matches one piece of parallel work may hold before it hands over to a sequential pass.
constexpr std::size_t pieceCapacity = std::size_t{1} << 18;
/// Below this a search runs in the calling thread alone.
constexpr std::int64_t parallelThreshold = 2 * blockSize;
/// How far back a window looks for the start of the line it begins in.
constexpr std::int64_t lineLookback = 1'048'576;
/// What a window that must begin inside a very long line keeps before its first position, for
/// lookbehinds and `\b`.
constexpr std::int64_t lookbehindContext = 4'096;
constexpr std::int64_t scanChunk = 65'536;
constexpr std::int64_t backwardWindowLimit = 67'108'864;
constexpr std::int64_t noLimit = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t histogramThreshold = 262'144;

bool isWordByte(std::uint8_t byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           byte == '_' || byte >= 0x80;
}

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

/// A query made ready for one text: either a literal scanner or a compiled expression.
struct Plan {
    std::optional<LiteralMatcher> literal;
    std::shared_ptr<const Expression> expression;
    bool wholeWord = false;
};

Plan makePlan(SearchText text, const SearchQuery& query, bool useHistogram) {
    Plan plan;
    plan.wholeWord = query.wholeWord;
    plan.literal = literalMatcher(query, text, useHistogram);
    if (!plan.literal) plan.expression = expression(query);
    return plan;
}

/// An even sample of match starts that never holds more than `capacity`: every `stride`-th
/// start is kept, and when the sample fills up, every second one goes and the stride doubles.
class SpreadSampler {
public:
    explicit SpreadSampler(std::size_t capacity) : capacity_(capacity) { samples_.reserve(capacity + 1); }

    void add(std::int64_t offset) {
        if (seen_ % stride_ == 0) {
            samples_.push_back(offset);
            if (samples_.size() >= capacity_) {
                std::size_t kept = 0;
                for (std::size_t i = 0; i < samples_.size(); i += 2) samples_[kept++] = samples_[i];
                samples_.resize(kept);
                stride_ *= 2;
            }
        }
        ++seen_;
    }

    [[nodiscard]] std::vector<std::int64_t> take() { return std::move(samples_); }

private:
    std::size_t capacity_;
    std::vector<std::int64_t> samples_;
    std::int64_t stride_ = 1;
    std::int64_t seen_ = 0;
};

/// Receives matches in document order and keeps what the caller wants of them. A match that
/// starts before the end of the last accepted one is skipped, so matches never overlap and a
/// seam between pieces never yields one twice.
class Collector {
public:
    struct Options {
        ByteRange range;
        std::int64_t limit = 0;
        bool stopAtLimit = false;
        std::size_t spreadCapacity = 0;  // 0: no sample
        std::int64_t stopAtStart = noLimit;
    };

    explicit Collector(const Options& options)
        : options_(options), nextAllowed_(options.range.lower), sampler_(std::max<std::size_t>(options.spreadCapacity, 1)) {
        matches_.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(options.limit, 0, 4'096)));
    }

    /// False when the search should stop.
    bool accept(ByteRange match) {
        if (match.lower < nextAllowed_) return true;
        // An empty match may stand at the very end of the range; nothing else may start there.
        const bool pastEnd = match.lower > options_.range.upper || (match.lower == options_.range.upper && !match.empty());
        if (match.lower >= options_.stopAtStart || pastEnd) {
            finished_ = true;
            return false;
        }
        if (match.upper > options_.range.upper) return true;  // reaches out of the range: not ours
        ++total_;
        if (static_cast<std::int64_t>(matches_.size()) < options_.limit) matches_.push_back(match);
        if (options_.spreadCapacity > 0) sampler_.add(match.lower);
        nextAllowed_ = std::max(match.lower + 1, match.upper);
        if (options_.stopAtLimit && total_ >= options_.limit) {
            finished_ = true;
            return false;
        }
        return true;
    }

    [[nodiscard]] std::int64_t nextAllowed() const { return nextAllowed_; }
    [[nodiscard]] bool finished() const { return finished_; }
    [[nodiscard]] std::int64_t total() const { return total_; }
    [[nodiscard]] std::vector<ByteRange>& matches() { return matches_; }
    [[nodiscard]] std::vector<std::int64_t> spread() { return sampler_.take(); }

private:
    Options options_;
    std::int64_t nextAllowed_;
    std::int64_t total_ = 0;
    bool finished_ = false;
    std::vector<ByteRange> matches_;
    SpreadSampler sampler_;
};

/// One stretch of the text searched as a whole.
struct Piece {
    ByteRange data;
    /// Matches start at or after `from` and before `ownEnd`; a literal block leaves the bytes
    /// it overlaps with the next block to that one.
    std::int64_t from = 0;
    std::int64_t ownEnd = 0;
    Expression::Edges edges{};
};

enum class PieceEnd : std::uint8_t { finished, stopped, limit, cancelled };

/// The first byte after the 0x0A at or after `offset`, or `count` when there is none.
std::int64_t lineEndFrom(const ByteSource& source, std::int64_t offset, std::int64_t count) {
    while (offset < count) {
        const std::int64_t upper = std::min(count, offset + scanChunk);
        std::int64_t found = -1;
        source.withBytes({offset, upper}, [&](std::span<const std::uint8_t> bytes) {
            const void* hit = std::memchr(bytes.data(), '\n', bytes.size());
            if (hit != nullptr) found = static_cast<const std::uint8_t*>(hit) - bytes.data();
        });
        if (found >= 0) return offset + found + 1;
        offset = upper;
    }
    return count;
}

/// The start of the line holding `offset`, looking back at most `maxBack` bytes.
std::optional<std::int64_t> lineStartOf(const ByteSource& source, std::int64_t offset, std::int64_t maxBack) {
    const std::int64_t floor = std::max<std::int64_t>(0, offset - maxBack);
    std::int64_t upper = offset;
    while (upper > floor) {
        const std::int64_t lower = std::max(floor, upper - scanChunk);
        std::int64_t found = -1;
        source.withBytes({lower, upper}, [&](std::span<const std::uint8_t> bytes) {
            const void* hit = ::memrchr(bytes.data(), '\n', bytes.size());
            if (hit != nullptr) found = static_cast<const std::uint8_t*>(hit) - bytes.data();
        });
        if (found >= 0) return lower + found + 1;
        upper = lower;
    }
    if (floor == 0) return 0;
    return std::nullopt;
}

/// Cuts a range of the text into pieces: blocks of `blockSize` for a literal, windows of whole
/// lines for an expression.
class PieceMaker {
public:
    PieceMaker(SearchText text, const Plan& plan, ByteRange range) : text_(text), plan_(plan), range_(range) {
        count_ = text.bytes().count();
        range_ = range_.clampedTo(count_);
        position_ = range_.lower;
        if (plan_.literal) return;
        if (const auto start = lineStartOf(text.bytes(), range_.lower, lineLookback)) {
            position_ = *start;
        } else {
            position_ = std::max<std::int64_t>(0, range_.lower - lookbehindContext);
            startsLine_ = false;
        }
    }

    std::optional<Piece> next() {
        // The readable size can drop under a file that was cut short.
        const std::int64_t upper = std::min(range_.upper, text_.bytes().readableCount());
        if (position_ >= upper) return std::nullopt;
        Piece piece;
        if (plan_.literal) {
            const auto length = static_cast<std::int64_t>(plan_.literal->length());
            if (position_ + length > upper) return std::nullopt;
            const std::int64_t ownEnd = std::min(upper, position_ + blockSize);
            piece.data = {position_, std::min(upper, ownEnd + length - 1)};
            piece.from = position_;
            piece.ownEnd = ownEnd;
            position_ = ownEnd;
            return piece;
        }
        const std::int64_t end = windowEnd(position_);
        piece.data = {position_, end};
        piece.from = std::max(position_, range_.lower);
        piece.ownEnd = end;
        piece.edges = {startsLine_, end >= count_};
        startsLine_ = true;
        position_ = end;
        return piece;
    }

    /// Where a window from `start` ends: after the line holding its last byte.
    [[nodiscard]] std::int64_t windowEnd(std::int64_t start) const {
        if (start + windowSize >= count_) return count_;
        return lineEndFrom(text_.bytes(), start + windowSize - 1, count_);
    }

private:
    SearchText text_;
    const Plan& plan_;
    ByteRange range_;
    std::int64_t count_ = 0;
    std::int64_t position_ = 0;
    bool startsLine_ = true;
};

template <typename Sink>
PieceEnd scanLiteralPiece(SearchText text, const Plan& plan, const Piece& piece, std::int64_t from, Sink& sink) {
    const LiteralMatcher& matcher = *plan.literal;
    const ByteSource& source = text.bytes();
    const auto length = static_cast<std::int64_t>(matcher.length());
    const SearchEncoding* encoding = text.encoding();
    const bool checkCharacters = encoding != nullptr && encoding->characterStart;
    PieceEnd end = PieceEnd::finished;
    if (from < piece.data.lower) from = piece.data.lower;
    if (from >= piece.ownEnd) return end;
    source.withBytes(piece.data, [&](std::span<const std::uint8_t> bytes) {
        const std::int64_t base = piece.data.lower;
        const std::int64_t size = static_cast<std::int64_t>(bytes.size());
        LiteralMatcher::Scanner scanner(matcher, bytes, static_cast<std::size_t>(from - base));
        for (std::size_t at = scanner.next(); at != LiteralMatcher::Scanner::none; at = scanner.next()) {
            const std::int64_t start = base + static_cast<std::int64_t>(at);
            if (start >= piece.ownEnd) break;
            if (plan.wholeWord) {
                const auto local = static_cast<std::int64_t>(at);
                const bool wordBefore = local > 0 ? isWordByte(bytes[at - 1])
                                                  : (start > 0 && isWordByte(source.byte(start - 1)));
                const std::int64_t after = local + length;
                const bool wordAfter = after < size ? isWordByte(bytes[static_cast<std::size_t>(after)])
                                                    : (start + length < source.count() && isWordByte(source.byte(start + length)));
                if (wordBefore || wordAfter) continue;
            }
            if (checkCharacters && encoding->characterStart(source, start) != start) continue;
            if (!sink(ByteRange{start, start + length})) {
                end = PieceEnd::stopped;
                return;
            }
            scanner.seek(at + matcher.length());
        }
    });
    return end;
}

template <typename Sink>
PieceEnd scanExpressionPiece(SearchText text, Expression::Matcher& matcher, const Piece& piece, std::int64_t from,
                             const IsCancelled& until, Sink& sink) {
    PieceEnd end = PieceEnd::finished;
    if (from >= piece.ownEnd) return end;
    text.bytes().withBytes(piece.data, [&](std::span<const std::uint8_t> bytes) {
        bool sinkStopped = false;
        const std::int64_t base = piece.data.lower;
        Expression::Matcher::End result = Expression::Matcher::End::finished;
        const auto& prefix = matcher.expression().prefix();
        bool done = false;
        if (prefix && text.isUTF8()) {
            // One pass finds where the prefix stands and tells whether the window is plain ASCII;
            // a window of well-formed UTF-8 is then searched as it is, at those places only.
            thread_local std::vector<std::size_t> starts;
            const bool high = prefix->startsAndHighBytes(bytes, static_cast<std::size_t>(from - base), starts);
            if (!high || UTF8::firstInvalid(bytes) == bytes.size()) {
                result = matcher.enumerateStarts(bytes, starts, static_cast<std::size_t>(from - base), piece.edges, until,
                                                 [&](std::size_t start, std::size_t stop) {
                                                     const ByteRange match{base + static_cast<std::int64_t>(start),
                                                                           base + static_cast<std::int64_t>(stop)};
                                                     if (sink(match)) return Expression::Matcher::goOn;
                                                     sinkStopped = true;
                                                     return Expression::Matcher::stop;
                                                 });
                done = true;
            }
        }
        if (!done) {
            const SearchWindow window(bytes, base, text.encoding());
            result = matcher.enumerate(window.text(), window.textOffset(from), piece.edges, until,
                                       [&](std::size_t start, std::size_t stop) {
                                           const ByteRange match{window.sourceOffset(start), window.sourceOffset(stop)};
                                           if (sink(match)) return Expression::Matcher::goOn;
                                           sinkStopped = true;
                                           return Expression::Matcher::stop;
                                       });
        }
        switch (result) {
        case Expression::Matcher::End::finished: end = PieceEnd::finished; break;
        case Expression::Matcher::End::stopped: end = sinkStopped ? PieceEnd::stopped : PieceEnd::cancelled; break;
        case Expression::Matcher::End::limit: end = PieceEnd::limit; break;
        }
    });
    return end;
}

/// Matchers for the threads of a parallel pass, made on demand and reused.
class MatcherPool {
public:
    explicit MatcherPool(const Expression* expression) : expression_(expression) {}

    std::unique_ptr<Expression::Matcher> acquire() {
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
        std::lock_guard guard(lock_);
        free_.push_back(std::move(matcher));
    }

private:
    const Expression* expression_;
    std::mutex lock_;
    std::vector<std::unique_ptr<Expression::Matcher>> free_;  // guarded by lock_
};

/// The matcher of the calling thread for one expression, kept for the thread's next search with
/// the same compiled expression: a search over many small files then sets up its match data and
/// its JIT stack (a mapping of its own) once a thread, not once a file.
class KeptMatcher {
public:
    explicit KeptMatcher(std::shared_ptr<const Expression> expression) : expression_(std::move(expression)) {
        if (!expression_) return;
        Slot& slot = kept();
        if (slot.expression == expression_ && slot.matcher) {
            matcher_ = std::move(slot.matcher);
        } else {
            matcher_ = std::make_unique<Expression::Matcher>(*expression_);
        }
    }
    ~KeptMatcher() {
        if (!matcher_) return;
        Slot& slot = kept();
        slot.matcher.reset();  // before the expression it refers to can go
        slot.expression = expression_;
        slot.matcher = std::move(matcher_);
    }
    KeptMatcher(const KeptMatcher&) = delete;
    KeptMatcher& operator=(const KeptMatcher&) = delete;

    [[nodiscard]] Expression::Matcher& matcher() const { return *matcher_; }

private:
    struct Slot {
        std::shared_ptr<const Expression> expression;
        std::unique_ptr<Expression::Matcher> matcher;  // refers to `expression`; declared after it, so it goes first
    };
    static Slot& kept() {
        thread_local Slot slot;
        return slot;
    }

    std::shared_ptr<const Expression> expression_;
    std::unique_ptr<Expression::Matcher> matcher_;
};

/// Tells the system that a mapped file is about to be read from front to back, and that jumps
/// are the rule again afterwards, and reads ahead of the scan. Only for a file that is not in
/// memory already: on one that is, the advice costs more than it brings (sequential advice also
/// lets the system drop the pages behind the scan, so a second search would read the disk).
class SequentialAdvice {
public:
    explicit SequentialAdvice(const ByteSource& source) : mapped_(dynamic_cast<const MappedSource*>(&source)) {
        if (mapped_ == nullptr || isResident(*mapped_)) {
            mapped_ = nullptr;
            return;
        }
        mapped_->adviseSequential(true);
    }
    ~SequentialAdvice() {
        if (mapped_ != nullptr) mapped_->adviseSequential(false);
    }
    SequentialAdvice(const SequentialAdvice&) = delete;
    SequentialAdvice& operator=(const SequentialAdvice&) = delete;

    void prefetch(ByteRange range) const {
        if (mapped_ != nullptr) mapped_->prefetch(range);
    }

private:
    /// Whether the first block of the file is in the page cache, as a sign for the rest.
    static bool isResident(const MappedSource& source) {
        const auto page = static_cast<std::int64_t>(::sysconf(_SC_PAGESIZE));
        const std::int64_t length = std::min(source.readableCount(), blockSize);
        if (length <= 0 || page <= 0) return true;
        std::vector<unsigned char> pages(static_cast<std::size_t>((length + page - 1) / page));
        if (::mincore(const_cast<std::uint8_t*>(source.base()), static_cast<std::size_t>(length), pages.data()) != 0) {
            return true;
        }
        return std::all_of(pages.begin(), pages.end(), [](unsigned char flags) { return (flags & 1) != 0; });
    }

    const MappedSource* mapped_;
};

struct RunOptions {
    ByteRange range;
    bool allowParallel = false;
    std::optional<Clock::time_point> deadline = std::nullopt;
    const Progress* progress = nullptr;
    /// Progress is reported as `progressBase + progressScale` × the fraction of `range` done.
    double progressBase = 0;
    double progressScale = 1;
    const IsCancelled* isCancelled = nullptr;
};

struct RunEnd {
    bool cancelled = false;
    bool timedOut = false;
};

/// Runs a plan over a range of the text, handing every match to the collector in order.
RunEnd run(SearchText text, const Plan& plan, Collector& collector, const RunOptions& options) {
    const ByteSource& source = text.bytes();
    const SequentialAdvice advice(source);
    PieceMaker maker(text, plan, options.range);
    const auto pastDeadline = [&options] { return options.deadline && Clock::now() >= *options.deadline; };
    const auto cancelled = [&options] { return options.isCancelled != nullptr && *options.isCancelled && (*options.isCancelled)(); };
    const IsCancelled until = [&] { return cancelled() || pastDeadline(); };
    const auto report = [&](std::int64_t done) {
        if (options.progress == nullptr || !*options.progress) return;
        const double span = static_cast<double>(std::max<std::int64_t>(options.range.length(), 1));
        const double fraction = std::clamp(static_cast<double>(done - options.range.lower) / span, 0.0, 1.0);
        (*options.progress)(options.progressBase + options.progressScale * fraction);
    };
    const auto interrupted = [&]() -> RunEnd {
        const bool late = pastDeadline();
        return {!late, late};
    };

    MatcherPool pool(plan.expression.get());
    const KeptMatcher own(plan.expression);
    auto sink = [&collector](ByteRange match) { return collector.accept(match); };

    /// Searches one piece in this thread, straight into the collector.
    const auto scanInPlace = [&](const Piece& piece) {
        const std::int64_t from = std::max(piece.from, collector.nextAllowed());
        return plan.literal ? scanLiteralPiece(text, plan, piece, from, sink)
                            : scanExpressionPiece(text, own.matcher(), piece, from, until, sink);
    };
    const auto settle = [&](PieceEnd end) -> std::optional<RunEnd> {
        switch (end) {
        case PieceEnd::finished: return std::nullopt;
        case PieceEnd::stopped: return RunEnd{};
        case PieceEnd::limit: return RunEnd{false, true};
        case PieceEnd::cancelled: return interrupted();
        }
        return std::nullopt;
    };

    const bool wide = options.allowParallel && options.range.clampedTo(source.count()).length() > parallelThreshold &&
                      processors() > 1;
    bool sequential = !wide;
    const std::size_t waveSize = processors() * (plan.literal ? 4 : 16);

    while (true) {
        if (until()) return interrupted();
        if (sequential) {
            const auto piece = maker.next();
            if (!piece) break;
            if (plan.literal) advice.prefetch({piece->data.upper, piece->data.upper + blockSize});
            const PieceEnd end = scanInPlace(*piece);
            report(piece->data.upper);
            if (const auto outcome = settle(end)) return *outcome;
            if (collector.finished()) return {};
            continue;
        }

        std::vector<Piece> wave;
        while (wave.size() < waveSize) {
            auto piece = maker.next();
            if (!piece) break;
            wave.push_back(*piece);
        }
        if (wave.empty()) break;
        if (plan.literal) advice.prefetch({wave.back().data.upper, wave.back().data.upper + blockSize * 2});

        struct Found {
            std::vector<ByteRange> matches;
            bool overflowed = false;
            PieceEnd end = PieceEnd::finished;
        };
        std::vector<Found> found(wave.size());
        parallelFor(wave.size(), [&](std::size_t i) {
            Found& into = found[i];
            auto keep = [&into](ByteRange match) {
                if (into.matches.size() >= pieceCapacity) {
                    into.overflowed = true;
                    return false;
                }
                into.matches.push_back(match);
                return true;
            };
            const Piece& piece = wave[i];
            if (until()) {
                into.end = PieceEnd::cancelled;
                return;
            }
            if (plan.literal) {
                into.end = scanLiteralPiece(text, plan, piece, piece.from, keep);
            } else {
                auto matcher = pool.acquire();
                into.end = scanExpressionPiece(text, *matcher, piece, piece.from, until, keep);
                pool.release(std::move(matcher));
            }
        });

        for (std::size_t i = 0; i < wave.size(); ++i) {
            Found& piece = found[i];
            // A literal match at the seam can overlap the last one before it and change which
            // matches follow; a piece too dense to hold is searched again here.
            const bool seam = plan.literal && !piece.matches.empty() && piece.matches.front().lower < collector.nextAllowed();
            PieceEnd end = piece.end;
            if (piece.overflowed || seam) {
                if (piece.overflowed) sequential = true;
                end = scanInPlace(wave[i]);
            } else {
                for (const ByteRange& match : piece.matches) {
                    if (!collector.accept(match)) {
                        end = PieceEnd::stopped;
                        break;
                    }
                }
            }
            report(wave[i].data.upper);
            if (const auto outcome = settle(end)) return *outcome;
            if (collector.finished()) return {};
        }
    }
    return {};
}

/// A compiled expression kept for the next search with the same pattern and options.
struct CachedExpression {
    std::string pattern;
    bool isRegex = false;
    bool caseSensitive = false;
    bool wholeWord = false;
    std::shared_ptr<const Expression> expression;
};

} // namespace

BrimError expressionTooSlow() {
    return BrimError(L("The expression takes too long on this text and was stopped. Make it more specific."));
}

std::optional<LiteralMatcher> literalMatcher(const SearchQuery& query, SearchText text, bool useHistogram) {
    if (query.isRegex || query.pattern.empty()) return std::nullopt;
    if (!query.caseSensitive && !isASCII(query.pattern)) return std::nullopt;
    std::string bytes = query.pattern;
    if (const SearchEncoding* encoding = text.encoding(); encoding != nullptr && encoding->encode) {
        auto encoded = encoding->encode(query.pattern);
        if (!encoded) return std::nullopt;
        bytes = std::move(*encoded);
    }
    if (bytes.empty()) return std::nullopt;
    // Below a quarter of a megabyte the whole scan costs about what sampling would, so the
    // static ranks choose the anchors.
    if (!useHistogram || text.bytes().count() < histogramThreshold) return LiteralMatcher(bytes, !query.caseSensitive);
    const ByteHistogram histogram = LiteralMatcher::byteHistogram(text.bytes());
    return LiteralMatcher(bytes, !query.caseSensitive, &histogram);
}

std::shared_ptr<const Expression> expression(const SearchQuery& query) {
    static std::mutex lock;
    static std::deque<CachedExpression> cache;  // guarded by lock; newest first
    {
        std::lock_guard guard(lock);
        for (const auto& entry : cache) {
            if (entry.pattern == query.pattern && entry.isRegex == query.isRegex &&
                entry.caseSensitive == query.caseSensitive && entry.wholeWord == query.wholeWord) {
                return entry.expression;
            }
        }
    }
    auto compiled = Expression::compile(
        query.pattern, {.caseSensitive = query.caseSensitive, .wholeWord = query.wholeWord, .isLiteral = !query.isRegex});
    std::lock_guard guard(lock);
    cache.push_front({query.pattern, query.isRegex, query.caseSensitive, query.wholeWord, compiled});
    if (cache.size() > 16) cache.pop_back();
    return compiled;
}

void validate(const SearchQuery& query) {
    if (query.pattern.empty()) return;
    if (!query.isRegex && (query.caseSensitive || isASCII(query.pattern))) return;
    (void)expression(query);
}

FindAllResult findAll(SearchText text, const SearchQuery& query, std::int64_t limit, int spreadCapacity,
                      const Progress& progress, const IsCancelled& isCancelled) {
    FindAllResult result;
    if (query.pattern.empty()) return result;
    const Plan plan = makePlan(text, query, true);
    const std::int64_t count = text.bytes().count();
    Collector collector({.range = {0, count},
                         .limit = std::max<std::int64_t>(limit, 0),
                         .spreadCapacity = static_cast<std::size_t>(std::max(spreadCapacity, 8))});
    const RunEnd end = run(text, plan, collector,
                           {.range = {0, count}, .allowParallel = true, .progress = &progress, .isCancelled = &isCancelled});
    result.matches = std::move(collector.matches());
    result.total = collector.total();
    result.spread = collector.spread();
    result.cancelled = end.cancelled;
    result.timedOut = end.timedOut;
    return result;
}

std::optional<SearchHit> findNext(SearchText text, const SearchQuery& query, std::int64_t from, const Progress& progress,
                                  const IsCancelled& isCancelled) {
    if (query.pattern.empty()) return std::nullopt;
    const Plan plan = makePlan(text, query, true);
    const std::int64_t count = text.bytes().count();
    from = std::clamp<std::int64_t>(from, 0, count);
    const double firstLeg = static_cast<double>(std::max<std::int64_t>(count - from, 1));
    const double total = firstLeg + (query.wrapAround ? static_cast<double>(from) : 0.0);

    Collector forward({.range = {from, count}, .limit = 1, .stopAtLimit = true});
    RunEnd end = run(text, plan, forward,
                     {.range = {from, count}, .progress = &progress, .progressScale = firstLeg / total, .isCancelled = &isCancelled});
    if (end.timedOut) throw expressionTooSlow();
    if (end.cancelled) return std::nullopt;
    if (!forward.matches().empty()) return SearchHit{forward.matches().front()};
    if (!query.wrapAround || from < 1) return std::nullopt;

    // The wrapped leg takes any match that starts before `from`, also one that runs past it.
    Collector wrapped({.range = {0, count}, .limit = 1, .stopAtLimit = true, .stopAtStart = from});
    end = run(text, plan, wrapped,
              {.range = {0, count}, .progress = &progress, .progressBase = firstLeg / total,
               .progressScale = (total - firstLeg) / total, .isCancelled = &isCancelled});
    if (end.timedOut) throw expressionTooSlow();
    if (end.cancelled || wrapped.matches().empty()) return std::nullopt;
    return SearchHit{wrapped.matches().front()};
}

std::optional<SearchHit> scanBackward(SearchText text, const SearchQuery& query, std::int64_t before,
                                      const Progress& progress, const IsCancelled& isCancelled) {
    if (query.pattern.empty()) return std::nullopt;
    const Plan plan = makePlan(text, query, true);
    const ByteSource& source = text.bytes();
    const std::int64_t count = source.count();
    before = std::clamp<std::int64_t>(before, 0, count);
    const auto report = [&](std::int64_t reached) {
        if (progress) progress(before > 0 ? static_cast<double>(before - reached) / static_cast<double>(before) : 1.0);
    };

    if (plan.literal) {
        const LiteralMatcher& matcher = *plan.literal;
        const auto length = static_cast<std::int64_t>(matcher.length());
        std::int64_t upper = before;
        while (upper >= length) {
            if (isCancelled && isCancelled()) return std::nullopt;
            const std::int64_t lower = std::max<std::int64_t>(0, upper - blockSize);
            std::optional<SearchHit> last;
            // Every start in the block, overlapping ones too: the last is what Find Previous wants.
            auto keepLast = [&last](ByteRange match) {
                last = SearchHit{match};
                return true;
            };
            source.withBytes({lower, upper}, [&](std::span<const std::uint8_t> bytes) {
                LiteralMatcher::Scanner scanner(matcher, bytes);
                for (std::size_t at = scanner.next(); at != LiteralMatcher::Scanner::none; at = scanner.next()) {
                    const std::int64_t start = lower + static_cast<std::int64_t>(at);
                    if (plan.wholeWord) {
                        const bool wordBefore = start > 0 && isWordByte(at > 0 ? bytes[at - 1] : source.byte(start - 1));
                        const bool wordAfter = start + length < count && isWordByte(source.byte(start + length));
                        if (wordBefore || wordAfter) continue;
                    }
                    const SearchEncoding* encoding = text.encoding();
                    if (encoding != nullptr && encoding->characterStart && encoding->characterStart(source, start) != start) {
                        continue;
                    }
                    keepLast({start, start + length});
                }
            });
            report(lower);
            if (last) return last;
            if (lower == 0) break;
            upper = lower + length - 1;
        }
        return std::nullopt;
    }

    Expression::Matcher matcher(*plan.expression);
    std::int64_t upper = lineEndFrom(source, before, count);
    std::int64_t reach = 65'536;
    while (upper > 0) {
        if (isCancelled && isCancelled()) return std::nullopt;
        const std::int64_t target = std::max<std::int64_t>(0, std::min(before, upper) - reach);
        bool startsLine = true;
        std::int64_t lower = 0;
        if (const auto start = lineStartOf(source, target, lineLookback)) {
            lower = *start;
        } else {
            lower = target;
            startsLine = false;
        }
        if (upper - lower > backwardWindowLimit) {
            lower = upper - backwardWindowLimit;
            startsLine = false;
        }
        std::optional<SearchHit> last;
        bool stoppedByLimit = false;
        source.withBytes({lower, upper}, [&](std::span<const std::uint8_t> bytes) {
            const SearchWindow window(bytes, lower, text.encoding());
            std::int64_t nextAllowed = lower;
            const auto endOfMatches = matcher.enumerate(
                window.text(), 0, {startsLine, upper >= count}, isCancelled, [&](std::size_t s, std::size_t e) {
                    const ByteRange match{window.sourceOffset(s), window.sourceOffset(e)};
                    if (match.lower > before) return Expression::Matcher::stop;
                    if (match.lower >= nextAllowed && match.upper <= before) last = SearchHit{match};
                    nextAllowed = std::max(match.lower + 1, match.upper);
                    return Expression::Matcher::goOn;
                });
            stoppedByLimit = endOfMatches == Expression::Matcher::End::limit;
        });
        if (stoppedByLimit) throw expressionTooSlow();
        report(lower);
        if (last) return last;
        if (lower == 0) break;
        upper = lower;
        reach = std::min(reach * 4, backwardWindowLimit);
    }
    return std::nullopt;
}

std::vector<ByteRange> collect(SearchText text, const SearchQuery& query, ByteRange range, std::int64_t limit,
                               const IsCancelled& isCancelled) {
    if (query.pattern.empty() || limit <= 0) return {};
    const Plan plan = makePlan(text, query, true);
    range = range.clampedTo(text.bytes().count());
    Collector collector({.range = range, .limit = limit, .stopAtLimit = true});
    const RunEnd end = run(text, plan, collector, {.range = range, .allowParallel = true, .isCancelled = &isCancelled});
    if (end.timedOut) throw expressionTooSlow();
    return std::move(collector.matches());
}

std::vector<ByteRange> matches(SearchText text, const SearchQuery& query, ByteRange band, std::int64_t limit,
                               std::chrono::milliseconds deadline) {
    if (query.pattern.empty() || limit <= 0) return {};
    const auto stopAt = Clock::now() + deadline;
    Plan plan;
    try {
        plan = makePlan(text, query, false);
    } catch (const PatternError&) {
        return {};
    }
    band = band.clampedTo(text.bytes().count());
    Collector collector({.range = band, .limit = limit, .stopAtLimit = true});
    (void)run(text, plan, collector, {.range = band, .deadline = stopAt});
    return std::move(collector.matches());
}

} // namespace brim::SearchEngine
