#include "search/Expression.h"

#include "common/Localization.h"
#include "search/ExpressionSyntax.h"

#include <pcre2.h>

#include <array>
#include <new>

namespace brim {

namespace {

// One match may take this many steps of the engine before it is given up as a runaway: far
// beyond any sensible expression on a line, and reached in well under a second by one that
// backtracks without end.
constexpr std::uint32_t matchLimit = 20'000'000;
constexpr std::uint32_t depthLimit = 100'000;
constexpr std::uint32_t heapLimitKiB = 64 * 1'024;
constexpr std::size_t jitStackStart = 64 * 1'024;
constexpr std::size_t jitStackMaximum = 4 * 1'048'576;

pcre2_code* codeOf(void* code) { return static_cast<pcre2_code*>(code); }

std::string errorText(int code) {
    std::array<PCRE2_UCHAR, 256> buffer{};
    pcre2_get_error_message(code, buffer.data(), buffer.size());
    return std::string(reinterpret_cast<const char*>(buffer.data()));
}

/// The character (from 1) at a byte offset of a UTF-8 pattern.
std::size_t characterPosition(std::string_view pattern, std::size_t offset) {
    std::size_t characters = 0;
    for (std::size_t i = 0; i < offset && i < pattern.size(); ++i) {
        if ((static_cast<unsigned char>(pattern[i]) & 0xC0) != 0x80) ++characters;
    }
    return characters + 1;
}

} // namespace

std::shared_ptr<const Expression> Expression::compile(std::string_view pattern, Options options) {
    const std::string translated =
        options.isLiteral ? ExpressionSyntax::escaped(pattern) : ExpressionSyntax::toPCRE2(pattern);
    const std::string full = options.wholeWord ? "\\b(?:" + translated + ")\\b" : translated;

    pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
    // The line ends ICU knows: LF, CR, CRLF, VT, FF, NEL, LS and PS.
    pcre2_set_newline(context, PCRE2_NEWLINE_ANY);
    std::uint32_t flags = PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF | PCRE2_MULTILINE;
    if (!options.caseSensitive) flags |= PCRE2_CASELESS;
    int error = 0;
    PCRE2_SIZE errorOffset = 0;
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(full.data()), full.size(), flags, &error,
                                     &errorOffset, context);
    pcre2_compile_context_free(context);
    if (code == nullptr) {
        std::string description = errorText(error);
        // The offset names a place in what the user typed only when nothing was rewritten.
        const std::size_t wrapper = options.wholeWord ? 5 : 0;
        if (!options.isLiteral && translated == pattern && errorOffset >= wrapper &&
            errorOffset - wrapper <= pattern.size()) {
            description += L(" (at character %d)", characterPosition(pattern, errorOffset - wrapper));
        }
        throw PatternError::invalid(description);
    }
    auto expression = std::shared_ptr<Expression>(new Expression());
    expression->code_ = code;
    expression->jitted_ = pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) == 0;
    std::uint32_t captures = 0;
    pcre2_pattern_info(code, PCRE2_INFO_CAPTURECOUNT, &captures);
    expression->captureCount_ = static_cast<int>(captures);
    const std::string prefix = ExpressionSyntax::requiredPrefix(translated, !options.caseSensitive);
    if (!prefix.empty()) {
        // The JIT runs no anchored match unless the expression was compiled anchored, so the
        // candidates of the prefix path get a copy of their own.
        pcre2_compile_context* again = pcre2_compile_context_create(nullptr);
        pcre2_set_newline(again, PCRE2_NEWLINE_ANY);
        pcre2_code* anchored = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(full.data()), full.size(),
                                             flags | PCRE2_ANCHORED, &error, &errorOffset, again);
        pcre2_compile_context_free(again);
        if (anchored != nullptr) {
            expression->anchoredJitted_ = pcre2_jit_compile(anchored, PCRE2_JIT_COMPLETE) == 0;
            expression->anchoredCode_ = anchored;
            expression->prefix_.emplace(prefix, !options.caseSensitive);
        }
    }
    return expression;
}

Expression::~Expression() {
    pcre2_code_free(codeOf(code_));
    pcre2_code_free(codeOf(anchoredCode_));
}

