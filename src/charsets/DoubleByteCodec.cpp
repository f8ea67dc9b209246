#include "charsets/DoubleByteCodec.h"

#include "charsets/tables/CatalogueTables.h"

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace brim {

namespace {

unsigned hexValue(std::string_view text) {
    if (text.empty() || text.size() > 5) {
        throw std::invalid_argument("malformed double-byte table: bad number");
    }
    unsigned value = 0;
    for (char c : text) {
        unsigned digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
            throw std::invalid_argument("malformed double-byte table: not hexadecimal");
        }
        value = value * 16 + digit;
    }
    return value;
}

unsigned decimalValue(std::string_view text) {
    if (text.empty()) {
        throw std::invalid_argument("malformed double-byte table: empty run");
    }
    unsigned value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            throw std::invalid_argument("malformed double-byte table: bad run length");
        }
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
}

bool isHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

} // namespace

const DoubleByteCodec* DoubleByteCodec::named(std::string_view id) {
    // Each codec is built on first use only: the four together hold about 38,000 codes.
    static std::mutex buildLock;
    static std::map<std::string, std::unique_ptr<DoubleByteCodec>, std::less<>> built;   // guarded by buildLock
    std::lock_guard lock(buildLock);
    if (auto found = built.find(id); found != built.end()) {
        return found->second.get();
    }
    for (const auto& data : CatalogueTables::doubleByteData()) {
        if (data.id == id) {
            auto codec = std::make_unique<DoubleByteCodec>(data.pieces);
            const DoubleByteCodec* result = codec.get();
            built.emplace(std::string(id), std::move(codec));
            return result;
        }
    }
    return nullptr;
}

DoubleByteCodec::DoubleByteCodec(std::span<const char* const> pieces)
    : decodeTable_(65'536, unassigned), reverse_(65'536, noCode), startsSequence_(65'536, false) {
    std::uint32_t code = 0;
    for (const char* piece : pieces) {
        std::string_view text(piece);
        std::size_t position = 0;
        while (position < text.size()) {
            if (text[position] == ' ') {
                ++position;
                continue;
            }
            std::size_t end = text.find(' ', position);
            if (end == std::string_view::npos) {
                end = text.size();
            }
            std::string_view token = text.substr(position, end - position);
            position = end;
            if (token[0] == '@') {
                code = hexValue(token.substr(1));
                continue;
            }
            if (const auto star = token.find('*'); star != std::string_view::npos) {
                const unsigned first = hexValue(token.substr(0, star));
                const unsigned run = decimalValue(token.substr(star + 1));
                for (unsigned i = 0; i < run; ++i) {
                    const auto unit = static_cast<char16_t>(first + i);
                    assign(code++, std::u16string_view(&unit, 1));
                }
                continue;
            }
            std::u16string units;
            std::size_t from = 0;
            while (from <= token.size()) {
                std::size_t dot = token.find('.', from);
                if (dot == std::string_view::npos) {
                    dot = token.size();
                }
                units.push_back(static_cast<char16_t>(hexValue(token.substr(from, dot - from))));
                from = dot + 1;
            }
            assign(code++, units);
        }
    }
}

void DoubleByteCodec::assign(std::uint32_t code, std::u16string_view units) {
    if (code > 0xFFFF || units.empty() || (code > 0xFF && code < 0x8000)) {
        throw std::invalid_argument("malformed double-byte table: code out of range");
    }
    const auto code16 = static_cast<std::uint16_t>(code);
    if (code16 > 0xFF) {
        isLead_[code16 >> 8] = true;
    }
    if (units.size() == 1 && !isHighSurrogate(units[0]) && !isLowSurrogate(units[0])) {
        decodeTable_[code16] = units[0];
        // The first code of a character wins when writing.
        if (reverse_[units[0]] == noCode) {
            reverse_[units[0]] = code16;
        }
        return;
    }
    decodeTable_[code16] = sequence;
    sequences_[code16] = std::u16string(units);
    reverseSequences_.emplace(std::u16string(units), code16);
    startsSequence_[units[0]] = true;
    longestSequence_ = std::max(longestSequence_, units.size());
}

