#include "charsets/EncodingDetector.h"

#include "charsets/Charsets.h"
#include "charsets/EncodingScorer.h"
#include "charsets/LossyUTF8.h"
#include "charsets/UnicodeText.h"
#include "common/Localization.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

namespace brim::EncodingDetector {

namespace {

constexpr std::int64_t headLength = 262'144;
constexpr std::int64_t wholeFileLimit = 786'432;
constexpr std::size_t utf16Window = 4'096;
constexpr std::size_t ebcdicWindow = 8'192;
constexpr std::size_t japaneseEBCDICWindow = 65'536;
constexpr std::size_t cjkByteWindow = 65'536;
constexpr std::size_t profileScalars = 20'001;
constexpr std::size_t latinWordScalars = 20'000;
constexpr std::size_t legacyScoreWindow = 16'384;

EncodingDetection answer(const TextEncoding& encoding, double confidence, std::string reason) {
    EncodingDetection detection;
    detection.encoding = encoding;
    detection.confidence = confidence;
    detection.reason = std::move(reason);
    return detection;
}

// MARK: EBCDIC byte classes

bool isEBCDICLetter(std::uint8_t b) {
    return (b >= 0x81 && b <= 0x89) || (b >= 0x91 && b <= 0x99) || (b >= 0xA2 && b <= 0xA9) ||
           (b >= 0xC1 && b <= 0xC9) || (b >= 0xD1 && b <= 0xD9) || (b >= 0xE2 && b <= 0xE9);
}
bool isEBCDICDigit(std::uint8_t b) { return b >= 0xF0 && b <= 0xF9; }
bool isEBCDICLetterOrDigit(std::uint8_t b) { return isEBCDICLetter(b) || isEBCDICDigit(b); }
bool isEBCDICLowerCase(std::uint8_t b) {
    return (b >= 0x81 && b <= 0x89) || (b >= 0x91 && b <= 0x99) || (b >= 0xA2 && b <= 0xA9);
}

// MARK: CJK

enum class Language : std::uint8_t { japanese, simplifiedChinese, traditionalChinese, korean };

struct CJKCandidate {
    TextEncoding encoding;
    Language language;
};

struct Profile {
    double cjk = 0;
    double kana = 0;
    double halfwidth = 0;
};

// The share of the forty simplified or traditional characters among the ideographs of real Chinese,
// below which their evidence is weighed down in proportion.
constexpr double formsDensity = 0.08;

std::int64_t ideographs(std::u32string_view text) {
    const std::size_t limit = std::min(text.size(), latinWordScalars);
    std::int64_t count = 0;
    for (std::size_t i = 0; i < limit; ++i) {
        const char32_t c = text[i];
        if ((c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF)) ++count;
    }
    return count;
}

Profile profile(std::u32string_view text) {
    const std::size_t limit = std::min(text.size(), profileScalars);
    if (limit == 0) return {};
    std::size_t cjk = 0, kana = 0, halfwidth = 0;
    for (std::size_t i = 0; i < limit; ++i) {
        const char32_t c = text[i];
        const bool isKana = c >= 0x3040 && c <= 0x30FF;
        const bool isHalfwidth = c >= 0xFF66 && c <= 0xFF9D;
        if (isKana || isHalfwidth || (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) ||
            (c >= 0xAC00 && c <= 0xD7AF)) {
            ++cjk;
        }
        if (isKana) ++kana;
        if (isHalfwidth) ++halfwidth;
    }
    const auto n = static_cast<double>(limit);
    return {static_cast<double>(cjk) / n, static_cast<double>(kana) / n, static_cast<double>(halfwidth) / n};
}

// A byte below 0x30 is never part of a double-byte character in any of the CJK sets here (GB18030's
// four-byte forms use 0x30-0x39 at their second and fourth bytes), so a piece cut from the middle of a
// file can be brought back into step after the first such byte.
constexpr std::size_t resyncReach = 64;

std::span<const std::uint8_t> resynchronised(std::span<const std::uint8_t> piece, bool cutAtStart, bool cutAtEnd) {
    if (cutAtStart) {
        const std::size_t reach = std::min(piece.size(), resyncReach);
        for (std::size_t i = 0; i < reach; ++i) {
            if (piece[i] < 0x30) {
                piece = piece.subspan(i + 1);
                break;
            }
        }
    }
    if (cutAtEnd) {
        const std::size_t reach = std::min(piece.size(), resyncReach);
        for (std::size_t k = 0; k < reach; ++k) {
            const std::size_t i = piece.size() - 1 - k;
            if (piece[i] < 0x30) {
                piece = piece.first(i + 1);
                break;
            }
        }
    }
    return piece;
}

// Strict decoding of one piece, retrying with up to three bytes dropped at a cut end, and at a cut start.
std::optional<std::u16string> decodePiece(std::span<const std::uint8_t> piece, const TextEncoding& encoding,
                                          bool cutAtStart) {
    for (std::size_t front = 0; front <= (cutAtStart ? 3u : 0u) && front < piece.size() + 1; ++front) {
        const auto rest = piece.subspan(std::min(front, piece.size()));
        for (std::size_t drop = 0; drop <= 3 && drop <= rest.size(); ++drop) {
            if (auto text = encoding.decodeStrictly(rest.first(rest.size() - drop))) return text;
        }
    }
    return std::nullopt;
}

// The first `limit` scalars of the sample as one set reads it, or absent when any piece of it cannot
// be read: every byte is checked, but only the start is kept, since the profiles look no further.
std::optional<std::u32string> decodeSample(const Sample& sample, const TextEncoding& encoding, std::size_t limit) {
    const std::span<const std::uint8_t> all(sample.bytes);
    std::u32string text;
    auto keep = [&](const std::u16string& piece) {
        if (text.size() >= limit) return;
        if (!text.empty()) text.push_back(U'\n');
        const std::u32string scalars = UnicodeText::toScalars(std::u16string_view(piece).substr(0, 2 * limit));
        text.append(scalars, 0, std::min(scalars.size(), limit - std::min(limit, text.size())));
    };
    if (sample.joins.empty()) {
        const auto decoded = decodePiece(all, encoding, false);
        if (!decoded) return std::nullopt;
        keep(*decoded);
        return text;
    }
    std::size_t start = 0;
    for (std::size_t j = 0; j <= sample.joins.size(); ++j) {
        const std::size_t end = j < sample.joins.size() ? sample.joins[j] : all.size();
        const bool cutAtStart = j > 0;
        const bool cutAtEnd = j < sample.joins.size();
        const auto piece = resynchronised(all.subspan(start, end - start), cutAtStart, cutAtEnd);
        const auto decoded = decodePiece(piece, encoding, cutAtStart);
        if (!decoded) return std::nullopt;
        keep(*decoded);
        start = end;
    }
    return text;
}

std::optional<EncodingDetection> bestCJK(const Sample& sample, const std::vector<CJKCandidate>& candidates) {
    std::optional<CJKCandidate> best;
    double bestScore = 0;
    double bestShare = 0;
    for (const auto& candidate : candidates) {
        // The cheap test on the bytes first: a set that reads them as rare characters needs no decoding.
        if (readsAsRareCharacters(sample.bytes, candidate.encoding)) continue;
        const auto text = decodeSample(sample, candidate.encoding, profileScalars);
        if (!text) continue;
        const Profile shares = profile(*text);
        if (shares.cjk <= 0.05) continue;
        if (breaksLatinWords(*text)) continue;
        // Kana speak for Japanese only: GB 2312 and KS X 1001 hold the kana at the same codes as JIS X
        // 0208, so Japanese read as Chinese keeps every kana and must not be rewarded for them.
        double value = shares.cjk - shares.halfwidth;
        if (candidate.language == Language::japanese) {
            value += 1.5 * shares.kana;
            if (shares.kana < 0.02) value -= 0.5;
        }
        if (candidate.language == Language::simplifiedChinese || candidate.language == Language::traditionalChinese) {
            const auto forms = EncodingScorer::chineseForms(*text);
            const int both = forms.simplified + forms.traditional;
            if (both >= 1) {
                const double own = candidate.language == Language::simplifiedChinese
                                       ? static_cast<double>(forms.simplified) / both
                                       : static_cast<double>(forms.traditional) / both;
                // The forty characters make up some 5-10% of real Chinese; a few of them scattered in a
                // misread Korean or Japanese text must not count as if the text were Chinese.
                const double density = static_cast<double>(both) / static_cast<double>(std::max<std::int64_t>(ideographs(*text), 1));
                value += (own - 0.5) * 1.5 * std::min(1.0, density / formsDensity);
            }
            value += EncodingScorer::commonShare(*text, EncodingScorer::CommonSet::chinese);
        }
        if (candidate.language == Language::korean) {
            value += EncodingScorer::commonShare(*text, EncodingScorer::CommonSet::korean);
        }
        if (value > 0.2 && (!best || value > bestScore)) {
            best = candidate;
            bestScore = value;
            bestShare = shares.cjk;
        }
    }
    if (!best) return std::nullopt;
    return answer(best->encoding, std::min(0.6 + 0.3 * bestShare, 0.95),
                  L("valid %@, %.0f%% CJK", best->encoding.localisedName(), bestShare * 100));
}

// A catalogue set by one of its names, when the catalogue has it.
std::optional<TextEncoding> catalogued(std::initializer_list<std::string_view> names) {
    for (const auto name : names) {
        if (const TextEncoding* found = TextEncoding::named(name)) return *found;
    }
    return std::nullopt;
}

struct Taken {
    Sample sample;
    std::vector<std::uint8_t> head;     // untrimmed, for the mark and NUL tests
};

Taken sampleOf(std::int64_t size, const std::function<std::vector<std::uint8_t>(std::int64_t, std::int64_t)>& read) {
    Taken taken;
    Sample& result = taken.sample;
    if (size <= wholeFileLimit) {
        result.bytes = read(0, size);
        const auto headEnd = result.bytes.begin() + static_cast<std::ptrdiff_t>(std::min(result.bytes.size(), static_cast<std::size_t>(headLength)));
        taken.head.assign(result.bytes.begin(), headEnd);
        return taken;
    }
    taken.head = read(0, headLength);
    const auto& head = taken.head;
    const std::int64_t middleStart = (size / 2) / 4 * 4;
    const auto middle = read(middleStart, middleStart + headLength);
    const auto tail = read(size - headLength, size);
    const auto headPiece = trimmedToCharacterBoundaries(head, true);
    const auto middlePiece = trimmedToCharacterBoundaries(middle, true);
    // The tail is trimmed at its start only: a file that ends mid-character is broken, and must look it.
    const auto tailPiece = trimmedToCharacterBoundaries(tail, false);
    result.bytes.reserve(headPiece.size() + middlePiece.size() + tailPiece.size());
    result.bytes.insert(result.bytes.end(), headPiece.begin(), headPiece.end());
    result.joins.push_back(result.bytes.size());
    result.bytes.insert(result.bytes.end(), middlePiece.begin(), middlePiece.end());
    result.joins.push_back(result.bytes.size());
    result.bytes.insert(result.bytes.end(), tailPiece.begin(), tailPiece.end());
    return taken;
}

EncodingDetection decide(std::span<const std::uint8_t> head, const Sample& sample, std::int64_t size,
                         const TextEncoding& fallback, std::string_view name) {
    if (size <= 0) return answer(TextEncoding::utf8(), 1.0, L("empty file"));
    if (auto found = detectBOM(head)) return *found;
    if (auto found = detectUTF16WithoutBOM(head)) return *found;

    const UTF8Result utf8 = validateUTF8(sample.bytes);
    const TextEncoding* namedSet = name.empty() ? nullptr : TextEncoding::namedByFile(name);
    if (namedSet && namedSet->isEBCDIC() && utf8.kind != UTF8Result::Kind::ascii) {
        const bool saysUS = namedSet->id == TextEncoding::ebcdicUS().id;
        const TextEncoding& page = saysUS ? ebcdicPage(sample.bytes) : *namedSet;
        if (page == *namedSet) return answer(page, 0.95, L("named by the file: %@", page.localisedName()));
        return answer(page, 0.95, L("named by the file, page read from the text"));
    }
    if (!namedSet && !name.empty() && utf8.kind == UTF8Result::Kind::invalid) {
        if (const TextEncoding* page = TextEncoding::ebcdicPageNamedByBaseName(name)) {
            return answer(*page, 0.9, L("named by the file: %@", page->localisedName()));
        }
    }
    // MARC-8 records are recognised here once the MARC-8 codec is part of the family.

    if (utf8.kind == UTF8Result::Kind::ascii) {
        if (auto found = detectSevenBitCJK(sample)) return *found;
        return answer(TextEncoding::utf8(), 1.0, L("7-bit ASCII"));
    }
    if (utf8.kind == UTF8Result::Kind::valid) {
        return answer(TextEncoding::utf8(), utf8.multiByteSequences < 5 ? 0.9 : 0.99,
                      L("valid UTF-8 (%d multi-byte sequences)", utf8.multiByteSequences));
    }
    if (namedSet && !namedSet->isEBCDIC()) {
        return answer(*namedSet, 0.9, L("named by the file: %@", namedSet->localisedName()));
    }
    if (auto found = detectEBCDIC(sample.bytes)) return *found;
    if (auto found = detectCJK(sample)) return *found;
    return detectLegacy8Bit(sample.bytes, fallback);
}

} // namespace

// MARK: sampling

namespace {

Taken taken(const ByteSource& source) {
    return sampleOf(source.count(), [&](std::int64_t lower, std::int64_t upper) {
        // A source that can no longer give all its bytes gives what it has.
        upper = std::min(upper, source.readableCount());
        std::vector<std::uint8_t> bytes;
        if (upper <= lower) return bytes;
        bytes.resize(static_cast<std::size_t>(upper - lower));
        source.read({lower, upper}, bytes.data());
        return bytes;
    });
}

} // namespace

Sample sample(const ByteSource& source) { return taken(source).sample; }

EncodingDetection detect(const ByteSource& source, const TextEncoding& fallback, std::string_view name) {
    const std::int64_t size = source.count();
    if (size <= 0) return decide({}, {}, 0, fallback, name);
    const Taken pieces = taken(source);
    return decide(pieces.head, pieces.sample, size, fallback, name);
}

EncodingDetection detect(std::span<const std::uint8_t> bytes, const TextEncoding& fallback, std::string_view name) {
    const auto size = static_cast<std::int64_t>(bytes.size());
    const Taken pieces = sampleOf(size, [&](std::int64_t lower, std::int64_t upper) {
        upper = std::min(upper, size);
        return std::vector<std::uint8_t>(bytes.begin() + lower, bytes.begin() + std::max(lower, upper));
    });
    return decide(pieces.head, pieces.sample, size, fallback, name);
}

// MARK: UTF-8

UTF8Result validateUTF8(std::span<const std::uint8_t> bytes) {
    UTF8Result result;
    std::size_t i = 0;
    bool multiByte = false;
    while (i < bytes.size()) {
        // Eight ASCII bytes at a time while there are any.
        while (i + 8 <= bytes.size()) {
            std::uint64_t word = 0;
            std::memcpy(&word, bytes.data() + i, 8);
            if ((word & 0x8080808080808080ULL) != 0) break;
            i += 8;
        }
        if (i >= bytes.size()) break;
        if (bytes[i] < 0x80) {
            ++i;
            continue;
        }
        const LossyUTF8::Step s = LossyUTF8::step(bytes, i);
        if (!s.valid) {
            // A sequence cut by the end of the sample leaves the verdict to the bytes before it.
            const std::uint8_t lead = bytes[i];
            const bool cutByEnd = i + s.length == bytes.size() && lead >= 0xC2 && lead <= 0xF4;
            if (cutByEnd) break;
            return {UTF8Result::Kind::invalid, 0};
        }
        multiByte = true;
        ++result.multiByteSequences;
        i += s.length;
    }
    result.kind = multiByte ? UTF8Result::Kind::valid : UTF8Result::Kind::ascii;
    return result;
}

std::span<const std::uint8_t> trimmedToCharacterBoundaries(std::span<const std::uint8_t> bytes, bool trimmingEnd) {
    std::size_t front = 0;
    while (front < 3 && front < bytes.size() && (bytes[front] & 0xC0) == 0x80) ++front;
    bytes = bytes.subspan(front);
    if (!trimmingEnd || bytes.empty()) return bytes;
    // Look back over at most four bytes for the lead of an unfinished sequence.
    const std::size_t reach = std::min<std::size_t>(4, bytes.size());
    for (std::size_t k = 1; k <= reach; ++k) {
        const std::size_t i = bytes.size() - k;
        const std::uint8_t b = bytes[i];
        if ((b & 0xC0) == 0x80) continue;
        if (b < 0x80) break;
        const std::size_t length = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
        if (i + length > bytes.size()) return bytes.first(i);
        break;
    }
    return bytes;
}

// MARK: marks and UTF-16

std::optional<EncodingDetection> detectBOM(std::span<const std::uint8_t> head) {
    auto withMark = [](const TextEncoding& encoding) {
        EncodingDetection detection = answer(encoding, 1.0, L("byte order mark"));
        detection.hasBOM = true;
        return detection;
    };
    auto startsWith = [&](std::span<const std::uint8_t> mark) {
        return head.size() >= mark.size() && std::equal(mark.begin(), mark.end(), head.begin());
    };
    if (startsWith(TextEncoding::utf32le().bom())) return withMark(TextEncoding::utf32le());
    if (startsWith(TextEncoding::utf32be().bom())) return withMark(TextEncoding::utf32be());
    if (startsWith(TextEncoding::utf8().bom())) return withMark(TextEncoding::utf8());
    if (startsWith(TextEncoding::utf16be().bom())) return withMark(TextEncoding::utf16be());
    if (startsWith(TextEncoding::utf16le().bom())) return withMark(TextEncoding::utf16le());
    return std::nullopt;
}

std::optional<EncodingDetection> detectUTF16WithoutBOM(std::span<const std::uint8_t> head) {
    const std::size_t n = std::min(head.size(), utf16Window);
    if (n < 16) return std::nullopt;
    std::size_t oddZeros = 0;
    std::size_t evenZeros = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (head[i] != 0) continue;
        if (i % 2 == 1) {
            ++oddZeros;
        } else {
            ++evenZeros;
        }
    }
    const double half = static_cast<double>(n) * 0.5 * 0.55;
    const std::size_t few = n / 20;
    if (static_cast<double>(oddZeros) > half && evenZeros < few) {
        return answer(TextEncoding::utf16le(), 0.85, L("NUL byte pattern"));
    }
    if (static_cast<double>(evenZeros) > half && oddZeros < few) {
        return answer(TextEncoding::utf16be(), 0.85, L("NUL byte pattern"));
    }
    if (auto found = detectUTF32WithoutBOM(head.first(n))) return found;
    return detectUTF16CodeUnits(head.first(n));
}