Expression::Matcher::Matcher(const Expression& expression) : expression_(expression) {
    matchData_ = pcre2_match_data_create_from_pattern(codeOf(expression.code_), nullptr);
    auto* context = pcre2_match_context_create(nullptr);
    pcre2_set_match_limit(context, matchLimit);
    pcre2_set_depth_limit(context, depthLimit);
    pcre2_set_heap_limit(context, heapLimitKiB);
    context_ = context;
    if (expression.jitted_) {
        // The default 32 KiB stack fails on ordinary long lines; a failure there must never pass
        // for "no match", so the stack is large and its exhaustion counts as the limit.
        auto* stack = pcre2_jit_stack_create(jitStackStart, jitStackMaximum, nullptr);
        if (stack != nullptr) pcre2_jit_stack_assign(context, nullptr, stack);
        jitStack_ = stack;
    }
    if (matchData_ == nullptr || context_ == nullptr) throw std::bad_alloc();
}

Expression::Matcher::~Matcher() {
    pcre2_match_data_free(static_cast<pcre2_match_data*>(matchData_));
    pcre2_match_context_free(static_cast<pcre2_match_context*>(context_));
    pcre2_jit_stack_free(static_cast<pcre2_jit_stack*>(jitStack_));
}

Expression::Outcome Expression::Matcher::find(std::span<const std::uint8_t> subject, std::size_t start, bool anchored,
                                              Edges edges) {
    auto* data = static_cast<pcre2_match_data*>(matchData_);
    // An empty subject still needs a valid pointer.
    static const std::uint8_t nothing = 0;
    const auto* bytes = subject.empty() ? &nothing : subject.data();
    // Anchoring at match time would leave the JIT for the interpreter: use the anchored copy.
    pcre2_code* code = codeOf(expression_.code_);
    bool jitted = expression_.jitted_;
    std::uint32_t options = 0;
    if (!edges.startsLine) options |= PCRE2_NOTBOL;
    if (!edges.endsText) options |= PCRE2_NOTEOL;
    if (anchored) {
        if (expression_.anchoredCode_ != nullptr) {
            code = codeOf(expression_.anchoredCode_);
            jitted = expression_.anchoredJitted_;
        } else {
            options |= PCRE2_ANCHORED;
            jitted = false;
        }
    }
    // The JIT's own entry skips the checks the general one makes on every call; the subject is
    // well-formed UTF-8 (a window repairs stray bytes first), which is what those checks are for.
    const int result =
        jitted ? pcre2_jit_match(code, bytes, subject.size(), start, options, data, static_cast<pcre2_match_context*>(context_))
               : pcre2_match(code, bytes, subject.size(), start, options, data, static_cast<pcre2_match_context*>(context_));
    if (result == PCRE2_ERROR_NOMATCH || result == PCRE2_ERROR_PARTIAL) return Outcome::noMatch;
    if (result < 0) {
        // Every other failure is a limit: match, depth, heap or JIT stack. Bad UTF cannot come
        // from a subject the caller repaired, and is treated the same way rather than as a miss.
        return Outcome::limit;
    }
    const PCRE2_SIZE* vector = pcre2_get_ovector_pointer(data);
    matchStart_ = vector[0];
    matchEnd_ = vector[1];
    return Outcome::match;
}

std::size_t Expression::Matcher::matchStart() const { return matchStart_; }
std::size_t Expression::Matcher::matchEnd() const { return matchEnd_; }

std::size_t Expression::Matcher::groupStart(int group) const {
    auto* data = static_cast<pcre2_match_data*>(matchData_);
    if (group < 0 || static_cast<std::uint32_t>(group) >= pcre2_get_ovector_count(data)) return none;
    const PCRE2_SIZE value = pcre2_get_ovector_pointer(data)[2 * static_cast<std::size_t>(group)];
    return value == PCRE2_UNSET ? none : value;
}

std::size_t Expression::Matcher::groupEnd(int group) const {
    auto* data = static_cast<pcre2_match_data*>(matchData_);
    if (group < 0 || static_cast<std::uint32_t>(group) >= pcre2_get_ovector_count(data)) return none;
    const PCRE2_SIZE value = pcre2_get_ovector_pointer(data)[2 * static_cast<std::size_t>(group) + 1];
    return value == PCRE2_UNSET ? none : value;
}

} // namespace brim
