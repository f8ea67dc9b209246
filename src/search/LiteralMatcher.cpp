#include "search/LiteralMatcher.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace brim {

namespace {

constexpr std::int64_t histogramBlock = 65'536;
constexpr std::uint64_t ones = 0x0101010101010101ULL;
constexpr std::uint64_t highBits = 0x8080808080808080ULL;
constexpr std::uint64_t lowSeven = 0x7F7F7F7F7F7F7F7FULL;

bool isUpper(std::uint8_t byte) { return byte >= 'A' && byte <= 'Z'; }
bool isLower(std::uint8_t byte) { return byte >= 'a' && byte <= 'z'; }
std::uint8_t lowered(std::uint8_t byte) { return isUpper(byte) ? static_cast<std::uint8_t>(byte | 0x20) : byte; }

/// The high bit of each byte of `word` that is zero, and of no other.
std::uint64_t zeroBytes(std::uint64_t word) { return ~(((word & lowSeven) + lowSeven) | word | lowSeven); }

std::uint64_t load64(const std::uint8_t* bytes) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

/// Lowers A-Z, leaves every other byte.
struct FoldTable {
    std::array<std::uint8_t, 256> table{};
    constexpr FoldTable() {
        for (int i = 0; i < 256; ++i) {
            const auto byte = static_cast<std::uint8_t>(i);
            table[static_cast<std::size_t>(i)] = (byte >= 'A' && byte <= 'Z') ? static_cast<std::uint8_t>(byte | 0x20) : byte;
        }
    }
};
constexpr FoldTable fold;

#if defined(__x86_64__)
bool hasAVX2() {
    static const bool supported = __builtin_cpu_supports("avx2") != 0;
    return supported;
}
#endif

} // namespace

int LiteralMatcher::rarity(std::uint8_t byte) {
    switch (byte) {
    case ' ': return 1000;
    case '\t': case '\n': case '\r': return 900;
    case 'a': case 'e': case 'i': case 'n': case 'o': case 'r': case 's': case 't': return 700;
    case 'c': case 'd': case 'h': case 'l': case 'm': case 'u': return 450;
    default: break;
    }
    if (byte >= '0' && byte <= '9') return 500;
    if (isLower(byte)) return 300;
    if (isUpper(byte)) return 150;
    return 60;
}

ByteHistogram LiteralMatcher::byteHistogram(const ByteSource& source) {
    // Four tables side by side, so a run of one byte value does not wait on its own count.
    std::array<std::array<std::int64_t, 256>, 4> tables{};
    const auto tally = [&tables](std::span<const std::uint8_t> bytes) {
        const std::size_t whole = bytes.size() / 4 * 4;
        for (std::size_t i = 0; i < whole; i += 4) {
            ++tables[0][bytes[i]];
            ++tables[1][bytes[i + 1]];
            ++tables[2][bytes[i + 2]];
            ++tables[3][bytes[i + 3]];
        }
        for (std::size_t i = whole; i < bytes.size(); ++i) ++tables[0][bytes[i]];
    };
    const auto sum = [&tables] {
        ByteHistogram counts{};
        for (std::size_t b = 0; b < 256; ++b) counts[b] = tables[0][b] + tables[1][b] + tables[2][b] + tables[3][b];
        return counts;
    };
    const std::int64_t n = source.count();
    if (n <= histogramBlock) {
        source.withBytes({0, n}, tally);
        return sum();
    }
    for (const std::int64_t start : {std::int64_t{0}, n / 3, 2 * n / 3, n - histogramBlock}) {
        source.withBytes({start, start + histogramBlock}, tally);
    }
    return sum();
}

