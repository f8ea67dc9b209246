#include "charsets/SystemConverter.h"

#include "charsets/UnicodeText.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>
#include <unicode/ucnv_err.h>

#include <cerrno>
#include <iconv.h>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace brim::SystemConverter {

namespace {

constexpr std::string_view iconvPrefix = "iconv:";

bool isIconvName(const std::string& name) { return name.starts_with(iconvPrefix); }

// MARK: ICU

struct ConverterCloser {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using ConverterPointer = std::unique_ptr<UConverter, ConverterCloser>;

// ICU converters are not thread-safe: each thread opens its own, once per name. Its substitution
// is "?" in the set's own spelling, since ICU's default is not.
UConverter* icuConverter(const std::string& name) {
    thread_local std::unordered_map<std::string, ConverterPointer> converters;
    const auto found = converters.find(name);
    if (found != converters.end()) return found->second.get();
    UErrorCode status = U_ZERO_ERROR;
    ConverterPointer converter(ucnv_open(name.c_str(), &status));
    if (U_FAILURE(status)) converter.reset();
    if (converter) {
        char question[8];
        UErrorCode encoded = U_ZERO_ERROR;
        const UChar mark = u'?';
        const int32_t length = ucnv_fromUChars(converter.get(), question, sizeof question, &mark, 1, &encoded);
        UErrorCode set = U_ZERO_ERROR;
        if (U_SUCCESS(encoded) && length > 0) ucnv_setSubstChars(converter.get(), question, static_cast<int8_t>(length), &set);
        ucnv_reset(converter.get());
    }
    return converters.emplace(name, std::move(converter)).first->second.get();
}

void replacingCallback(const void*, UConverterToUnicodeArgs* arguments, const char*, int32_t,
                       UConverterCallbackReason reason, UErrorCode* status) {
    if (reason > UCNV_IRREGULAR) return;
    *status = U_ZERO_ERROR;
    const UChar replacement = 0xFFFD;
    ucnv_cbToUWriteUChars(arguments, &replacement, 1, 0, status);
}

struct LossCount {
    std::int64_t count = 0;
};

void countingCallback(const void* context, UConverterFromUnicodeArgs* arguments, const UChar* units, int32_t length,
                      UChar32 codePoint, UConverterCallbackReason reason, UErrorCode* status) {
    if (reason <= UCNV_IRREGULAR) ++static_cast<LossCount*>(const_cast<void*>(context))->count;
    UCNV_FROM_U_CALLBACK_SUBSTITUTE(nullptr, arguments, units, length, codePoint, reason, status);
}

std::optional<std::u16string> icuDecode(UConverter* converter, std::span<const std::uint8_t> bytes, Reading reading) {
    UErrorCode status = U_ZERO_ERROR;
    if (reading == Reading::strict) {
        ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    } else {
        ucnv_setToUCallBack(converter, replacingCallback, nullptr, nullptr, nullptr, &status);
    }
    ucnv_resetToUnicode(converter);
    std::u16string out(bytes.size() + 16, u'\0');
    const char* source = reinterpret_cast<const char*>(bytes.data());
    const char* sourceEnd = source + bytes.size();
    std::size_t written = 0;
    for (;;) {
        UChar* target = reinterpret_cast<UChar*>(out.data()) + written;
        UChar* targetEnd = reinterpret_cast<UChar*>(out.data()) + out.size();
        status = U_ZERO_ERROR;
        ucnv_toUnicode(converter, &target, targetEnd, &source, sourceEnd, nullptr, true, &status);
        written = static_cast<std::size_t>(target - reinterpret_cast<UChar*>(out.data()));
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            out.resize(out.size() * 2);
            continue;
        }
        break;
    }
    ucnv_resetToUnicode(converter);
    if (U_FAILURE(status)) {
        if (reading == Reading::strict) return std::nullopt;
        out.resize(written);
        out.push_back(u'\uFFFD');
        return out;
    }
    out.resize(written);
    return out;
}

EncodedText icuEncode(UConverter* converter, std::u16string_view text) {
    LossCount loss;
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setFromUCallBack(converter, countingCallback, &loss, nullptr, nullptr, &status);
    ucnv_resetFromUnicode(converter);
    EncodedText result;
    result.bytes.resize(text.size() * 2 + 16);
    const UChar* source = reinterpret_cast<const UChar*>(text.data());
    const UChar* sourceEnd = source + text.size();
    std::size_t written = 0;
    for (;;) {
        char* target = reinterpret_cast<char*>(result.bytes.data()) + written;
        char* targetEnd = reinterpret_cast<char*>(result.bytes.data()) + result.bytes.size();
        status = U_ZERO_ERROR;
        ucnv_fromUnicode(converter, &target, targetEnd, &source, sourceEnd, nullptr, true, &status);
        written = static_cast<std::size_t>(target - reinterpret_cast<char*>(result.bytes.data()));
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            result.bytes.resize(result.bytes.size() * 2);
            continue;
        }
        break;
    }
    ucnv_resetFromUnicode(converter);
    // The callback keeps a pointer to `loss`: take it back before it goes.
    UErrorCode reset = U_ZERO_ERROR;
    ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_SUBSTITUTE, nullptr, nullptr, nullptr, &reset);
    result.bytes.resize(written);
    result.unwritable = loss.count;
    return result;
}

