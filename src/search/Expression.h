#pragma once

#include "common/SerialQueue.h"
#include "search/LiteralMatcher.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace brim {

/// Where a subject handed to the expression engine lies in the document: one that does not
/// begin a line has no line start at its first byte, and one that does not end the text has no
/// `$` at its last.
struct SubjectEdges {
    bool startsLine = true;
    bool endsText = true;
};

/// A regular expression compiled for searching document bytes: PCRE2 over UTF-8, JIT-compiled,
/// with `^` and `$` at every line. Immutable after compiling and shared between threads; each
/// thread matches through a `Matcher` of its own.
class Expression {
public:
    using Edges = SubjectEdges;

    struct Options {
        bool caseSensitive = true;
        /// Wrapped as `\b(?:pattern)\b`.
        bool wholeWord = false;
        /// The pattern is text to find as it stands, not an expression.
        bool isLiteral = false;
    };

    /// Compiles a pattern in ICU's syntax. Throws `PatternError` ("Invalid pattern: …") for one
    /// the engine refuses or one with no faithful translation.
    [[nodiscard]] static std::shared_ptr<const Expression> compile(std::string_view pattern, Options options);

    ~Expression();
    Expression(const Expression&) = delete;
    Expression& operator=(const Expression&) = delete;

    /// Numbered groups in the pattern, not counting the whole match.
    [[nodiscard]] int captureCount() const { return captureCount_; }

    /// A scanner for the bytes every match starts with, when there are some.
    [[nodiscard]] const std::optional<LiteralMatcher>& prefix() const { return prefix_; }

    /// What one call of `Matcher::find` came to.
    enum class Outcome : std::uint8_t { match, noMatch, limit };

    /// Per-thread matching state: the match data and a JIT stack of up to 4 MiB.
    class Matcher {
    public:
        explicit Matcher(const Expression& expression);
        ~Matcher();
        Matcher(const Matcher&) = delete;
        Matcher& operator=(const Matcher&) = delete;

        /// The first match starting at or after `start` in `subject` (anchored: exactly at
        /// `start`). `limit` when the match or depth limit stopped the engine, which is never
        /// read as "no match". Bytes before `start` are seen by lookbehinds and `\b`.
        [[nodiscard]] Outcome find(std::span<const std::uint8_t> subject, std::size_t start, bool anchored = false,
                                   Edges edges = {});

        /// The last match's bounds and its groups' (`none` for a group that took no part).
        [[nodiscard]] std::size_t matchStart() const;
        [[nodiscard]] std::size_t matchEnd() const;
        [[nodiscard]] std::size_t groupStart(int group) const;
        [[nodiscard]] std::size_t groupEnd(int group) const;

        static constexpr std::size_t none = static_cast<std::size_t>(-1);

        /// Why `enumerate` stopped.
        enum class End : std::uint8_t { finished, stopped, limit };

        /// What `enumerate`'s body answers: stop, go on, or go on from a position further on.
        static constexpr std::size_t stop = none;
        static constexpr std::size_t goOn = 0;

        /// Every match in `subject` from `from` on, without overlap, in order: after a match the
        /// search goes on at its end, and after an empty one a character further. `body` gets
        /// each match's start and end and answers `stop`, `goOn`, or a position from which to
        /// go on when that lies beyond the match. `until` is asked now and then between
        /// matches, never during one; true stops the loop.
        template <typename Body>
        End enumerate(std::span<const std::uint8_t> subject, std::size_t from, Edges edges, const IsCancelled& until,
                      Body&& body);

        /// `enumerate` for an expression with a prefix, given where the prefix stands in
        /// `subject` (ascending, as `LiteralMatcher::startsAndHighBytes` finds them): the engine
        /// runs anchored at those places only.
        template <typename Body>
        End enumerateStarts(std::span<const std::uint8_t> subject, std::span<const std::size_t> starts, std::size_t from,
                            Edges edges, const IsCancelled& until, Body&& body);

        [[nodiscard]] const Expression& expression() const { return expression_; }

