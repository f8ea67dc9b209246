#include "charsets/TextEncoding.h"

#include "charsets/DoubleByteCodec.h"
#include "charsets/LossyUTF8.h"
#include "charsets/SystemConverter.h"
#include "charsets/UnicodeText.h"
#include "common/Localization.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <unordered_map>

namespace brim {

namespace {

bool isUTF8(const TextEncoding& encoding) { return encoding.converterName == "UTF-8" && !encoding.stateful; }

std::u16string decodeByTable(const TextEncoding& encoding, std::span<const std::uint8_t> bytes) {
    const auto& table = *encoding.table;
    std::u16string out;
    out.reserve(bytes.size());
    const bool hasPairs = encoding.pairs && !encoding.pairs->empty();
    if (hasPairs || (encoding.expansions && !encoding.expansions->empty())) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            const std::uint8_t byte = bytes[i];
            if (hasPairs && i + 1 < bytes.size()) {
                const auto code = static_cast<std::uint16_t>(byte << 8 | bytes[i + 1]);
                if (const auto found = encoding.pairs->find(code); found != encoding.pairs->end()) {
                    out += found->second;
                    ++i;
                    continue;
                }
            }
            if (encoding.expansions) {
                if (const auto found = encoding.expansions->find(byte); found != encoding.expansions->end()) {
                    out += found->second;
                    continue;
                }
            }
            const char16_t unit = table[byte];
            out.push_back(unit >= 0xD800 && unit <= 0xDFFF ? u'\uFFFD' : unit);
        }
        return out;
    }
    for (const std::uint8_t byte : bytes) out.push_back(table[byte]);
    return UnicodeText::repairedUTF16(out);
}

// The reverse of a table, built once per table and shared: every assigned entry, the first byte of a
// value winning, and the sequences written as other than one byte per unit (expansions to one byte,
// pairs to two), longest first.
struct ReverseTable {
    std::unordered_map<char16_t, std::uint8_t> single;
    std::vector<std::pair<std::u16string, std::vector<std::uint8_t>>> sequences;   // longest first
    std::vector<bool> startsSequence = std::vector<bool>(65'536, false);
    std::uint8_t question = '?';
};

std::shared_ptr<const ReverseTable> reverseTable(const TextEncoding& encoding) {
    static std::mutex lock;
    static std::map<const void*, std::shared_ptr<const ReverseTable>> built;   // guarded by lock
    const void* key = encoding.table.get();
    std::lock_guard guard(lock);
    if (const auto found = built.find(key); found != built.end()) return found->second;
    auto reverse = std::make_shared<ReverseTable>();
    const auto& table = *encoding.table;
    for (std::size_t b = 0; b < 256; ++b) {
        const char16_t unit = table[b];
        if (unit == 0xFFFD) continue;
        reverse->single.try_emplace(unit, static_cast<std::uint8_t>(b));
    }
    if (encoding.expansions) {
        for (const auto& [byte, text] : *encoding.expansions) {
            reverse->sequences.emplace_back(text, std::vector<std::uint8_t>{byte});
        }
    }
    if (encoding.pairs) {
        for (const auto& [code, text] : *encoding.pairs) {
            reverse->sequences.emplace_back(
                text, std::vector<std::uint8_t>{static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code)});
        }
    }
    for (const auto& sequence : reverse->sequences) reverse->startsSequence[sequence.first.front()] = true;
    std::stable_sort(reverse->sequences.begin(), reverse->sequences.end(),
                     [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
    if (!encoding.asciiCompatible) {
        if (const auto found = reverse->single.find(u'?'); found != reverse->single.end()) reverse->question = found->second;
    }
    built.emplace(key, reverse);
    return reverse;
}

EncodedText encodeByTable(const TextEncoding& encoding, std::u16string_view text) {
    const auto reverse = reverseTable(encoding);
    EncodedText result;
    result.bytes.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        bool expanded = false;
        if (reverse->startsSequence[text[i]]) {
            for (const auto& [sequence, bytes] : reverse->sequences) {
                if (text.substr(i, sequence.size()) == sequence) {
                    result.bytes.insert(result.bytes.end(), bytes.begin(), bytes.end());
                    i += sequence.size();
                    expanded = true;
                    break;
                }
            }
        }
        if (expanded) continue;
        const char16_t unit = text[i];
        if (const auto found = reverse->single.find(unit); found != reverse->single.end()) {
            result.bytes.push_back(found->second);
        } else {
            result.bytes.push_back(reverse->question);
            ++result.unwritable;
            // A character beyond the basic plane is one character, not two.
            if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) ++i;
        }
        ++i;
    }
    return result;
}

constexpr std::uint8_t bomUTF8[] = {0xEF, 0xBB, 0xBF};
constexpr std::uint8_t bomUTF16LE[] = {0xFF, 0xFE};
constexpr std::uint8_t bomUTF16BE[] = {0xFE, 0xFF};
constexpr std::uint8_t bomUTF32LE[] = {0xFF, 0xFE, 0x00, 0x00};
constexpr std::uint8_t bomUTF32BE[] = {0x00, 0x00, 0xFE, 0xFF};

} // namespace