// MARK: glibc iconv

struct IconvPair {
    iconv_t decoder = reinterpret_cast<iconv_t>(-1);
    iconv_t encoder = reinterpret_cast<iconv_t>(-1);
    std::vector<std::uint8_t> question;     // "?" in the set
    IconvPair() = default;
    IconvPair(const IconvPair&) = delete;
    IconvPair& operator=(const IconvPair&) = delete;
    ~IconvPair() {
        if (decoder != reinterpret_cast<iconv_t>(-1)) iconv_close(decoder);
        if (encoder != reinterpret_cast<iconv_t>(-1)) iconv_close(encoder);
    }
    [[nodiscard]] bool usable() const {
        return decoder != reinterpret_cast<iconv_t>(-1) && encoder != reinterpret_cast<iconv_t>(-1);
    }
};

IconvPair& iconvPair(const std::string& name) {
    thread_local std::unordered_map<std::string, std::unique_ptr<IconvPair>> pairs;
    auto& slot = pairs[name];
    if (!slot) {
        slot = std::make_unique<IconvPair>();
        const std::string system = name.substr(iconvPrefix.size());
        slot->decoder = iconv_open("UTF-16LE", system.c_str());
        slot->encoder = iconv_open(system.c_str(), "UTF-16LE");
        if (slot->usable()) {
            char mark[2] = {'?', '\0'};
            char out[8];
            char* in = mark;
            std::size_t inLeft = 2;
            char* target = out;
            std::size_t outLeft = sizeof out;
            if (iconv(slot->encoder, &in, &inLeft, &target, &outLeft) != static_cast<std::size_t>(-1)) {
                slot->question.assign(reinterpret_cast<std::uint8_t*>(out), reinterpret_cast<std::uint8_t*>(target));
            }
            iconv(slot->encoder, nullptr, nullptr, nullptr, nullptr);
        }
        if (slot->question.empty()) slot->question = {'?'};
    }
    return *slot;
}

void appendLittleEndianUnits(std::u16string& out, const char* begin, const char* end) {
    for (const char* p = begin; p + 1 < end; p += 2) {
        out.push_back(static_cast<char16_t>(static_cast<std::uint8_t>(p[0]) | (static_cast<std::uint8_t>(p[1]) << 8)));
    }
}