std::optional<EncodingDetection> detectUTF32WithoutBOM(std::span<const std::uint8_t> head) {
    const std::size_t units = head.size() / 4;
    if (units < 4) return std::nullopt;
    for (const bool bigEndian : {false, true}) {
        bool plausible = true;
        std::size_t ascii = 0;
        for (std::size_t i = 0; i < units && plausible; ++i) {
            const auto* unit = head.data() + 4 * i;
            const std::uint32_t value = bigEndian ? (std::uint32_t{unit[0]} << 24) | (std::uint32_t{unit[1]} << 16) |
                                                        (std::uint32_t{unit[2]} << 8) | unit[3]
                                                  : (std::uint32_t{unit[3]} << 24) | (std::uint32_t{unit[2]} << 16) |
                                                        (std::uint32_t{unit[1]} << 8) | unit[0];
            plausible = value <= 0x10FFFF && !(value >= 0xD800 && value <= 0xDFFF) &&
                        (value >= 0x20 || value == '\t' || value == '\n' || value == '\r');
            if (value < 0x80) ++ascii;
        }
        // Text has spaces, line breaks or digits somewhere, so some units are ASCII.
        if (plausible && ascii * 10 >= units) {
            return answer(bigEndian ? TextEncoding::utf32be() : TextEncoding::utf32le(), 0.85, L("NUL byte pattern"));
        }
    }
    return std::nullopt;
}

