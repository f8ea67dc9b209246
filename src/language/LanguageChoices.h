#pragma once

#include "language/Language.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace brim::LanguageChoices {

/// One language considered for a text, with how strongly the text points at it and why.
struct Candidate {
    Language language;
    double score = 0;      ///< higher is better
    std::string reason;    ///< a sentence for the user, joined from the evidence
    bool isCurrent = false;
};

/// A constant rule on the shape of a text that points at one language.
struct Signature {
    enum class Kind : std::uint8_t {
        start,      ///< the text, leading whitespace trimmed, begins with the needle: the weight
        contains,   ///< occurrences anywhere, up to `limit`, times the weight
        lineStart,  ///< lines among the first 500 that begin with the needle, up to `limit`, times the weight
    };
    std::string_view languageID;
    std::string_view needle;
    Kind kind;
    int limit;
    double weight;

    /// The score of this rule on `text`: 0 when it does not apply.
    [[nodiscard]] double score(std::string_view text) const;
};

/// The 58 signatures in their fixed order.
[[nodiscard]] const std::vector<Signature>& signatures();

/// Counts of the words of a sample, in the order they first appeared, keyed lower-cased.
class WordCounts {
public:
    void add(std::string_view lowercasedWord, double weight);
    [[nodiscard]] const std::vector<std::pair<std::string, double>>& entries() const { return entries_; }
    [[nodiscard]] double count(std::string_view lowercasedWord) const;

private:
    std::vector<std::pair<std::string, double>> entries_;
    std::unordered_map<std::string, std::size_t> index_;
};

/// Languages scored against `sample`, best first, at equal scores by display name. A language is
/// listed if anything in the text or the name points at it, or if it is `current`; `plain` only
/// when it is current. `name` may be empty. Reads at most 65,536 characters of the sample.
[[nodiscard]] std::vector<Candidate> candidates(std::string_view sample, std::string_view name,
                                                const std::optional<Language>& current,
                                                const std::vector<Language>& among);

/// The language the text clearly is, or nothing: the best candidate among all languages, if it
/// scores at least 12 and at least 1.8 times the next one. A near tie is not a detection.
[[nodiscard]] std::optional<Candidate> best(std::string_view sample, std::string_view name);

/// The language id a mode line in the first 3 or last 5 lines names (`-*- mode: python -*-`,
/// `vim: set ft=ruby:`), if one resolves.
[[nodiscard]] std::optional<std::string> modeline(std::string_view sample);

/// The language id a word names: an id, a display name in lower case, a common alias, or an
/// extension.
[[nodiscard]] std::optional<std::string> languageID(std::string_view word);

/// How much the first 60 lines look like separated values, and by what: ",", "tab", ";" or "|".
struct Delimited {
    double score;
    std::string separator;
};
[[nodiscard]] std::optional<Delimited> delimited(std::string_view sample);

/// Counts the words of the first 65,536 characters into `counts`, weighting code-like lines 1 and
/// others 0.1; returns the weighted total. Words under 3 characters and prose words are skipped.
double words(std::string_view sample, WordCounts& counts);

/// Whether a line looks like code rather than prose: it ends in `:`, `;`, `{`, `(` or `\`, or it
/// holds one of `{ } ; = $` or a pair such as `()`, `->`, `=>`, `::`, `);`.
[[nodiscard]] bool isCode(std::string_view line);

/// Every term of every language but `plain`, lower-cased, with the ids of the languages claiming it.
[[nodiscard]] std::map<std::string, std::vector<std::string>> vocabulary();

/// Each language's vocabulary size: the sum over its terms of 4 ÷ the term's claimants.
[[nodiscard]] std::map<std::string, double> vocabularySizes();

/// Whether a lower-case word is one of the ordinary English words never taken as evidence.
[[nodiscard]] bool isProse(std::string_view lowercasedWord);

} // namespace brim::LanguageChoices
