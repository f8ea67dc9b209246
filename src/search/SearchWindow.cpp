#include "search/SearchWindow.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace brim {

namespace UTF8 {

namespace {

constexpr std::uint64_t highBits = 0x8080808080808080ULL;
constexpr std::string_view replacement = "\xEF\xBF\xBD";

bool isContinuation(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

} // namespace

Step step(std::span<const std::uint8_t> bytes, std::size_t offset) {
    const std::uint8_t lead = bytes[offset];
    if (lead < 0x80) return {1, true};
    std::size_t need = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {1, false};
    }
    const std::size_t available = bytes.size() - offset - 1;
    for (std::size_t i = 1; i <= need; ++i) {
        if (i > available) return {i, false};
        const std::uint8_t byte = bytes[offset + i];
        const bool fits = i == 1 ? (byte >= low && byte <= high) : isContinuation(byte);
        if (!fits) return {i, false};
    }
    return {need + 1, true};
}

#if defined(__x86_64__)
/// How far from `from` the bytes are all ASCII, in whole groups of 64.
__attribute__((target("avx2"))) std::size_t asciiRunAVX2(const std::uint8_t* data, std::size_t from, std::size_t count) {
    std::size_t i = from;
    while (i + 64 <= count) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 32));
        if (_mm256_movemask_epi8(_mm256_or_si256(a, b)) != 0) break;
        i += 64;
    }
    return i;
}
#endif

std::size_t asciiRun(const std::uint8_t* data, std::size_t from, std::size_t count) {
#if defined(__x86_64__)
    static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
    if (avx2) return asciiRunAVX2(data, from, count);
#endif
    std::size_t i = from;
    while (i + 32 <= count) {
        std::uint64_t words[4];
        std::memcpy(words, data + i, sizeof words);
        if (((words[0] | words[1] | words[2] | words[3]) & highBits) != 0) break;
        i += 32;
    }
    return i;
}

std::size_t firstNonASCII(std::span<const std::uint8_t> bytes) {
    std::size_t i = asciiRun(bytes.data(), 0, bytes.size());
    while (i < bytes.size() && bytes[i] < 0x80) ++i;
    return i;
}

std::size_t firstInvalid(std::span<const std::uint8_t> bytes) {
    const std::size_t count = bytes.size();
    std::size_t i = 0;
    while (i < count) {
        i = asciiRun(bytes.data(), i, count);
        if (i >= count) break;
        if (bytes[i] < 0x80) {
            ++i;
            continue;
        }
        const Step s = step(bytes, i);
        if (!s.valid) return i;
        i += s.length;
    }
    return count;
}

std::int64_t utf16Length(std::span<const std::uint8_t> bytes) {
    std::int64_t units = 0;
    std::size_t i = 0;
    while (i < bytes.size()) {
        if (bytes[i] < 0x80) {
            ++units;
            ++i;
            continue;
        }
        const Step s = step(bytes, i);
        units += s.valid && s.length == 4 ? 2 : 1;
        i += s.length;
    }
    return units;
}

std::string repaired(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        const Step s = step(bytes, i);
        if (s.valid) {
            out.append(reinterpret_cast<const char*>(bytes.data() + i), s.length);
        } else {
            out.append(replacement);
        }
        i += s.length;
    }
    return out;
}

} // namespace UTF8

SearchWindow::SearchWindow(std::span<const std::uint8_t> bytes, std::int64_t start, const SearchEncoding* encoding)
    : bytes_(bytes), start_(start), encoding_(encoding), text_(bytes) {
    if (encoding_ != nullptr) {
        convert();
        return;
    }
    std::size_t bad = UTF8::firstInvalid(bytes);
    if (bad == bytes.size()) return;
    converted_ = true;
    copy_.reserve(bytes.size() + 64);
    copy_.append(reinterpret_cast<const char*>(bytes.data()), bad);
    anchors_.push_back({0, 0});
    std::size_t i = bad;
    while (i < bytes.size()) {
        const UTF8::Step s = UTF8::step(bytes, i);
        if (s.valid) {
            copy_.append(reinterpret_cast<const char*>(bytes.data() + i), s.length);
        } else {
            // The replacement stands for the whole stretch; text and bytes resume in step after it.
            anchors_.push_back({copy_.size(), static_cast<std::int64_t>(i)});
            copy_.append("\xEF\xBF\xBD");
            anchors_.push_back({copy_.size(), static_cast<std::int64_t>(i + s.length)});
        }
        i += s.length;
    }
    text_ = std::span(reinterpret_cast<const std::uint8_t*>(copy_.data()), copy_.size());
}