LiteralMatcher::LiteralMatcher(std::string_view text, bool caseInsensitive, const ByteHistogram* histogram)
    : pattern(text), caseInsensitiveASCII(caseInsensitive) {
    assert(!pattern.empty() && "a literal matcher needs at least one byte");
    if (caseInsensitiveASCII) {
        for (char& c : pattern) c = static_cast<char>(lowered(static_cast<std::uint8_t>(c)));
    }
    const auto byteAt = [this](std::size_t i) { return static_cast<std::uint8_t>(pattern[i]); };
    const auto countOf = [&](std::uint8_t byte) -> std::int64_t {
        if (histogram == nullptr) return 0;
        std::int64_t count = (*histogram)[byte];
        if (caseInsensitiveASCII && isLower(byte)) count += (*histogram)[byte & 0xDF];
        return count;
    };
    const auto rankOf = [&](std::uint8_t byte) { return countOf(byte) * 64 + rarity(byte); };

    std::int64_t best = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const std::int64_t rank = rankOf(byteAt(i));
        if (i == 0 || rank <= best) {  // the last of equals
            best = rank;
            rareIndex = i;
        }
    }
    partnerIndex = rareIndex;
    bool havePartner = false;
    std::int64_t bestPartner = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (i == rareIndex) continue;
        const auto distance = static_cast<std::int64_t>(i > rareIndex ? i - rareIndex : rareIndex - i);
        // A close partner shares the rare byte's cache line, so distance counts against it.
        const std::int64_t score = rankOf(byteAt(i)) + 8 * distance;
        if (!havePartner || score < bestPartner) {  // the first of equals
            bestPartner = score;
            partnerIndex = i;
            havePartner = true;
        }
    }
    rareLower = byteAt(rareIndex);
    partnerLower = byteAt(partnerIndex);
    rareUpper = caseInsensitiveASCII && isLower(rareLower) ? static_cast<std::uint8_t>(rareLower & 0xDF) : rareLower;
    partnerUpper =
        caseInsensitiveASCII && isLower(partnerLower) ? static_cast<std::uint8_t>(partnerLower & 0xDF) : partnerLower;

    // The third byte: farthest from both anchors.
    std::size_t farthest = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const auto distance = [i](std::size_t anchor) { return i > anchor ? i - anchor : anchor - i; };
        const std::size_t reach = std::min(distance(rareIndex), distance(partnerIndex));
        if (reach > farthest) {
            farthest = reach;
            thirdIndex = i;
        }
    }
    if (farthest == 0) thirdIndex = rareIndex;
    thirdLower = byteAt(thirdIndex);
    thirdUpper = caseInsensitiveASCII && isLower(thirdLower) ? static_cast<std::uint8_t>(thirdLower & 0xDF) : thirdLower;

    double share = 1;
    if (histogram != nullptr && rareLower == rareUpper) {
        std::int64_t total = 0;
        for (const std::int64_t count : *histogram) total += count;
        share = total > 0 ? static_cast<double>(countOf(rareLower)) / static_cast<double>(total) : 1;
        rareIsVeryRare = share < 0.008;
    }
#if defined(__x86_64__)
    // The vector test of both anchors keeps up with memchr until the rare byte is rarer still:
    // memchr returns for every rare byte, the vector test only where the partner agrees.
    strategy = rareIsVeryRare && share < 0.001 ? Strategy::rareByte : Strategy::vector;
#else
    strategy = rareIsVeryRare ? Strategy::rareByte : Strategy::wordAtATime;
#endif
}

bool LiteralMatcher::matchesAt(const std::uint8_t* bytes) const {
    const auto* wanted = reinterpret_cast<const std::uint8_t*>(pattern.data());
    const std::size_t n = pattern.size();
    if (!caseInsensitiveASCII) return std::memcmp(bytes, wanted, n) == 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (fold.table[bytes[i]] != wanted[i]) return false;
    }
    return true;
}

// MARK: Scanner

LiteralMatcher::Scanner::Scanner(const LiteralMatcher& matcher, std::span<const std::uint8_t> block,
                                 std::size_t from)
    : matcher_(matcher), bytes_(block.data()), count_(block.size()), position_(from) {
    const std::size_t length = matcher.length();
    if (length > count_ || from > count_ - length) {
        finished_ = true;
        return;
    }
    lastStart_ = count_ - length;
    reach_ = std::max(matcher.rareIndex, matcher.partnerIndex);
    laneReach_ = std::max(reach_, matcher.thirdIndex);
}

std::size_t LiteralMatcher::Scanner::next() {
    while (hitIndex_ == hitCount_) {
        if (finished_) return none;
        hitIndex_ = 0;
        hitCount_ = 0;
        fill();
    }
    return hits_[hitIndex_++];
}

void LiteralMatcher::Scanner::seek(std::size_t position) {
    while (hitIndex_ < hitCount_ && hits_[hitIndex_] < position) ++hitIndex_;
    if (hitIndex_ == hitCount_ && position > position_) {
        position_ = position;
        if (position_ > lastStart_) finished_ = true;
    }
}

void LiteralMatcher::Scanner::verify(std::size_t candidate) {
    if (candidate <= lastStart_ && matcher_.matchesAt(bytes_ + candidate)) {
        hits_[hitCount_++] = candidate;
    }
}

void LiteralMatcher::Scanner::fill() {
    switch (matcher_.strategy) {
    case Strategy::rareByte: fillByMemchr(); break;
    case Strategy::wordAtATime: fillBySWAR(); break;
    case Strategy::vector: fillByVector(); break;
    }
}