std::optional<EncodingDetection> detectUTF16CodeUnits(std::span<const std::uint8_t> head) {
    const std::size_t units = head.size() / 2;
    if (units < 8) return std::nullopt;
    for (const bool bigEndian : {false, true}) {
        std::array<std::size_t, 256> highCount{};
        std::array<bool, 256> lowSeen{};
        std::size_t zeroLow = 0;
        std::size_t eastAsian = 0;
        bool plausible = true;
        for (std::size_t i = 0; i < units && plausible; ++i) {
            const std::uint8_t high = head[2 * i + (bigEndian ? 0 : 1)];
            const std::uint8_t low = head[2 * i + (bigEndian ? 1 : 0)];
            const auto unit = static_cast<char16_t>((high << 8) | low);
            // Controls other than tab and line breaks, lone surrogates, noncharacters: not text.
            plausible = !(unit < 0x20 && unit != '\t' && unit != '\n' && unit != '\r') && unit != 0xFFFE &&
                        unit != 0xFFFF && !(unit >= 0xDC00 && unit <= 0xDFFF);
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                const bool paired = i + 1 >= units || (head[2 * (i + 1) + (bigEndian ? 0 : 1)] & 0xFC) == 0xDC;
                plausible = plausible && paired;
                ++i;
                continue;
            }
            ++highCount[high];
            lowSeen[low] = true;
            if (low == 0 && high != 0) ++zeroLow;
            if ((unit >= 0x3000 && unit <= 0x30FF) || (unit >= 0x3400 && unit <= 0x9FFF) ||
                (unit >= 0xAC00 && unit <= 0xD7AF) || (unit >= 0xFF00 && unit <= 0xFFEF)) {
                ++eastAsian;
            }
        }
        if (!plausible) continue;
        const std::size_t ascii = highCount[0];
        const auto distinctLow = static_cast<std::size_t>(std::count(lowSeen.begin(), lowSeen.end(), true));
        // Text in one alphabet: its units share one high byte (0x03 Greek, 0x04 Cyrillic, 0x05 Hebrew,
        // 0x06 Arabic...), with spaces, digits and line breaks under 0x00 beside it.
        std::size_t script = 0;
        for (std::size_t high = 1; high < 256; ++high) script = std::max(script, highCount[high]);
        const bool alphabet = ascii * 20 >= units && script * 5 >= units && (ascii + script) * 10 >= units * 9;
        // Text in ideographs, kana and Hangul, with some ASCII among them.
        const bool ideographic = ascii * 50 >= units && eastAsian * 2 >= units && (ascii + eastAsian) * 20 >= units * 19;
        if ((alphabet || ideographic) && distinctLow >= 10 && zeroLow * 10 < units) {
            return answer(bigEndian ? TextEncoding::utf16be() : TextEncoding::utf16le(), 0.8,
                          L("the pattern of UTF-16 code units"));
        }
    }
    return std::nullopt;
}

