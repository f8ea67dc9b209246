#include "charsets/EncodingChoices.h"

#include "charsets/EncodingScorer.h"
#include "charsets/UnicodeText.h"

#include <algorithm>

namespace brim::EncodingChoices {

namespace {

constexpr std::size_t scoredBytes = 8'192;

} // namespace

ByteRange interestingRange(std::span<const std::uint8_t> bytes, std::size_t length) {
    const auto size = static_cast<std::int64_t>(bytes.size());
    if (bytes.size() <= length || length == 0) return {0, size};
    const std::size_t step = std::max<std::size_t>(length / 4, 1);
    std::size_t bestStart = 0;
    std::size_t bestCount = 0;
    for (std::size_t start = 0; start + length <= bytes.size(); start += step) {
        const auto window = bytes.subspan(start, length);
        const auto count = static_cast<std::size_t>(std::count_if(window.begin(), window.end(), [](std::uint8_t b) { return b >= 0x80; }));
        if (count > bestCount) {
            bestCount = count;
            bestStart = start;
        }
    }
    return {static_cast<std::int64_t>(bestStart), static_cast<std::int64_t>(bestStart + length)};
}

bool canRead(std::span<const std::uint8_t> window, const TextEncoding& encoding) {
    const std::string text = encoding.decode(window);
    const EncodedText back = encoding.encode(text);
    if (back.bytes.size() != window.size()) return false;
    if (std::equal(back.bytes.begin(), back.bytes.end(), window.begin())) return true;
    if (!encoding.table) return false;
    std::size_t unassigned = 0;
    for (std::size_t i = 0; i < window.size(); ++i) {
        if (back.bytes[i] == window[i]) continue;
        if ((*encoding.table)[window[i]] != 0xFFFD) return false;
        ++unassigned;
    }
    return unassigned * 20 <= window.size();
}

std::string oneLine(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char32_t c : UnicodeText::toScalars(text)) {
        const bool lineBreak = c == 0x0A || c == 0x0D || c == 0x0B || c == 0x0C || c == 0x85 || c == 0x2028 || c == 0x2029;
        if (lineBreak) {
            UnicodeText::appendUTF8(out, 0x2424);
        } else if (c < 0x20 || c == 0x7F) {
            UnicodeText::appendUTF8(out, 0x2400 + (c == 0x7F ? 0x21 : c));
        } else {
            UnicodeText::appendUTF8(out, c);
        }
    }
    return out;
}

std::vector<Candidate> candidates(std::span<const std::uint8_t> bytes, const TextEncoding& current,
                                  const TextEncoding& detected, std::span<const TextEncoding> encodings) {
    const ByteRange range = interestingRange(bytes);
    const auto window = bytes.subspan(static_cast<std::size_t>(range.lower), static_cast<std::size_t>(range.length()));
    const auto scored = bytes.first(std::min(bytes.size(), scoredBytes));
    std::vector<Candidate> result;
    for (const auto& encoding : encodings) {
        const std::string text = encoding.decode(window);
        if (text.empty()) continue;
        Candidate candidate;
        candidate.encoding = encoding;
        candidate.isCurrent = encoding == current;
        candidate.isDetected = encoding == detected;
        if (!candidate.isCurrent && !candidate.isDetected && !canRead(window, encoding)) continue;
        candidate.score = EncodingScorer::score(scored, encoding).value_or(0.0);
        candidate.sample = oneLine(text);
        result.push_back(std::move(candidate));
    }
    std::stable_sort(result.begin(), result.end(), [](const Candidate& a, const Candidate& b) {
        if (a.isCurrent != b.isCurrent) return a.isCurrent;
        if (a.isDetected != b.isDetected) return a.isDetected;
        if (a.score != b.score) return a.score > b.score;
        return a.encoding.localisedName() < b.encoding.localisedName();
    });
    return result;
}

} // namespace brim::EncodingChoices