std::optional<std::u16string> iconvDecode(IconvPair& pair, std::span<const std::uint8_t> bytes, Reading reading) {
    std::u16string out;
    out.reserve(bytes.size());
    iconv(pair.decoder, nullptr, nullptr, nullptr, nullptr);
    char* in = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
    std::size_t inLeft = bytes.size();
    std::vector<char> buffer(16'384);
    while (inLeft > 0) {
        char* target = buffer.data();
        std::size_t outLeft = buffer.size();
        const std::size_t done = iconv(pair.decoder, &in, &inLeft, &target, &outLeft);
        appendLittleEndianUnits(out, buffer.data(), target);
        if (done != static_cast<std::size_t>(-1)) continue;
        if (errno == E2BIG) continue;
        if (reading == Reading::strict) return std::nullopt;
        // EILSEQ or EINVAL: one bad byte, then on from a fresh state.
        out.push_back(u'\uFFFD');
        ++in;
        --inLeft;
        iconv(pair.decoder, nullptr, nullptr, nullptr, nullptr);
    }
    char* target = buffer.data();
    std::size_t outLeft = buffer.size();
    iconv(pair.decoder, nullptr, nullptr, &target, &outLeft);
    appendLittleEndianUnits(out, buffer.data(), target);
    return out;
}

EncodedText iconvEncode(IconvPair& pair, std::u16string_view text) {
    EncodedText result;
    std::string units;
    units.reserve(text.size() * 2);
    for (const char16_t unit : text) {
        units.push_back(static_cast<char>(unit & 0xFF));
        units.push_back(static_cast<char>(unit >> 8));
    }
    iconv(pair.encoder, nullptr, nullptr, nullptr, nullptr);
    char* in = units.data();
    std::size_t inLeft = units.size();
    std::vector<char> buffer(16'384);
    while (inLeft > 0) {
        char* target = buffer.data();
        std::size_t outLeft = buffer.size();
        const std::size_t done = iconv(pair.encoder, &in, &inLeft, &target, &outLeft);
        result.bytes.insert(result.bytes.end(), buffer.data(), target);
        if (done != static_cast<std::size_t>(-1) || errno == E2BIG) continue;
        // A character the set lacks: "?" for it, then the next character.
        ++result.unwritable;
        result.bytes.insert(result.bytes.end(), pair.question.begin(), pair.question.end());
        const auto unit = static_cast<char16_t>(static_cast<std::uint8_t>(in[0]) | (static_cast<std::uint8_t>(in[1]) << 8));
        const std::size_t skip = unit >= 0xD800 && unit <= 0xDBFF && inLeft >= 4 ? 4 : 2;
        in += std::min(skip, inLeft);
        inLeft -= std::min(skip, inLeft);
    }
    char* target = buffer.data();
    std::size_t outLeft = buffer.size();
    iconv(pair.encoder, nullptr, nullptr, &target, &outLeft);
    result.bytes.insert(result.bytes.end(), buffer.data(), target);
    return result;
}

} // namespace

std::optional<std::u16string> decode(const std::string& name, std::span<const std::uint8_t> bytes, Reading reading) {
    if (bytes.empty()) return std::u16string();
    if (isIconvName(name)) {
        IconvPair& pair = iconvPair(name);
        if (pair.usable()) return iconvDecode(pair, bytes, reading);
    } else if (UConverter* converter = icuConverter(name)) {
        return icuDecode(converter, bytes, reading);
    }
    if (reading == Reading::strict) return std::nullopt;
    return std::u16string(bytes.size(), u'\uFFFD');
}

EncodedText encode(const std::string& name, std::u16string_view text) {
    if (text.empty()) return {};
    if (isIconvName(name)) {
        IconvPair& pair = iconvPair(name);
        if (pair.usable()) return iconvEncode(pair, text);
    } else if (UConverter* converter = icuConverter(name)) {
        return icuEncode(converter, text);
    }
    EncodedText lost;
    const auto scalars = UnicodeText::toScalars(text);
    lost.bytes.assign(scalars.size(), '?');
    lost.unwritable = static_cast<std::int64_t>(scalars.size());
    return lost;
}

bool exists(const std::string& name) {
    if (isIconvName(name)) return iconvPair(name).usable();
    return icuConverter(name) != nullptr;
}

bool isSingleByte(const std::string& name) {
    static std::mutex lock;
    static std::unordered_map<std::string, bool> answers;   // guarded by lock
    {
        std::lock_guard guard(lock);
        if (const auto found = answers.find(name); found != answers.end()) return found->second;
    }
    bool single = false;
    if (isIconvName(name)) {
        // glibc cannot be asked: every byte alone must read as at most one unit, and all of them
        // together as one unit each.
        std::vector<std::uint8_t> everyByte(256);
        for (std::size_t b = 0; b < 256; ++b) everyByte[b] = static_cast<std::uint8_t>(b);
        const auto whole = decode(name, everyByte, Reading::repairing);
        single = whole && whole->size() == 256;
    } else if (UConverter* converter = icuConverter(name)) {
        const UConverterType type = ucnv_getType(converter);
        single = ucnv_getMaxCharSize(converter) == 1 &&
                 (type == UCNV_SBCS || type == UCNV_LATIN_1 || type == UCNV_US_ASCII || type == UCNV_MBCS);
    }
    std::lock_guard guard(lock);
    answers[name] = single;
    return single;
}

} // namespace brim::SystemConverter