// MARK: EBCDIC

std::optional<EncodingDetection> detectEBCDIC(std::span<const std::uint8_t> sample) {
    const std::size_t n = std::min(sample.size(), ebcdicWindow);
    if (n < 16) return std::nullopt;
    const TextEncoding* page939 = TextEncoding::byId("ebcdic939");
    const TextEncoding* page1399 = TextEncoding::byId("ebcdic1399");
    if (page939 && page1399) {
        const auto window = sample.first(std::min(sample.size(), japaneseEBCDICWindow));
        if (auto found = detectJapaneseEBCDIC(window, *page939, *page1399)) return found;
    }
    std::size_t hits = 0, spaces = 0, nuls = 0, punctuation = 0, asciiText = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t b = sample[i];
        if (b == 0x40) {
            ++hits;
            ++spaces;
        } else if (b == 0x25 || b == 0x05 || b == 0x15 || isEBCDICLetterOrDigit(b)) {
            ++hits;
        } else if (b == 0x00) {
            ++nuls;
        } else if (b >= 0x21 && b <= 0x3F) {
            ++punctuation;
        } else if (b == 0x20) {
            ++asciiText;
            ++punctuation;
        } else if ((b >= 0x41 && b <= 0x5A) || (b >= 0x61 && b <= 0x7A)) {
            ++asciiText;
        }
    }
    const auto share = [n](std::size_t count) { return static_cast<double>(count) / static_cast<double>(n); };
    if (share(hits) > 0.7 && share(asciiText) < 0.1 && share(spaces) > 0.03 && share(nuls) < 0.2 &&
        share(punctuation) < 0.05) {
        return answer(ebcdicPage(sample), 0.8, L("EBCDIC letter and digit ranges"));
    }
    return detectEBCDICBySpacing(sample.first(n));
}