bool operator==(const TextEncoding& a, const TextEncoding& b) {
    const auto sameTable = a.table == b.table || (a.table && b.table && *a.table == *b.table);
    const auto sameExpansions =
        a.expansions == b.expansions || (a.expansions && b.expansions && *a.expansions == *b.expansions);
    const auto samePairs = a.pairs == b.pairs || (a.pairs && b.pairs && *a.pairs == *b.pairs);
    const auto sameCodec = a.stateful == b.stateful || (a.stateful && b.stateful && a.stateful->key() == b.stateful->key());
    return a.id == b.id && a.displayName == b.displayName && a.converterName == b.converterName &&
           a.asciiCompatible == b.asciiCompatible && a.ebcdic == b.ebcdic && sameTable && sameExpansions && samePairs && sameCodec &&
           a.doubleByteCodec == b.doubleByteCodec;
}

std::u16string TextEncoding::decodeToUTF16(std::span<const std::uint8_t> bytes) const {
    if (bytes.empty()) return {};
    if (stateful) return UnicodeText::toUTF16(stateful->decode(bytes));
    if (table) return decodeByTable(*this, bytes);
    if (doubleByteCodec) {
        std::u16string out;
        std::size_t invalid = 0;
        doubleByteCodec->decode(bytes, true, out, invalid);
        return UnicodeText::repairedUTF16(out);
    }
    if (isUTF8(*this)) return UnicodeText::toUTF16(LossyUTF8::repaired(bytes));
    return UnicodeText::repairedUTF16(*SystemConverter::decode(converterName, bytes, SystemConverter::Reading::repairing));
}

std::string TextEncoding::decode(std::span<const std::uint8_t> bytes) const {
    if (bytes.empty()) return {};
    if (stateful) return stateful->decode(bytes);
    if (isUTF8(*this)) return LossyUTF8::repaired(bytes);
    return UnicodeText::toUTF8(decodeToUTF16(bytes));
}

std::optional<std::u16string> TextEncoding::decodeStrictly(std::span<const std::uint8_t> bytes) const {
    if (bytes.empty()) return std::u16string();
    if (stateful || table) return decodeToUTF16(bytes);
    if (doubleByteCodec) {
        std::u16string out;
        std::size_t invalid = 0;
        doubleByteCodec->decode(bytes, true, out, invalid);
        if (invalid > 0) return std::nullopt;
        return out;
    }
    if (isUTF8(*this)) {
        if (!LossyUTF8::isValid(bytes)) return std::nullopt;
        return UnicodeText::toUTF16(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    return SystemConverter::decode(converterName, bytes, SystemConverter::Reading::strict);
}

EncodedText TextEncoding::encode(std::string_view text) const {
    if (text.empty()) return {};
    if (stateful) return stateful->encode(text);
    if (isUTF8(*this)) {
        EncodedText result;
        result.bytes.assign(reinterpret_cast<const std::uint8_t*>(text.data()),
                            reinterpret_cast<const std::uint8_t*>(text.data()) + text.size());
        return result;
    }
    const std::u16string units = UnicodeText::toUTF16(text);
    if (table) return encodeByTable(*this, units);
    if (doubleByteCodec) {
        EncodedText result;
        std::size_t lost = 0;
        doubleByteCodec->encode(units, true, result.bytes, lost);
        result.unwritable = static_cast<std::int64_t>(lost);
        return result;
    }
    return SystemConverter::encode(converterName, units);
}

UnwritableReport TextEncoding::unwritable(std::string_view text, std::size_t examples) const {
    // Each distinct character is tried once on its own; the text is then counted against the answers.
    UnwritableReport report;
    const std::u32string scalars = UnicodeText::toScalars(text);
    std::unordered_map<char32_t, bool> survives;
    std::set<char32_t> listed;
    for (const char32_t scalar : scalars) {
        auto found = survives.find(scalar);
        if (found == survives.end()) {
            std::string one;
            UnicodeText::appendUTF8(one, scalar);
            const EncodedText encoded = encode(one);
            const bool kept = encoded.unwritable == 0 && decode(encoded.bytes) == one;
            found = survives.emplace(scalar, kept).first;
        }
        if (found->second) continue;
        ++report.count;
        if (report.examples.size() < examples && listed.insert(scalar).second) {
            std::string one;
            UnicodeText::appendUTF8(one, scalar);
            report.examples.push_back(std::move(one));
        }
    }
    return report;
}

std::string TextEncoding::localisedName() const { return Localization::string(displayName); }

std::span<const std::uint8_t> TextEncoding::bom() const {
    if (id == "utf8") return bomUTF8;
    if (id == "utf16le") return bomUTF16LE;
    if (id == "utf16be") return bomUTF16BE;
    if (id == "utf32le") return bomUTF32LE;
    if (id == "utf32be") return bomUTF32BE;
    return {};
}

std::optional<int> TextEncoding::unicodeUnitWidth() const {
    if (id == "utf16le" || id == "utf16be") return 2;
    if (id == "utf32le" || id == "utf32be") return 4;
    return std::nullopt;
}

bool TextEncoding::isEBCDIC() const { return ebcdic || (stateful && stateful->isEBCDIC()); }

bool TextEncoding::readsNELAsOneByte() const {
    if (!asciiCompatible || isUTF8(*this)) return false;
    const std::uint8_t nel = 0x85;
    return decodeToUTF16(std::span(&nel, 1)) == u"\u0085";
}

bool TextEncoding::isSingleByte() const {
    if (stateful || doubleByteCodec) return false;
    if (table) return (!expansions || expansions->empty()) && (!pairs || pairs->empty());
    if (isUTF8(*this) || converterName.empty()) return false;
    return SystemConverter::isSingleByte(converterName);
}

} // namespace brim
