#pragma once

#include "bytes/ByteSource.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brim {

/// How often each byte value occurs in a sample of a source: the counts behind "rare".
using ByteHistogram = std::array<std::int64_t, 256>;

/// A fixed run of bytes and what it takes to find it fast: the two anchor bytes a scan looks for
/// first, and whether the rarer one is rare enough for `memchr`. Built once per search, read by
/// any number of scanners at once.
///
/// Case-insensitive matching folds A-Z to a-z and nothing else: a literal search is byte-exact
/// beyond ASCII letters. A pattern must hold at least one byte.
class LiteralMatcher {
public:
    /// How a scanner finds candidates. `rareByte` walks with `memchr` to the rare anchor;
    /// `wordAtATime` tests both anchors eight bytes at a time in plain integer code; `vector` does
    /// the same test 32 bytes at a time with the processor's vector unit.
    enum class Strategy : std::uint8_t { rareByte, wordAtATime, vector };

    /// Builds the matcher. `histogram`, when given, ranks bytes by how often the text has them;
    /// without one only the static rank counts and `rareIsVeryRare` stays false.
    LiteralMatcher(std::string_view pattern, bool caseInsensitiveASCII, const ByteHistogram* histogram = nullptr);

    /// The byte counts of a sample of `source`: all of it up to 65,536 bytes, else four blocks of
    /// 65,536 at 0, 1/3, 2/3 and the end. Reads at most 256 KiB.
    [[nodiscard]] static ByteHistogram byteHistogram(const ByteSource& source);

    /// The static rank of a byte, lower being rarer: space 1000, tab and line ends 900, "aeinorst"
    /// 700, digits 500, "cdhlmu" 450, other lower-case letters 300, upper-case 150, the rest 60.
    [[nodiscard]] static int rarity(std::uint8_t byte);

    /// Whether the pattern stands at `bytes`, which holds at least `length()` bytes.
    [[nodiscard]] bool matchesAt(const std::uint8_t* bytes) const;

    [[nodiscard]] std::size_t length() const { return pattern.size(); }

    /// Every start of the pattern in `bytes` at or after `from`, overlapping ones included, in
    /// ascending order, into `starts` (cleared first); returns whether any byte of `bytes` is
    /// 0x80 or more. With a vector unit both come from one pass over the bytes, so a caller that
    /// must know whether a block is plain ASCII learns it for free.
    bool startsAndHighBytes(std::span<const std::uint8_t> bytes, std::size_t from, std::vector<std::size_t>& starts) const;

    /// The pattern's bytes, A-Z lowered when case is ignored.
    std::string pattern;
    bool caseInsensitiveASCII = false;
    /// Offsets in the pattern of the rarest byte and of its partner.
    std::size_t rareIndex = 0;
    std::size_t partnerIndex = 0;
    /// The anchors in both cases; the same byte twice when it is no ASCII letter or case counts.
    std::uint8_t rareLower = 0;
    std::uint8_t rareUpper = 0;
    std::uint8_t partnerLower = 0;
    std::uint8_t partnerUpper = 0;
    /// A third byte the vector lanes test where both anchors agree, before the whole pattern:
    /// the one farthest from the anchors, which rarely shares their company by chance.
    std::size_t thirdIndex = 0;
    std::uint8_t thirdLower = 0;
    std::uint8_t thirdUpper = 0;
    /// The rare anchor is under 0.8% of the sampled text, so `memchr` to it wins.
    bool rareIsVeryRare = false;
    /// Chosen from `rareIsVeryRare` and the machine: with a vector unit, `memchr` only for a rare
    /// byte under 0.1% of the text. Tests and benchmarks may set it.
    Strategy strategy = Strategy::wordAtATime;

    /// The cursor over one contiguous block. Yields every position at or after the cursor where
    /// the whole pattern stands, in ascending order, overlapping ones included; callers that want
    /// no overlap `seek` past each match. Never allocates.
    class Scanner {
    public:
        static constexpr std::size_t none = static_cast<std::size_t>(-1);

        Scanner(const LiteralMatcher& matcher, std::span<const std::uint8_t> block, std::size_t from = 0);

        /// The next start at or after the cursor, or `none` when the block holds no more.
        [[nodiscard]] std::size_t next();

        /// Moves the cursor forward to `position`: starts before it are not reported. A position
        /// behind the cursor changes nothing.
        void seek(std::size_t position);

    private:
        void fill();
        void fillByMemchr();
        void fillBySWAR();
        void fillByVector();
        void fillByAVX2();
        void fillOneByOne(std::size_t end);
        void verify(std::size_t candidate);

        const LiteralMatcher& matcher_;
        const std::uint8_t* bytes_;
        std::size_t count_;
        std::size_t lastStart_ = 0;  // the last position a match can start at
        std::size_t reach_ = 0;      // the larger anchor index: loads go this far past a position
        std::size_t laneReach_ = 0;  // the same with the third byte, for the vector lanes
        std::size_t position_;       // where filling goes on
        std::array<std::size_t, 64> hits_{};  // a fill confirms at most 64 starts
        std::size_t hitCount_ = 0;
        std::size_t hitIndex_ = 0;
        bool finished_ = false;
    };
};

} // namespace brim