std::optional<EncodingDetection> detectEBCDICBySpacing(std::span<const std::uint8_t> bytes) {
    // The Greek, Cyrillic, Hebrew and Arabic pages keep their letters outside the Latin ranges, but every
    // page spaces its words with 0x40, which ASCII text hardly uses, and has no ASCII blanks.
    if (bytes.size() < 64) return std::nullopt;
    std::size_t ebcdicSpaces = 0, asciiSpaces = 0, controls = 0;
    for (const std::uint8_t b : bytes) {
        if (b == 0x40) ++ebcdicSpaces;
        if (b == 0x20) ++asciiSpaces;
        if (b < 0x40 && b != 0x05 && b != 0x0D && b != 0x15 && b != 0x25) ++controls;
    }
    const auto n = static_cast<double>(bytes.size());
    if (static_cast<double>(ebcdicSpaces) / n < 0.08 || asciiSpaces * 20 > ebcdicSpaces || static_cast<double>(controls) / n > 0.02) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> kept;
    for (const std::uint8_t b : bytes) {
        if (b >= 0x40) kept.push_back(b);
    }
    std::vector<TextEncoding> pages = TextEncoding::ebcdicDetectionPages();
    if (const TextEncoding* cyrillic = TextEncoding::byId("ebcdic1025")) pages.push_back(*cyrillic);
    std::optional<EncodingScorer::Scored> best;
    for (const auto& page : pages) {
        const auto value = EncodingScorer::score(kept, page);
        if (value && (!best || *value > best->score + 0.0001)) best = EncodingScorer::Scored{page, *value};
    }
    if (!best || best->score < 2.0) return std::nullopt;
    return answer(best->encoding, 0.75, L("EBCDIC spaces, page read from the text"));
}