void LiteralMatcher::Scanner::fillOneByOne(std::size_t end) {
    const std::size_t rare = matcher_.rareIndex;
    const std::size_t partner = matcher_.partnerIndex;
    while (position_ <= end && hitCount_ == 0) {
        const std::uint8_t r = bytes_[position_ + rare];
        const std::uint8_t p = bytes_[position_ + partner];
        if ((r == matcher_.rareLower || r == matcher_.rareUpper) &&
            (p == matcher_.partnerLower || p == matcher_.partnerUpper)) {
            verify(position_);
        }
        ++position_;
    }
    if (position_ > lastStart_) finished_ = true;
}

void LiteralMatcher::Scanner::fillByMemchr() {
    const std::size_t rare = matcher_.rareIndex;
    const std::size_t partner = matcher_.partnerIndex;
    while (position_ <= lastStart_) {
        const std::uint8_t* from = bytes_ + position_ + rare;
        const auto* found = static_cast<const std::uint8_t*>(std::memchr(from, matcher_.rareLower, lastStart_ - position_ + 1));
        if (found == nullptr) break;
        const auto candidate = static_cast<std::size_t>(found - bytes_) - rare;
        position_ = candidate + 1;
        const std::uint8_t p = bytes_[candidate + partner];
        if (p == matcher_.partnerLower || p == matcher_.partnerUpper) {
            verify(candidate);
            if (hitCount_ > 0) return;
        }
    }
    finished_ = true;
}

void LiteralMatcher::Scanner::fillBySWAR() {
    const std::size_t rare = matcher_.rareIndex;
    const std::size_t partner = matcher_.partnerIndex;
    // Case is ignored by setting bit 5 of every byte and comparing with the anchor's own bit 5
    // set: bytes that differ only in that bit pass, and the whole-pattern check drops the ones
    // that are no letters.
    const bool fold = matcher_.caseInsensitiveASCII;
    const std::uint64_t caseBits = fold ? 0x2020202020202020ULL : 0;
    const std::uint64_t rareWord = ones * static_cast<std::uint64_t>(fold ? (matcher_.rareLower | 0x20) : matcher_.rareLower);
    const std::uint64_t partnerWord =
        ones * static_cast<std::uint64_t>(fold ? (matcher_.partnerLower | 0x20) : matcher_.partnerLower);
    // Words while an 8-byte load at either anchor stays inside the block.
    const std::size_t end = count_ >= reach_ + 8 ? std::min(count_ - reach_ - 8, lastStart_) : 0;
    while (count_ >= reach_ + 8 && position_ <= end) {
        const std::uint64_t atRare = (load64(bytes_ + position_ + rare) | caseBits) ^ rareWord;
        const std::uint64_t atPartner = (load64(bytes_ + position_ + partner) | caseBits) ^ partnerWord;
        std::uint64_t mask = zeroBytes(atRare) & zeroBytes(atPartner);
        while (mask != 0) {
            const auto lane = static_cast<std::size_t>(std::countr_zero(mask)) / 8;
            verify(position_ + lane);
            mask &= mask - 1;
        }
        position_ += 8;
        if (hitCount_ > 0) return;
    }
    fillOneByOne(lastStart_);
}

#if defined(__x86_64__)
namespace {

/// One anchor over 32 lanes: where the byte at `at + offset + lane` is `lower` or `upper`.
template <bool folded>
__attribute__((target("avx2"), always_inline)) inline __m256i anchorAVX2(const std::uint8_t* at, __m256i lower,
                                                                        __m256i upper) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    const __m256i hit = _mm256_cmpeq_epi8(bytes, lower);
    if constexpr (folded) return _mm256_or_si256(hit, _mm256_cmpeq_epi8(bytes, upper));
    return hit;
}

/// The 64-lane candidate mask at `at`: bit i is set when all three chosen bytes stand where a
/// match at `at + i` would have them. No branch: a lane with a rare byte but no match costs the
/// same as one without, so the loop never guesses wrong.
template <bool folded>
__attribute__((target("avx2"), always_inline)) inline std::uint64_t candidateMaskAVX2(
    const std::uint8_t* at, std::size_t rare, std::size_t partner, std::size_t third, const __m256i (&wanted)[6]) {
    const __m256i low = _mm256_and_si256(
        _mm256_and_si256(anchorAVX2<folded>(at + rare, wanted[0], wanted[1]), anchorAVX2<folded>(at + partner, wanted[2], wanted[3])),
        anchorAVX2<folded>(at + third, wanted[4], wanted[5]));
    const __m256i high = _mm256_and_si256(_mm256_and_si256(anchorAVX2<folded>(at + rare + 32, wanted[0], wanted[1]),
                                                           anchorAVX2<folded>(at + partner + 32, wanted[2], wanted[3])),
                                          anchorAVX2<folded>(at + third + 32, wanted[4], wanted[5]));
    const auto lowLanes = static_cast<std::uint32_t>(_mm256_movemask_epi8(low));
    const auto highLanes = static_cast<std::uint32_t>(_mm256_movemask_epi8(high));
    return static_cast<std::uint64_t>(lowLanes) | (static_cast<std::uint64_t>(highLanes) << 32);
}

