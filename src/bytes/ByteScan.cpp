#include "bytes/ByteScan.h"

#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace brim::ByteScan {

namespace {

constexpr std::uint8_t newline = 0x0A;

/// Bits set in a word, without relying on a population-count instruction (not baseline x86-64).
inline std::int64_t bitCount(std::uint64_t word) {
#if defined(__POPCNT__)
    return std::popcount(word);
#else
    word = word - ((word >> 1) & 0x5555555555555555ULL);
    word = (word & 0x3333333333333333ULL) + ((word >> 2) & 0x3333333333333333ULL);
    word = (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0FULL;
    return static_cast<std::int64_t>((word * 0x0101010101010101ULL) >> 56);
#endif
}

/// Newlines in one 64-bit word by the zero-byte test: a byte that was 0x0A becomes 0 after the
/// XOR, and only a zero byte keeps its top bit clear after adding 0x7F to its low seven bits.
inline std::int64_t newlinesInWord(std::uint64_t word) {
    const std::uint64_t x = word ^ 0x0A0A0A0A0A0A0A0AULL;
    const std::uint64_t high =
        ~(((x & 0x7F7F7F7F7F7F7F7FULL) + 0x7F7F7F7F7F7F7F7FULL) | x) & 0x8080808080808080ULL;
    return bitCount(high);
}

inline std::int64_t countTail(const std::uint8_t* bytes, std::int64_t count) {
    std::int64_t total = 0;
    std::int64_t i = 0;
    for (; count - i >= 8; i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i, 8);
        total += newlinesInWord(word);
    }
    for (; i < count; ++i)
        total += bytes[i] == newline ? 1 : 0;
    return total;
}

#if defined(__SSE2__)

/// One bit per byte of a 64-byte group: set where the byte is 0x0A.
inline std::uint64_t newlineMask(const std::uint8_t* bytes) {
    const __m128i pattern = _mm_set1_epi8(static_cast<char>(newline));
    const auto lane = [&](int k) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + 16 * k));
        return static_cast<std::uint64_t>(
            static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, pattern))));
    };
    return lane(0) | (lane(1) << 16) | (lane(2) << 32) | (lane(3) << 48);
}

#endif

}  // namespace

std::int64_t countNewlines(const std::uint8_t* bytes, std::int64_t count) {
    if (bytes == nullptr || count <= 0) return 0;
#if defined(__SSE2__)
    const __m128i pattern = _mm_set1_epi8(static_cast<char>(newline));
    const __m128i zero = _mm_setzero_si128();
    __m128i sums = zero;
    std::int64_t i = 0;
    while (count - i >= 64) {
        // Each byte lane counts up to 4 per group, so 63 groups stay below 256.
        std::int64_t groups = (count - i) / 64;
        if (groups > 63) groups = 63;
        __m128i lanes = zero;
        for (std::int64_t g = 0; g < groups; ++g, i += 64) {
            const auto* p = reinterpret_cast<const __m128i*>(bytes + i);
            lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(_mm_loadu_si128(p), pattern));
            lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(_mm_loadu_si128(p + 1), pattern));
            lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(_mm_loadu_si128(p + 2), pattern));
            lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(_mm_loadu_si128(p + 3), pattern));
        }
        sums = _mm_add_epi64(sums, _mm_sad_epu8(lanes, zero));
    }
    const std::int64_t vectorTotal =
        _mm_cvtsi128_si64(sums) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums));
    return vectorTotal + countTail(bytes + i, count - i);
#else
    return countTail(bytes, count);
#endif
}

std::int64_t findNewline(const std::uint8_t* bytes, std::int64_t count, std::int64_t n,
                         std::int64_t& passed) {
    passed = 0;
    if (bytes == nullptr || count <= 0 || n < 0) return -1;
    std::int64_t i = 0;
    // Whole blocks that cannot hold the answer are only counted.
    constexpr std::int64_t block = 2'048;
    while (count - i >= block) {
        const std::int64_t inBlock = countNewlines(bytes + i, block);
        if (passed + inBlock > n) break;
        passed += inBlock;
        i += block;
    }
#if defined(__SSE2__)
    for (; count - i >= 64; i += 64) {
        std::uint64_t mask = newlineMask(bytes + i);
        const std::int64_t inGroup = bitCount(mask);
        if (passed + inGroup > n) {
            for (std::int64_t skip = n - passed; skip > 0; --skip)
                mask &= mask - 1;
            passed = n;
            return i + std::countr_zero(mask);
        }
        passed += inGroup;
    }
#endif
    for (; i < count; ++i) {
        if (bytes[i] != newline) continue;
        if (passed == n) return i;
        ++passed;
    }
    return -1;
}

std::int64_t firstNewline(const std::uint8_t* bytes, std::int64_t count) {
    if (bytes == nullptr || count <= 0) return -1;
    const void* found = std::memchr(bytes, newline, static_cast<std::size_t>(count));
    return found == nullptr ? -1 : static_cast<const std::uint8_t*>(found) - bytes;
}

}  // namespace brim::ByteScan