const TextEncoding& ebcdicPage(std::span<const std::uint8_t> bytes) {
    const TextEncoding& fallbackPage = TextEncoding::ebcdic037();
    std::size_t telling = 0;
    for (const std::uint8_t b : bytes) {
        if (b != 0x15 && b != 0x25 && b != 0x40 && !isEBCDICLetterOrDigit(b)) ++telling;
    }
    if (telling < 2) return fallbackPage;
    const auto& differing = TextEncoding::ebcdicDistinguishingBytes();
    std::size_t between = 0;
    for (std::size_t i = 1; i + 1 < bytes.size(); ++i) {
        if (differing[bytes[i]] && isEBCDICLetterOrDigit(bytes[i - 1]) && isEBCDICLetterOrDigit(bytes[i + 1])) ++between;
    }
    if (between == 0) return fallbackPage;
    std::vector<std::uint8_t> kept;
    kept.reserve(bytes.size());
    for (const std::uint8_t b : bytes) {
        if (b >= 0x40) kept.push_back(b);
    }
    if (kept.size() < 8) return fallbackPage;
    const TextEncoding* best = &fallbackPage;
    double bestScore = -1.0;
    for (const auto& page : TextEncoding::ebcdicDetectionPages()) {
        auto value = EncodingScorer::score(kept, page);
        if (!value) continue;
        // A telling byte between two letters is a letter of the page; a page that reads it as ASCII
        // punctuation escapes the scorer, which looks at the characters beyond ASCII only.
        std::size_t nonLetters = 0;
        for (std::size_t i = 1; i + 1 < bytes.size(); ++i) {
            if (!differing[bytes[i]] || !isEBCDICLetterOrDigit(bytes[i - 1]) || !isEBCDICLetterOrDigit(bytes[i + 1])) continue;
            const char16_t unit = (*page.table)[bytes[i]];
            if (unit < 0x80 && !((unit | 0x20) >= 'a' && (unit | 0x20) <= 'z')) ++nonLetters;
        }
        *value -= 4.0 * static_cast<double>(nonLetters) / static_cast<double>(between);
        if (*value > bestScore + 0.0001) {
            best = &page;
            bestScore = *value;
        }
    }
    return *best;
}

std::optional<EncodingDetection> detectJapaneseEBCDIC(std::span<const std::uint8_t> bytes, const TextEncoding& page939,
                                                      const TextEncoding& page1399) {
    const bool shifts = std::find(bytes.begin(), bytes.end(), 0x0E) != bytes.end() &&
                        std::find(bytes.begin(), bytes.end(), 0x0F) != bytes.end();
    if (!shifts || !page939.stateful || !page1399.stateful) return std::nullopt;
    const double p939 = page939.stateful->plausibility(bytes).value_or(0);
    const double p1399 = page1399.stateful->plausibility(bytes).value_or(0);
    if (std::max(p939, p1399) < 0.9) return std::nullopt;
    // The single-byte stream: what stands outside shift-out ... shift-in.
    std::vector<std::uint8_t> stream;
    bool doubleByte = false;
    for (const std::uint8_t b : bytes) {
        if (b == 0x0E) {
            doubleByte = true;
        } else if (b == 0x0F) {
            doubleByte = false;
        } else if (b == 0x15 || b == 0x25) {
            doubleByte = false;
            stream.push_back(b);
        } else if (!doubleByte) {
            stream.push_back(b);
        }
    }
    if (!stream.empty() && stream.size() >= 40) {
        const auto blanks = std::count(stream.begin(), stream.end(), std::uint8_t{0x40});
        if (static_cast<double>(blanks) <= 0.02 * static_cast<double>(stream.size())) return std::nullopt;
    }
    bool lowerCaseRun = false;
    std::size_t run = 0;
    for (const std::uint8_t b : stream) {
        run = isEBCDICLowerCase(b) ? run + 1 : 0;
        if (run >= 3) lowerCaseRun = true;
    }
    const bool jisX0213 = p939 + 0.0001 < p1399;
    const bool latin = lowerCaseRun || stream.size() < 40;
    const char* id = latin ? (jisX0213 ? "ebcdic1399" : "ebcdic939") : (jisX0213 ? "ebcdic1390" : "ebcdic930");
    const TextEncoding* page = TextEncoding::byId(id);
    if (!page) page = jisX0213 ? &page1399 : &page939;
    return answer(*page, 0.85, L("EBCDIC with Kanji between shift-out and shift-in"));
}