std::int64_t SearchWindow::sourceOffset(std::size_t textOffset) const {
    if (!converted_) return start_ + static_cast<std::int64_t>(textOffset);
    if (encoding_ != nullptr) {
        textOffset = std::min(textOffset, copy_.size());
        if (stretches_.empty()) return start_;
        const auto after = std::upper_bound(stretches_.begin(), stretches_.end(), textOffset,
                                            [](std::size_t value, const Stretch& s) { return value < s.text; });
        const auto index = static_cast<std::size_t>(after - stretches_.begin()) - 1;
        const Stretch& stretch = stretches_[index];
        const std::int64_t sourceEnd = stretchSourceEnd(index);
        if (stretch.verbatim) return start_ + stretch.source + static_cast<std::int64_t>(textOffset - stretch.text);
        if (!stretch.inStep) {
            const std::string_view before(copy_.data() + stretch.text, textOffset - stretch.text);
            return start_ + std::min(sourceEnd, stretch.source + encoding_->encodedLength(before));
        }
        if (cursorStretch_ != index || textOffset < cursorText_) {
            cursorStretch_ = index;
            cursorText_ = stretch.text;
            cursorSource_ = stretch.source;
        }
        // One character of the run for each scalar of its text.
        while (cursorText_ < textOffset && cursorSource_ < sourceEnd) {
            ++cursorText_;
            while (cursorText_ < textOffset && (static_cast<std::uint8_t>(copy_[cursorText_]) & 0xC0) == 0x80) ++cursorText_;
            cursorSource_ += static_cast<std::int64_t>(characterLength(static_cast<std::size_t>(cursorSource_)));
        }
        return start_ + std::min(cursorSource_, sourceEnd);
    }
    // The last anchor at or before the position. Anchors come in pairs around each replacement:
    // an odd index starts one, an even one resumes the plain bytes.
    const auto after = std::upper_bound(anchors_.begin(), anchors_.end(), textOffset,
                                        [](std::size_t value, const Anchor& anchor) { return value < anchor.text; });
    const auto index = static_cast<std::size_t>(after - anchors_.begin()) - 1;
    const Anchor& anchor = anchors_[index];
    if (index % 2 == 1) return start_ + anchor.source;
    return start_ + anchor.source + static_cast<std::int64_t>(textOffset - anchor.text);
}

std::size_t SearchWindow::textOffset(std::int64_t sourceOffset) const {
    const std::int64_t relative = std::clamp<std::int64_t>(sourceOffset - start_, 0, static_cast<std::int64_t>(bytes_.size()));
    if (!converted_) return static_cast<std::size_t>(relative);
    if (encoding_ != nullptr) {
        if (stretches_.empty()) return 0;
        const auto after = std::upper_bound(stretches_.begin(), stretches_.end(), relative,
                                            [](std::int64_t value, const Stretch& s) { return value < s.source; });
        const auto index = static_cast<std::size_t>(after - stretches_.begin()) - 1;
        const Stretch& stretch = stretches_[index];
        const std::size_t textEnd = stretchTextEnd(index);
        if (stretch.verbatim) return stretch.text + static_cast<std::size_t>(relative - stretch.source);
        if (!stretch.inStep) {
            const auto before = bytes_.subspan(static_cast<std::size_t>(stretch.source),
                                               static_cast<std::size_t>(relative - stretch.source));
            return std::min(textEnd, stretch.text + encoding_->decode(before).size());
        }
        std::int64_t source = stretch.source;
        std::size_t text = stretch.text;
        while (source < relative && text < textEnd) {
            source += static_cast<std::int64_t>(characterLength(static_cast<std::size_t>(source)));
            ++text;
            while (text < textEnd && (static_cast<std::uint8_t>(copy_[text]) & 0xC0) == 0x80) ++text;
        }
        return text;
    }
    const auto after = std::upper_bound(anchors_.begin(), anchors_.end(), relative,
                                        [](std::int64_t value, const Anchor& anchor) { return value < anchor.source; });
    const auto index = static_cast<std::size_t>(after - anchors_.begin()) - 1;
    const Anchor& anchor = anchors_[index];
    if (index % 2 == 1 && relative > anchor.source) return anchors_[index + 1].text;  // inside a replaced stretch
    return anchor.text + static_cast<std::size_t>(relative - anchor.source);
}

std::size_t SearchWindow::characterLength(std::size_t at) const {
    if (!encoding_->characterLength) return 1;
    return std::clamp<std::size_t>(encoding_->characterLength(bytes_, at), 1, bytes_.size() - at);
}

std::size_t SearchWindow::stretchTextEnd(std::size_t index) const {
    return index + 1 < stretches_.size() ? stretches_[index + 1].text : copy_.size();
}

std::int64_t SearchWindow::stretchSourceEnd(std::size_t index) const {
    return index + 1 < stretches_.size() ? stretches_[index + 1].source : static_cast<std::int64_t>(bytes_.size());
}

void SearchWindow::convert() {
    converted_ = true;
    const std::size_t count = bytes_.size();
    if (!encoding_->asciiCompatible) {
        // Nothing can be kept as it is: the whole window is one run, measured by encoding.
        copy_ = encoding_->decode(bytes_);
        stretches_.push_back({0, 0, false, false});
    } else {
        copy_.reserve(count + count / 2);
        std::size_t i = 0;
        while (i < count) {
            const std::size_t plainStart = i;
            while (i < count) {
                i = UTF8::asciiRun(bytes_.data(), i, count);
                if (i >= count || bytes_[i] >= 0x80) break;
                ++i;
            }
            if (i > plainStart) {
                stretches_.push_back({copy_.size(), static_cast<std::int64_t>(plainStart), true, true});
                copy_.append(reinterpret_cast<const char*>(bytes_.data() + plainStart), i - plainStart);
            }
            if (i >= count) break;
            // Characters up to the next one below 0x80; a second byte below 0x80 belongs to its
            // character, and so to the run.
            const std::size_t runStart = i;
            std::size_t characters = 0;
            while (i < count && bytes_[i] >= 0x80) {
                i += characterLength(i);
                ++characters;
            }
            const std::string decoded = encoding_->decode(bytes_.subspan(runStart, i - runStart));
            const auto scalars = static_cast<std::size_t>(std::count_if(
                decoded.begin(), decoded.end(), [](char c) { return (static_cast<std::uint8_t>(c) & 0xC0) != 0x80; }));
            stretches_.push_back({copy_.size(), static_cast<std::int64_t>(runStart), false, scalars == characters});
            copy_ += decoded;
        }
    }
    text_ = std::span(reinterpret_cast<const std::uint8_t*>(copy_.data()), copy_.size());
}

} // namespace brim