std::uint64_t candidateMaskSSE2(const std::uint8_t* at, std::size_t rare, std::size_t partner, __m128i rareLower,
                                __m128i rareUpper, __m128i partnerLower, __m128i partnerUpper) {
    std::uint64_t mask = 0;
    for (int part = 0; part < 4; ++part) {
        const auto offset = static_cast<std::size_t>(part) * 16;
        const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + offset + rare));
        const __m128i rareHit = _mm_or_si128(_mm_cmpeq_epi8(r, rareLower), _mm_cmpeq_epi8(r, rareUpper));
        if (_mm_movemask_epi8(rareHit) == 0) continue;
        const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + offset + partner));
        const __m128i both =
            _mm_and_si128(rareHit, _mm_or_si128(_mm_cmpeq_epi8(p, partnerLower), _mm_cmpeq_epi8(p, partnerUpper)));
        mask |= static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm_movemask_epi8(both))) << offset;
    }
    return mask;
}

} // namespace
#endif

#if defined(__x86_64__)
namespace {

/// The three anchor bytes of a matcher in both cases, each broadcast to a vector.
struct AnchorsAVX2 {
    __m256i bytes[6];
};

__attribute__((target("avx2"))) inline AnchorsAVX2 anchorsAVX2(const LiteralMatcher& matcher) {
    AnchorsAVX2 anchors;
    const std::uint8_t values[6] = {matcher.rareLower,    matcher.rareUpper,  matcher.partnerLower,
                                    matcher.partnerUpper, matcher.thirdLower, matcher.thirdUpper};
    for (int i = 0; i < 6; ++i) anchors.bytes[i] = _mm256_set1_epi8(static_cast<char>(values[i]));
    return anchors;
}

/// The vector loop proper, in registers: returns the new cursor and how many starts it confirmed.
template <bool folded>
__attribute__((target("avx2"))) std::size_t scanLanesAVX2(const LiteralMatcher& matcher, const std::uint8_t* data,
                                                          std::size_t position, std::size_t end, std::size_t last,
                                                          std::size_t* hits, std::size_t& found) {
    const AnchorsAVX2 anchors = anchorsAVX2(matcher);
    const auto& wanted = anchors.bytes;
    const std::size_t rare = matcher.rareIndex;
    const std::size_t partner = matcher.partnerIndex;
    const std::size_t third = matcher.thirdIndex;
    while (position <= end) {
        std::uint64_t mask = candidateMaskAVX2<folded>(data + position, rare, partner, third, wanted);
        if (mask != 0) {
            do {
                const std::size_t candidate = position + static_cast<std::size_t>(std::countr_zero(mask));
                if (candidate <= last && matcher.matchesAt(data + candidate)) hits[found++] = candidate;
                mask &= mask - 1;
            } while (mask != 0);
            if (found > 0) return position + 64;
        }
        position += 64;
    }
    return position;
}

/// The vector loop of `startsAndHighBytes`: candidates and the high bits of every byte from
/// `position` up to the returned position, which is past `end`.
template <bool folded>
__attribute__((target("avx2"))) std::size_t startsLanesAVX2(const LiteralMatcher& matcher, const std::uint8_t* data,
                                                            std::size_t position, std::size_t end, std::size_t last,
                                                            std::vector<std::size_t>& starts, bool& high) {
    const AnchorsAVX2 anchors = anchorsAVX2(matcher);
    const auto& wanted = anchors.bytes;
    const std::size_t rare = matcher.rareIndex;
    const std::size_t partner = matcher.partnerIndex;
    const std::size_t third = matcher.thirdIndex;
    __m256i seen = _mm256_setzero_si256();
    while (position <= end) {
        seen = _mm256_or_si256(seen, _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + position)),
                                                     _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + position + 32))));
        std::uint64_t mask = candidateMaskAVX2<folded>(data + position, rare, partner, third, wanted);
        while (mask != 0) {
            const std::size_t candidate = position + static_cast<std::size_t>(std::countr_zero(mask));
            if (candidate <= last && matcher.matchesAt(data + candidate)) starts.push_back(candidate);
            mask &= mask - 1;
        }
        position += 64;
    }
    high = _mm256_movemask_epi8(seen) != 0;
    return position;
}

} // namespace