std::u16string_view DoubleByteCodec::unitsOf(std::uint16_t code) const {
    const char16_t value = decodeTable_[code];
    if (value == unassigned) {
        return {};
    }
    if (value == sequence) {
        return sequences_.at(code);
    }
    return {&decodeTable_[code], 1};
}

std::vector<std::uint16_t> DoubleByteCodec::codes() const {
    std::vector<std::uint16_t> result;
    for (std::uint32_t code = 0; code <= 0xFFFF; ++code) {
        if (decodeTable_[code] != unassigned) {
            result.push_back(static_cast<std::uint16_t>(code));
        }
    }
    return result;
}

std::size_t DoubleByteCodec::decode(std::span<const std::uint8_t> bytes, bool final, std::u16string& out,
                                    std::size_t& invalid) const {
    std::size_t i = 0;
    const std::size_t count = bytes.size();
    while (i < count) {
        const std::uint8_t byte = bytes[i];
        if (!isLead_[byte]) {
            const char16_t value = decodeTable_[byte];
            if (value == sequence) {
                out += sequences_.at(byte);
            } else {
                if (value == unassigned) {
                    ++invalid;
                }
                out.push_back(value);
            }
            ++i;
            continue;
        }
        if (i + 1 == count) {
            if (!final) {
                break;
            }
            out.push_back(u'\uFFFD');
            ++invalid;
            ++i;
            continue;
        }
        const std::uint8_t trail = bytes[i + 1];
        const auto code = static_cast<std::uint16_t>(byte << 8 | trail);
        const char16_t value = decodeTable_[code];
        if (value == sequence) {
            out += sequences_.at(code);
            i += 2;
        } else if (value != unassigned) {
            out.push_back(value);
            i += 2;
        } else {
            // No set here has a trail byte below 0x40: such a byte is read again on its own.
            out.push_back(u'\uFFFD');
            ++invalid;
            i += trail < 0x40 ? 1 : 2;
        }
    }
    return i;
}

void DoubleByteCodec::appendCode(std::uint16_t code, std::vector<std::uint8_t>& out) const {
    if (code > 0xFF) {
        out.push_back(static_cast<std::uint8_t>(code >> 8));
    }
    out.push_back(static_cast<std::uint8_t>(code & 0xFF));
}

std::size_t DoubleByteCodec::encode(std::u16string_view text, bool final, std::vector<std::uint8_t>& out,
                                    std::size_t& unwritable, std::vector<char32_t>* lost) const {
    std::size_t i = 0;
    while (i < text.size()) {
        const char16_t unit = text[i];
        const std::size_t left = text.size() - i;
        if (startsSequence_[unit]) {
            if (!final && left < longestSequence_) {
                return i;
            }
            bool matched = false;
            for (std::size_t length = std::min(longestSequence_, left); length >= 2; --length) {
                if (auto found = reverseSequences_.find(std::u16string(text.substr(i, length)));
                    found != reverseSequences_.end()) {
                    appendCode(found->second, out);
                    i += length;
                    matched = true;
                    break;
                }
            }
            if (matched) {
                continue;
            }
        }
        if (const std::uint16_t code = reverse_[unit]; code != noCode) {
            appendCode(code, out);
            ++i;
            continue;
        }
        if (isHighSurrogate(unit) && left == 1 && !final) {
            return i;
        }
        const bool pair = isHighSurrogate(unit) && left > 1 && isLowSurrogate(text[i + 1]);
        out.push_back('?');
        ++unwritable;
        if (lost != nullptr) {
            lost->push_back(pair ? 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) + (text[i + 1] - 0xDC00u)
                                 : (isHighSurrogate(unit) || isLowSurrogate(unit) ? char32_t{0xFFFD} : unit));
        }
        i += pair ? 2 : 1;
    }
    return i;
}

} // namespace brim
