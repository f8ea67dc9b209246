#pragma once

#include "charsets/TextEncoding.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brim::EncodingScorer {

/// The families of accented Latin letters. Letters of one family support each other in a text;
/// letters of several families in one text are a misreading.
enum class LetterGroup : std::uint8_t { western, central, turkish, baltic, shared };

/// The sets of characters that ideographs are counted against.
enum class CommonSet : std::uint8_t { chinese, korean };

/// How believable `bytes` are as `encoding`: a mean over the non-ASCII characters of the text, higher
/// being better. Absent when the bytes cannot be read in the set (a system converter refuses them; an
/// incomplete character at the very end is dropped first) or hold no non-ASCII character.
[[nodiscard]] std::optional<double> score(std::span<const std::uint8_t> bytes, const TextEncoding& encoding);

/// The score of decoded text, given as scalars.
[[nodiscard]] std::optional<double> score(std::u32string_view text);

/// The text of `bytes` as `score` reads it: strictly through a system converter (dropping up to three
/// bytes of an incomplete last character), through `decode` for sets with tables or codecs.
[[nodiscard]] std::optional<std::u32string> readingForScore(std::span<const std::uint8_t> bytes,
                                                            const TextEncoding& encoding);

struct Scored {
    TextEncoding encoding;
    double score = 0;
};

/// The best reading among `candidates`. Two readings within 0.1 of each other are a tie, which the set
/// earlier in `tieOrder` wins with its own score; at equal rank the earlier candidate stays. Absent when
/// no candidate reads the bytes.
[[nodiscard]] std::optional<Scored> best(std::span<const std::uint8_t> bytes, std::span<const TextEncoding> candidates);

/// A second reading that scored within 1.0 of `best` and gives a different text; the highest such, the
/// first at equal score. Absent when every close reading says the same as the best.
[[nodiscard]] std::optional<TextEncoding> closeSecond(std::span<const std::uint8_t> bytes,
                                                      std::span<const TextEncoding> candidates, const Scored& best);

/// The ids that win ties, in order. A set not listed ranks behind all of them.
[[nodiscard]] const std::vector<std::string>& tieOrder();

/// Counts of the 40 characters written only in simplified and only in traditional Chinese, over the
/// first 20,000 scalars.
struct ChineseForms {
    int simplified = 0;
    int traditional = 0;
};
[[nodiscard]] ChineseForms chineseForms(std::u32string_view text);

/// Of the ideographs and Hangul syllables in the first 20,000 scalars, the share that lies in the set's
/// common characters; 0 when there are none.
[[nodiscard]] double commonShare(std::u32string_view text, CommonSet set);

/// The letter family of one character, tested in the order shared, western, central, Turkish, Baltic.
[[nodiscard]] std::optional<LetterGroup> group(char32_t letter);

} // namespace brim::EncodingScorer