void LiteralMatcher::Scanner::fillByAVX2() {
    const bool haveLanes = count_ >= laneReach_ + 64;
    if (haveLanes) {
        const std::size_t end = std::min(count_ - laneReach_ - 64, lastStart_);
        const bool folded = matcher_.rareLower != matcher_.rareUpper || matcher_.partnerLower != matcher_.partnerUpper ||
                            matcher_.thirdLower != matcher_.thirdUpper;
        std::size_t found = 0;
        position_ = folded ? scanLanesAVX2<true>(matcher_, bytes_, position_, end, lastStart_, hits_.data(), found)
                           : scanLanesAVX2<false>(matcher_, bytes_, position_, end, lastStart_, hits_.data(), found);
        hitCount_ = found;
        if (found > 0) return;
    }
    fillOneByOne(lastStart_);
}
#else
void LiteralMatcher::Scanner::fillByAVX2() { fillBySWAR(); }
#endif

void LiteralMatcher::Scanner::fillByVector() {
#if defined(__x86_64__)
    if (hasAVX2()) {
        fillByAVX2();
        return;
    }
    const std::size_t rare = matcher_.rareIndex;
    const std::size_t partner = matcher_.partnerIndex;
    const bool haveLanes = count_ >= reach_ + 64;
    const std::size_t end = haveLanes ? std::min(count_ - reach_ - 64, lastStart_) : 0;
    const auto toByte = [](std::uint8_t byte) { return static_cast<char>(byte); };
    const __m128i rareLower = _mm_set1_epi8(toByte(matcher_.rareLower));
    const __m128i rareUpper = _mm_set1_epi8(toByte(matcher_.rareUpper));
    const __m128i partnerLower = _mm_set1_epi8(toByte(matcher_.partnerLower));
    const __m128i partnerUpper = _mm_set1_epi8(toByte(matcher_.partnerUpper));
    while (haveLanes && position_ <= end) {
        std::uint64_t mask =
            candidateMaskSSE2(bytes_ + position_, rare, partner, rareLower, rareUpper, partnerLower, partnerUpper);
        while (mask != 0) {
            verify(position_ + static_cast<std::size_t>(std::countr_zero(mask)));
            mask &= mask - 1;
        }
        position_ += 64;
        if (hitCount_ > 0) return;
    }
    fillOneByOne(lastStart_);
#else
    fillBySWAR();
#endif
}

bool LiteralMatcher::startsAndHighBytes(std::span<const std::uint8_t> bytes, std::size_t from,
                                        std::vector<std::size_t>& starts) const {
    starts.clear();
    const std::size_t count = bytes.size();
    const auto anyHigh = [&bytes](std::size_t lower, std::size_t upper) {
        std::uint8_t all = 0;
        for (std::size_t i = lower; i < upper; ++i) all = static_cast<std::uint8_t>(all | bytes[i]);
        return all >= 0x80;
    };
    bool high = anyHigh(0, std::min(from, count));
    if (count < pattern.size() || from > count - pattern.size()) return high || anyHigh(from, count);
    const std::size_t last = count - pattern.size();
    std::size_t position = from;
#if defined(__x86_64__)
    const std::size_t laneReach = std::max({rareIndex, partnerIndex, thirdIndex});
    if (hasAVX2() && count >= laneReach + 64 && position <= std::min(count - laneReach - 64, last)) {
        const std::size_t end = std::min(count - laneReach - 64, last);
        const bool folded = rareLower != rareUpper || partnerLower != partnerUpper || thirdLower != thirdUpper;
        bool lanesHigh = false;
        position = folded ? startsLanesAVX2<true>(*this, bytes.data(), position, end, last, starts, lanesHigh)
                          : startsLanesAVX2<false>(*this, bytes.data(), position, end, last, starts, lanesHigh);
        high = high || lanesHigh;
    }
#endif
    const std::size_t checked = position;
    if (position <= last) {
        Scanner scanner(*this, bytes, position);
        for (std::size_t at = scanner.next(); at != Scanner::none; at = scanner.next()) starts.push_back(at);
    }
    return high || anyHigh(std::min(checked, count), count);
}

} // namespace brim