// MARK: CJK

std::optional<EncodingDetection> detectCJK(const Sample& sample) {
    std::vector<CJKCandidate> candidates = {
        {TextEncoding::shiftJIS(), Language::japanese},
        {TextEncoding::eucJP(), Language::japanese},
        {TextEncoding::gb18030(), Language::simplifiedChinese},
        {TextEncoding::big5(), Language::traditionalChinese},
        {TextEncoding::eucKR(), Language::korean},
        {TextEncoding::iso2022JP(), Language::japanese},
    };
    // Supersets that hold what their everyday sets refuse: Korean written with the extra Windows syllables,
    // Hong Kong's additions to Big5. Each comes after its base, so the base wins a tie.
    if (auto korean = catalogued({"windows-949", "cp949"})) candidates.push_back({*korean, Language::korean});
    if (auto hongKong = catalogued({"big5-hkscs", "big5hkscs"})) candidates.push_back({*hongKong, Language::traditionalChinese});
    return bestCJK(sample, candidates);
}

std::optional<EncodingDetection> detectSevenBitCJK(const Sample& sample) {
    const auto& bytes = sample.bytes;
    const bool escapes = std::find(bytes.begin(), bytes.end(), 0x1B) != bytes.end();
    // HZ shifts into GB 2312 with "~{" and back with "~}"; a text with only one of them is not HZ.
    bool hzIn = false;
    bool hzShift = false;
    for (std::size_t i = 0; i + 1 < bytes.size() && !hzShift; ++i) {
        if (bytes[i] != '~') continue;
        hzIn = hzIn || bytes[i + 1] == '{';
        hzShift = hzIn && bytes[i + 1] == '}';
    }
    if (!escapes && !hzShift) return std::nullopt;
    std::vector<CJKCandidate> candidates;
    if (escapes) {
        candidates.push_back({TextEncoding::iso2022JP(), Language::japanese});
        if (auto korean = catalogued({"iso-2022-kr", "iso2022kr"})) candidates.push_back({*korean, Language::korean});
        if (auto chinese = catalogued({"iso-2022-cn", "iso2022cn"})) candidates.push_back({*chinese, Language::simplifiedChinese});
    }
    if (hzShift) {
        if (auto hz = catalogued({"hz-gb-2312", "hz"})) candidates.push_back({*hz, Language::simplifiedChinese});
    }
    return bestCJK(sample, candidates);
}

bool readsAsRareCharacters(std::span<const std::uint8_t> bytes, const TextEncoding& encoding) {
    const std::string& id = encoding.id;
    const bool gb = id == "gb18030";
    const bool big5 = id == "big5";
    const bool korean = id == "euckr";
    const bool eucJP = id == "eucjp";
    const bool shiftJIS = id == "shiftjis";
    if (!gb && !big5 && !korean && !eucJP && !shiftJIS) return false;
    if (bytes.empty()) return true;
    const std::size_t limit = std::min(bytes.size(), cjkByteWindow);
    std::size_t total = 0;
    std::size_t rare = 0;
    std::size_t i = 0;
    while (i < limit) {
        const std::uint8_t lead = bytes[i];
        if (lead < 0x81 || (shiftJIS && lead >= 0xA1 && lead <= 0xDF)) {
            ++i;
            continue;
        }
        if (i + 1 >= limit) break;
        const std::uint8_t trail = bytes[i + 1];
        if (gb && trail >= '0' && trail <= '9') {
            ++total;
            ++rare;
            i += 4;
            continue;
        }
        ++total;
        const bool isRare = gb ? (lead > 0xD7 || trail < 0xA1)
                            : big5 ? lead > 0xC8
                            : korean ? lead > 0xC9
                            : eucJP ? lead > 0xCF
                                    : lead > 0xDF;
        if (isRare) ++rare;
        i += 2;
    }
    if (total < 2) return true;
    return 3 * rare > total;
}