    private:
        /// Where the search goes on after a match ending at `end` that the caller answered with
        /// `answer`: past the match, or one character later after an empty one, so it never stalls.
        static std::size_t nextPosition(std::span<const std::uint8_t> subject, std::size_t position, std::size_t end,
                                        std::size_t answer) {
            if (answer > end) return answer;
            if (end > position) return end;
            position = std::max(position, end) + 1;
            while (position < subject.size() && (subject[position] & 0xC0) == 0x80) ++position;
            return position;
        }
        const Expression& expression_;
        void* matchData_ = nullptr;
        void* context_ = nullptr;
        void* jitStack_ = nullptr;
        std::size_t matchStart_ = 0;
        std::size_t matchEnd_ = 0;
    };

private:
    Expression() = default;

    void* code_ = nullptr;
    void* anchoredCode_ = nullptr;  // the same expression compiled anchored, for the prefix path
    bool jitted_ = false;
    bool anchoredJitted_ = false;
    int captureCount_ = 0;
    std::optional<LiteralMatcher> prefix_;
};

template <typename Body>
Expression::Matcher::End Expression::Matcher::enumerate(std::span<const std::uint8_t> subject, std::size_t from,
                                                         Edges edges, const IsCancelled& until, Body&& body) {
    const std::size_t count = subject.size();
    std::size_t position = from;
    unsigned sinceCheck = 0;
    std::optional<LiteralMatcher::Scanner> candidates;
    if (expression_.prefix_) candidates.emplace(*expression_.prefix_, subject, from);
    while (position <= count) {
        if (++sinceCheck == 256) {
            sinceCheck = 0;
            if (until && until()) return End::stopped;
        }
        Outcome outcome;
        if (candidates) {
            // Every match begins with the prefix: try the engine only where the prefix stands,
            // anchored there, which finds exactly what an open search would.
            candidates->seek(position);
            outcome = Outcome::noMatch;
            for (std::size_t at = candidates->next(); at != LiteralMatcher::Scanner::none; at = candidates->next()) {
                outcome = find(subject, at, true, edges);
                if (outcome != Outcome::noMatch) break;
                if (++sinceCheck == 4'096) {
                    sinceCheck = 0;
                    if (until && until()) return End::stopped;
                }
            }
        } else {
            outcome = find(subject, position, false, edges);
        }
        if (outcome == Outcome::limit) return End::limit;
        if (outcome == Outcome::noMatch) return End::finished;
        const std::size_t start = matchStart_;
        const std::size_t end = matchEnd_ < start ? start : matchEnd_;
        const std::size_t answer = body(start, end);
        if (answer == stop) return End::stopped;
        position = nextPosition(subject, position, end, answer);
    }
    return End::finished;
}

template <typename Body>
Expression::Matcher::End Expression::Matcher::enumerateStarts(std::span<const std::uint8_t> subject,
                                                               std::span<const std::size_t> starts, std::size_t from,
                                                               Edges edges, const IsCancelled& until, Body&& body) {
    const std::size_t count = subject.size();
    std::size_t position = from;
    std::size_t next = 0;
    unsigned sinceCheck = 0;
    while (position <= count) {
        Outcome outcome = Outcome::noMatch;
        while (next < starts.size()) {
            const std::size_t at = starts[next++];
            if (at < position) continue;
            if (++sinceCheck == 4'096) {
                sinceCheck = 0;
                if (until && until()) return End::stopped;
            }
            outcome = find(subject, at, true, edges);
            if (outcome != Outcome::noMatch) break;
        }
        if (outcome == Outcome::limit) return End::limit;
        if (outcome == Outcome::noMatch) return End::finished;
        const std::size_t start = matchStart_;
        const std::size_t end = matchEnd_ < start ? start : matchEnd_;
        const std::size_t answer = body(start, end);
        if (answer == stop) return End::stopped;
        position = nextPosition(subject, position, end, answer);
    }
    return End::finished;
}

} // namespace brim