bool breaksLatinWords(std::u32string_view text) {
    const std::size_t limit = std::min(text.size(), latinWordScalars);
    auto asciiLetter = [](char32_t c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    std::size_t total = 0;
    std::size_t inside = 0;
    for (std::size_t i = 0; i < limit; ++i) {
        const char32_t c = text[i];
        const bool ideograph = (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xAC00 && c <= 0xD7AF);
        if (!ideograph) continue;
        ++total;
        if (i > 0 && i + 1 < text.size() && asciiLetter(text[i - 1]) && asciiLetter(text[i + 1])) ++inside;
    }
    return inside >= 1 && 3 * inside >= total;
}

// MARK: 8-bit

namespace {

/// How much better per character a DOS page must read than the best other set.
constexpr double dosMargin = 2.5;

bool isDOSPage(const TextEncoding& encoding) {
    if (encoding.id == "cp437" || encoding.id == "cp850") return true;
    const Charsets::Entry* entry = Charsets::entry(encoding.id);
    return entry != nullptr && entry->group == "dos";
}

} // namespace

std::vector<TextEncoding> legacyCandidates(bool hasC1Bytes, const TextEncoding& fallback) {
    std::vector<TextEncoding> candidates;
    for (const TextEncoding* encoding :
         {&TextEncoding::cp1252(), &TextEncoding::latin1(), &TextEncoding::latin9(), &TextEncoding::cp1250(),
          &TextEncoding::latin2(), &TextEncoding::macRoman(), &TextEncoding::cp1251(), &TextEncoding::koi8r(),
          &TextEncoding::cp1253(), &TextEncoding::cp1254(), &TextEncoding::cp1257()}) {
        if (hasC1Bytes && (encoding->id == "latin1" || encoding->id == "latin9" || encoding->id == "latin2")) continue;
        candidates.push_back(*encoding);
    }
    // Beyond the everyday sets: the single-byte sets of the catalogue that text is still found in. The
    // ISO sets read 0x80-0x9F as controls and drop out with the others when those bytes occur.
    static const std::vector<std::pair<const char*, bool>> more = {
        {"cp850", false},    {"cp437", false},    {"latin5", true},    {"latin4", true},    {"latin7", true},
        {"latin10", true},   {"latin3", true},    {"latin6", true},    {"latin8", true},    {"cp852", false},
        {"cp775", false},    {"maccentraleurope", false},              {"iso88595", true},  {"cp866", false},   {"cp1125", false},
        {"cp855", false},    {"koi8u", false},    {"maccyrillic", false},                   {"iso88597", true},
        {"cp737", false},    {"macgreek", false}, {"cp1255", false},   {"iso88598", true},  {"cp862", false},
        {"cp1256", false},   {"iso88596", true},  {"cp874", false},    {"cp1258", false},   {"cp857", false},
    };
    for (const auto& [id, iso] : more) {
        if (hasC1Bytes && iso) continue;
        if (const TextEncoding* encoding = TextEncoding::byId(id)) candidates.push_back(*encoding);
    }
    if (std::find(candidates.begin(), candidates.end(), fallback) == candidates.end()) candidates.push_back(fallback);
    return candidates;
}

EncodingDetection detectLegacy8Bit(std::span<const std::uint8_t> sample, const TextEncoding& fallback) {
    std::int64_t high = 0;
    std::int64_t c1 = 0;
    for (const std::uint8_t b : sample) {
        if (b >= 0x80) ++high;
        if (b >= 0x80 && b <= 0x9F) ++c1;
    }
    if (high == 0) return answer(TextEncoding::utf8(), 0.9, L("7-bit ASCII"));
    const auto candidates = legacyCandidates(c1 > 0, fallback);
    const auto scored = sample.first(std::min(sample.size(), legacyScoreWindow));
    auto best = EncodingScorer::best(scored, candidates);
    if (!best) return answer(fallback, 0.3, L("8-bit, nothing decoded cleanly"));
    if (isDOSPage(best->encoding)) {
        // The DOS pages read Windows' quotation marks and dashes (0x91-0x97) as accented letters, which
        // score well around words. Text written for a console is the rarer kind: a DOS page must read
        // clearly better than the common Windows, ISO and Mac sets to be chosen.
        const auto& common = EncodingScorer::tieOrder();
        std::vector<TextEncoding> others;
        for (const auto& candidate : candidates) {
            if (!isDOSPage(candidate) && std::find(common.begin(), common.end(), candidate.id) != common.end()) {
                others.push_back(candidate);
            }
        }
        const auto other = EncodingScorer::best(scored, others);
        if (other && best->score - other->score < dosMargin) best = other;
    }
    double confidence = best->score >= 2.0 ? 0.75 : 0.6;
    if (high < 8) confidence -= 0.15;
    if (static_cast<double>(high) / static_cast<double>(sample.size()) < 0.005) confidence -= 0.1;
    EncodingDetection detection =
        answer(best->encoding, confidence,
               L("8-bit, best of %d readings (%d high bytes, score %.1f)", candidates.size(), high, best->score));
    if (confidence <= 0.6 + 1e-9) detection.alternative = EncodingScorer::closeSecond(scored, candidates, *best);
    return detection;
}

} // namespace brim::EncodingDetector
