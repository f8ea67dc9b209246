#include "charsets/Transcoder.h"

#include "bytes/MappedSource.h"
#include "charsets/Charsets.h"
#include "charsets/DoubleByteCodec.h"
#include "common/Localization.h"
#include "common/UserResources.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iconv.h>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <thread>
#include <unordered_map>
#include <utility>

namespace brim::Transcoder {

namespace {

constexpr std::size_t maxExamples = 10;
constexpr std::array<std::uint8_t, 3> replacementUTF8 = {0xEF, 0xBF, 0xBD};

// MARK: small Unicode helpers

bool isHighSurrogate(std::uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(std::uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void appendUTF8(std::vector<std::uint8_t>& out, char32_t scalar) {
    if (scalar < 0x80) {
        out.push_back(static_cast<std::uint8_t>(scalar));
    } else if (scalar < 0x800) {
        out.push_back(static_cast<std::uint8_t>(0xC0 | (scalar >> 6)));
        out.push_back(static_cast<std::uint8_t>(0x80 | (scalar & 0x3F)));
    } else if (scalar < 0x10000) {
        if (isHighSurrogate(scalar) || isLowSurrogate(scalar)) {
            out.insert(out.end(), replacementUTF8.begin(), replacementUTF8.end());
            return;
        }
        out.push_back(static_cast<std::uint8_t>(0xE0 | (scalar >> 12)));
        out.push_back(static_cast<std::uint8_t>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<std::uint8_t>(0x80 | (scalar & 0x3F)));
    } else if (scalar <= 0x10FFFF) {
        out.push_back(static_cast<std::uint8_t>(0xF0 | (scalar >> 18)));
        out.push_back(static_cast<std::uint8_t>(0x80 | ((scalar >> 12) & 0x3F)));
        out.push_back(static_cast<std::uint8_t>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<std::uint8_t>(0x80 | (scalar & 0x3F)));
    } else {
        out.insert(out.end(), replacementUTF8.begin(), replacementUTF8.end());
    }
}

std::string utf8String(char32_t scalar) {
    std::vector<std::uint8_t> bytes;
    appendUTF8(bytes, scalar);
    return {bytes.begin(), bytes.end()};
}

/// UTF-16 text to UTF-8; a lone surrogate becomes U+FFFD.
void appendUTF16AsUTF8(std::vector<std::uint8_t>& out, std::u16string_view text) {
    const std::size_t count = text.size();
    for (std::size_t i = 0; i < count; ++i) {
        const char16_t unit = text[i];
        if (unit < 0x80) {
            out.push_back(static_cast<std::uint8_t>(unit));
        } else if (isHighSurrogate(unit) && i + 1 < count && isLowSurrogate(text[i + 1])) {
            appendUTF8(out, 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) + (text[i + 1] - 0xDC00u));
            ++i;
        } else {
            appendUTF8(out, unit);
        }
    }
}

/// Reads one UTF-8 scalar at `p`. Returns its length; 0 when the bytes end inside a well-begun
/// sequence; -1 for an ill-formed byte (read as U+FFFD, one byte consumed).
int readUTF8(const std::uint8_t* p, std::size_t available, char32_t& scalar) {
    const std::uint8_t lead = p[0];
    if (lead < 0x80) {
        scalar = lead;
        return 1;
    }
    int length = 0;
    char32_t value = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0Fu;
        if (lead == 0xE0) {
            low = 0xA0;
        } else if (lead == 0xED) {
            high = 0x9F;
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07u;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;
        }
    } else {
        scalar = 0xFFFD;
        return -1;
    }
    for (int k = 1; k < length; ++k) {
        if (static_cast<std::size_t>(k) >= available) {
            return 0;
        }
        const std::uint8_t byte = p[k];
        if (byte < (k == 1 ? low : 0x80) || byte > (k == 1 ? high : 0xBF)) {
            scalar = 0xFFFD;
            return -1;
        }
        value = (value << 6) | (byte & 0x3Fu);
    }
    scalar = value;
    return length;
}

void noteInvalid(ConversionReport& report, std::int64_t offset) {
    ++report.invalid;
    if (!report.firstInvalidOffset) {
        report.firstInvalidOffset = offset;
    }
}

void noteUnwritable(ConversionReport& report, char32_t scalar) {
    ++report.unwritable;
    if (report.unwritableExamples.size() < maxExamples) {
        std::string example = utf8String(scalar);
        if (std::find(report.unwritableExamples.begin(), report.unwritableExamples.end(), example) ==
            report.unwritableExamples.end()) {
            report.unwritableExamples.push_back(std::move(example));
        }
    }
}

// MARK: what kind of set

bool isUTF8(const TextEncoding& encoding) { return encoding.id == "utf8"; }

bool isICUName(const std::string& name) { return !name.empty() && !name.starts_with("iconv:"); }

bool icuConverterIsStateful(const std::string& name) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(name.c_str(), &status);
    if (U_FAILURE(status)) {
        return false;
    }
    const UConverterType type = ucnv_getType(converter);
    ucnv_close(converter);
    switch (type) {
    case UCNV_ISO_2022:
    case UCNV_HZ:
    case UCNV_UTF7:
    case UCNV_IMAP_MAILBOX:
    case UCNV_ISCII:
    case UCNV_LMBCS_1:
    case UCNV_SCSU:
    case UCNV_BOCU1:
    case UCNV_COMPOUND_TEXT:
    case UCNV_EBCDIC_STATEFUL:
        return true;
    default:
        return false;
    }
}

/// Whether escape or shift sequences change what later bytes mean.
bool isStatefulSet(const TextEncoding& encoding) {
    if (encoding.stateful) {
        return true;
    }
    if (const Charsets::Entry* entry = Charsets::entry(encoding.id); entry != nullptr && entry->isStateful) {
        return true;
    }
    if (isICUName(encoding.converterName)) {
        static std::mutex cacheLock;
        static std::map<std::string, bool> cache;   // guarded by cacheLock
        std::lock_guard lock(cacheLock);
        auto [found, inserted] = cache.try_emplace(encoding.converterName, false);
        if (inserted) {
            found->second = icuConverterIsStateful(encoding.converterName);
        }
        return found->second;
    }
    return false;
}

/// Line breaks can be found and written as bytes without decoding: CR and LF are never part of
/// another character and no shift state changes their meaning.
bool breaksAreBytes(const TextEncoding& encoding) {
    return isUTF8(encoding) ||
           (encoding.asciiCompatible && !encoding.isEBCDIC() && !encoding.unicodeUnitWidth() && !isStatefulSet(encoding));
}

// MARK: the two sides of a conversion

} // namespace

/// One side of a `BlockConverter`: a decoder (bytes in a set to UTF-8) or an encoder (UTF-8 to bytes in
/// a set). Input that ends inside a character is held and joined to the next call.
class BlockConverter::Side {
public:
    virtual ~Side() = default;
    virtual void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) = 0;
    virtual void finish(std::vector<std::uint8_t>& out, ConversionReport& report) = 0;
    [[nodiscard]] virtual std::int64_t pending() const = 0;
    [[nodiscard]] virtual bool isAtCleanCut() const { return pending() == 0; }
    /// Counts input from `consumed` on, for the offsets of what cannot be read.
    void startAt(std::int64_t consumed) { consumed_ = consumed; }

protected:
    std::int64_t consumed_ = 0;      // input bytes seen before this call, for error offsets
};

namespace {

using Side = BlockConverter::Side;

/// Joins held-back bytes to a new block without copying the block when nothing is held.
class Joined {
public:
    Joined(std::vector<std::uint8_t>& held, std::span<const std::uint8_t> in) {
        if (held.empty()) {
            view_ = in;
        } else {
            held.insert(held.end(), in.begin(), in.end());
            storage_.swap(held);
            view_ = storage_;
        }
    }
    [[nodiscard]] std::span<const std::uint8_t> bytes() const { return view_; }

private:
    std::vector<std::uint8_t> storage_;
    std::span<const std::uint8_t> view_;
};

/// Room to write into without clearing it first: a vector's `resize` would fill every byte with zero
/// before the converter overwrites it, which costs as much as the conversion itself.
class RawBuffer {
public:
    std::uint8_t* reserve(std::size_t count) {
        if (count > capacity_) {
            data_ = std::make_unique_for_overwrite<std::uint8_t[]>(count);
            capacity_ = count;
        }
        return data_.get();
    }
    void appendTo(std::vector<std::uint8_t>& out, const std::uint8_t* end) const {
        out.insert(out.end(), static_cast<const std::uint8_t*>(data_.get()), end);
    }

private:
    std::unique_ptr<std::uint8_t[]> data_;
    std::size_t capacity_ = 0;
};

// Single-byte sets: every byte's UTF-8 looked up in a table built once per set. A set with two-byte
// codes marks their lead bytes; a lead byte followed by a pair's second byte reads as the pair.
struct ByteTable {
    struct Pair {
        std::uint8_t trail = 0;
        std::uint8_t length = 0;
        std::array<std::uint8_t, 16> utf8{};
    };
    std::array<std::array<std::uint8_t, 16>, 256> utf8{};
    std::array<std::uint8_t, 256> length{};
    std::array<bool, 256> invalid{};
    std::array<bool, 256> isLead{};
    std::array<std::vector<Pair>, 256> pairs;       // by lead byte; a handful at most
    bool hasPairs = false;
    bool asciiIdentity = true;
};

std::shared_ptr<const ByteTable> byteTableFor(const TextEncoding& encoding) {
    static std::mutex cacheLock;
    static std::map<std::string, std::shared_ptr<const ByteTable>> cache;    // guarded by cacheLock
    {
        std::lock_guard lock(cacheLock);
        if (auto found = cache.find(encoding.id); found != cache.end()) {
            return found->second;
        }
    }
    auto table = std::make_shared<ByteTable>();
    for (unsigned byte = 0; byte < 256; ++byte) {
        std::vector<std::uint8_t> text;
        bool bad = false;
        if (encoding.table) {
            if (encoding.expansions && encoding.expansions->contains(static_cast<std::uint8_t>(byte))) {
                appendUTF16AsUTF8(text, encoding.expansions->at(static_cast<std::uint8_t>(byte)));
            } else {
                const std::uint16_t unit = (*encoding.table)[byte];
                bad = unit == 0xFFFD || isHighSurrogate(unit) || isLowSurrogate(unit);
                appendUTF8(text, bad ? 0xFFFD : unit);
            }
        } else {
            const std::uint8_t single = static_cast<std::uint8_t>(byte);
            const std::string decoded = encoding.decode(std::span<const std::uint8_t>(&single, 1));
            text.assign(decoded.begin(), decoded.end());
            bad = decoded == "\xEF\xBF\xBD";
        }
        if (text.empty() || text.size() > 16) {
            text.assign(replacementUTF8.begin(), replacementUTF8.end());
            bad = true;
        }
        std::copy(text.begin(), text.end(), table->utf8[byte].begin());
        table->length[byte] = static_cast<std::uint8_t>(text.size());
        table->invalid[byte] = bad;
        if (byte < 0x80 && (text.size() != 1 || text[0] != byte)) {
            table->asciiIdentity = false;
        }
    }
    if (encoding.table && encoding.pairs) {
        for (const auto& [code, units] : *encoding.pairs) {
            std::vector<std::uint8_t> text;
            appendUTF16AsUTF8(text, units);
            ByteTable::Pair pair;
            pair.trail = static_cast<std::uint8_t>(code);
            if (text.empty() || text.size() > pair.utf8.size()) {
                continue;   // cannot happen with the generated tables: a pair is a character or two
            }
            std::copy(text.begin(), text.end(), pair.utf8.begin());
            pair.length = static_cast<std::uint8_t>(text.size());
            const auto lead = static_cast<std::uint8_t>(code >> 8);
            table->pairs[lead].push_back(pair);
            table->isLead[lead] = true;
            table->hasPairs = true;
            if (lead < 0x80) {
                table->asciiIdentity = false;
            }
        }
    }
    std::lock_guard lock(cacheLock);
    return cache.try_emplace(encoding.id, std::move(table)).first->second;
}

/// A decoder that may leave the last bytes of a block unread until the next block says what they
/// are: they are held and read again at the front of the next one, or as they stand at the end.
class HoldingDecoder : public Side {
public:
    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        const std::int64_t base = consumed_ - static_cast<std::int64_t>(bytes.size() - in.size());
        held_.clear();
        const std::size_t used = run(bytes, out, report, base, false);
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(used), bytes.end());
        consumed_ += static_cast<std::int64_t>(in.size());
    }
    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        std::vector<std::uint8_t> rest;
        rest.swap(held_);
        run(rest, out, report, consumed_ - static_cast<std::int64_t>(rest.size()), true);
    }
    [[nodiscard]] std::int64_t pending() const override { return static_cast<std::int64_t>(held_.size()); }

protected:
    /// Converts `in`, whose first byte is input offset `base`; returns the bytes used. Unless `final`,
    /// bytes at the end that the next block may complete are left unused.
    virtual std::size_t run(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out,
                            ConversionReport& report, std::int64_t base, bool final) = 0;

private:
    std::vector<std::uint8_t> held_;
};

class TableDecoder final : public HoldingDecoder {
public:
    explicit TableDecoder(std::shared_ptr<const ByteTable> table) : table_(std::move(table)) {
        for (std::uint8_t length : table_->length) {
            longest_ = std::max<std::size_t>(longest_, length);
        }
        for (const auto& pairs : table_->pairs) {
            for (const ByteTable::Pair& pair : pairs) {
                longest_ = std::max<std::size_t>(longest_, (pair.length + 1U) / 2U);
            }
        }
    }

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        if (!table_->hasPairs) {
            run(in, out, report, consumed_, true);
            consumed_ += static_cast<std::int64_t>(in.size());
            return;
        }
        // A lead byte at the very end waits for the next block, which says whether it starts a pair.
        HoldingDecoder::convert(in, out, report);
    }

protected:
    /// Unless `final`, a lead byte at the end is left unused.
    std::size_t run(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report,
                    std::int64_t base, bool final) override {
        const ByteTable& table = *table_;
        // Each entry is copied as 16 bytes and the pointer moved by its length: room for the overhang.
        std::uint8_t* const begin = buffer_.reserve(in.size() * longest_ + 16);
        std::uint8_t* write = begin;
        const std::uint8_t* read = in.data();
        const std::uint8_t* end = read + in.size();
        while (read < end) {
            if (table.asciiIdentity && end - read >= 8) {
                std::uint64_t word = 0;
                std::memcpy(&word, read, 8);
                if ((word & 0x8080808080808080ULL) == 0) {
                    std::memcpy(write, read, 8);
                    read += 8;
                    write += 8;
                    continue;
                }
            }
            const std::uint8_t byte = *read;
            if (table.isLead[byte]) {
                if (read + 1 == end) {
                    if (!final) {
                        break;
                    }
                } else if (const ByteTable::Pair* pair = pairFor(byte, read[1])) {
                    std::memcpy(write, pair->utf8.data(), 16);
                    write += pair->length;
                    read += 2;
                    continue;
                }
            }
            if (table.invalid[byte]) {
                noteInvalid(report, base + (read - in.data()));
            }
            std::memcpy(write, table.utf8[byte].data(), 16);
            write += table.length[byte];
            ++read;
        }
        buffer_.appendTo(out, write);
        return static_cast<std::size_t>(read - in.data());
    }

    [[nodiscard]] const ByteTable::Pair* pairFor(std::uint8_t lead, std::uint8_t trail) const {
        for (const ByteTable::Pair& pair : table_->pairs[lead]) {
            if (pair.trail == trail) {
                return &pair;
            }
        }
        return nullptr;
    }

    std::shared_ptr<const ByteTable> table_;
    std::size_t longest_ = 1;
    RawBuffer buffer_;
};

std::uint8_t* writeUTF8(std::uint8_t* write, char32_t scalar) {
    if (scalar < 0x80) {
        *write++ = static_cast<std::uint8_t>(scalar);
    } else if (scalar < 0x800) {
        *write++ = static_cast<std::uint8_t>(0xC0 | (scalar >> 6));
        *write++ = static_cast<std::uint8_t>(0x80 | (scalar & 0x3F));
    } else if (scalar < 0x10000) {
        *write++ = static_cast<std::uint8_t>(0xE0 | (scalar >> 12));
        *write++ = static_cast<std::uint8_t>(0x80 | ((scalar >> 6) & 0x3F));
        *write++ = static_cast<std::uint8_t>(0x80 | (scalar & 0x3F));
    } else {
        *write++ = static_cast<std::uint8_t>(0xF0 | (scalar >> 18));
        *write++ = static_cast<std::uint8_t>(0x80 | ((scalar >> 12) & 0x3F));
        *write++ = static_cast<std::uint8_t>(0x80 | ((scalar >> 6) & 0x3F));
        *write++ = static_cast<std::uint8_t>(0x80 | (scalar & 0x3F));
    }
    return write;
}

class UTFDecoder final : public Side {
public:
    UTFDecoder(int width, bool bigEndian) : width_(width), bigEndian_(bigEndian) {}

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        const std::int64_t base = consumed_ - static_cast<std::int64_t>(bytes.size() - in.size());
        held_.clear();
        // At most three bytes of UTF-8 for two of UTF-16, four for four.
        std::uint8_t* const begin = buffer_.reserve(bytes.size() * 2 + 16);
        std::uint8_t* write = begin;
        const std::size_t w = static_cast<std::size_t>(width_);
        const std::uint8_t* data = bytes.data();
        std::size_t i = 0;
        const std::size_t count = bytes.size();
        const bool fastASCII = width_ == 2 && !bigEndian_;
        if (width_ == 2) {
            i = bigEndian_ ? decode16<true>(data, count, write, report, base)
                           : decode16<false>(data, count, write, report, base);
        }
        while (i + w <= count) {
            if (fastASCII && i + 8 <= count) {
                std::uint64_t word = 0;
                std::memcpy(&word, data + i, 8);
                if ((word & 0xFF80FF80FF80FF80ULL) == 0) {
                    write[0] = data[i];
                    write[1] = data[i + 2];
                    write[2] = data[i + 4];
                    write[3] = data[i + 6];
                    write += 4;
                    i += 8;
                    continue;
                }
            }
            const std::uint32_t unit = read(data + i);
            if (width_ == 2) {
                if (unit < 0xD800 || unit > 0xDFFF) {
                    write = writeUTF8(write, unit);
                    i += 2;
                    continue;
                }
                if (isHighSurrogate(unit)) {
                    if (i + 4 > count) {
                        break;      // the low half is in the next block
                    }
                    const std::uint32_t low = read(data + i + 2);
                    if (isLowSurrogate(low)) {
                        write = writeUTF8(write, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
                        i += 4;
                        continue;
                    }
                }
                noteInvalid(report, base + static_cast<std::int64_t>(i));
                write = writeUTF8(write, 0xFFFD);
                i += 2;
            } else {
                if (unit > 0x10FFFF || isHighSurrogate(unit) || isLowSurrogate(unit)) {
                    noteInvalid(report, base + static_cast<std::int64_t>(i));
                    write = writeUTF8(write, 0xFFFD);
                } else {
                    write = writeUTF8(write, unit);
                }
                i += 4;
            }
        }
        buffer_.appendTo(out, write);
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(i), bytes.end());
        consumed_ += static_cast<std::int64_t>(in.size());
    }

    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        if (!held_.empty()) {
            // A high surrogate with nothing after it, or bytes short of a whole unit.
            noteInvalid(report, consumed_ - static_cast<std::int64_t>(held_.size()));
            out.insert(out.end(), replacementUTF8.begin(), replacementUTF8.end());
            held_.clear();
        }
    }
    [[nodiscard]] std::int64_t pending() const override { return static_cast<std::int64_t>(held_.size()); }

private:
    /// UTF-16 to UTF-8 as far as whole characters go; returns where it stopped (a high surrogate whose
    /// low half is in the next block, or an odd byte). Plain text goes four units at a time; inside a
    /// run of other characters the test for plain text is not made again until one comes.
    template <bool bigEndian>
    std::size_t decode16(const std::uint8_t* data, std::size_t count, std::uint8_t*& out, ConversionReport& report,
                         std::int64_t base) {
        constexpr std::uint64_t highBits = bigEndian ? 0x80FF80FF80FF80FFULL : 0xFF80FF80FF80FF80ULL;
        constexpr int low = bigEndian ? 1 : 0;
        std::uint8_t* write = out;
        std::size_t i = 0;
        bool plain = true;
        while (i + 2 <= count) {
            if (plain && i + 8 <= count) {
                std::uint64_t word = 0;
                std::memcpy(&word, data + i, 8);
                if ((word & highBits) == 0) {
                    write[0] = data[i + low];
                    write[1] = data[i + 2 + low];
                    write[2] = data[i + 4 + low];
                    write[3] = data[i + 6 + low];
                    write += 4;
                    i += 8;
                    continue;
                }
            }
            const std::uint32_t unit = bigEndian ? (std::uint32_t{data[i]} << 8 | data[i + 1])
                                                 : (std::uint32_t{data[i + 1]} << 8 | data[i]);
            plain = unit < 0x80;
            if (unit < 0x80) {
                *write++ = static_cast<std::uint8_t>(unit);
                i += 2;
            } else if (unit < 0x800) {
                write[0] = static_cast<std::uint8_t>(0xC0 | (unit >> 6));
                write[1] = static_cast<std::uint8_t>(0x80 | (unit & 0x3F));
                write += 2;
                i += 2;
            } else if (unit - 0xD800 >= 0x800) {
                write[0] = static_cast<std::uint8_t>(0xE0 | (unit >> 12));
                write[1] = static_cast<std::uint8_t>(0x80 | ((unit >> 6) & 0x3F));
                write[2] = static_cast<std::uint8_t>(0x80 | (unit & 0x3F));
                write += 3;
                i += 2;
            } else {
                if (isHighSurrogate(unit)) {
                    if (i + 4 > count) {
                        break;      // the low half is in the next block
                    }
                    const std::uint32_t second = bigEndian ? (std::uint32_t{data[i + 2]} << 8 | data[i + 3])
                                                           : (std::uint32_t{data[i + 3]} << 8 | data[i + 2]);
                    if (isLowSurrogate(second)) {
                        write = writeUTF8(write, 0x10000 + ((unit - 0xD800) << 10) + (second - 0xDC00));
                        i += 4;
                        continue;
                    }
                }
                noteInvalid(report, base + static_cast<std::int64_t>(i));
                write = writeUTF8(write, 0xFFFD);
                i += 2;
            }
        }
        out = write;
        return i;
    }

    [[nodiscard]] std::uint32_t read(const std::uint8_t* p) const {
        if (width_ == 2) {
            return bigEndian_ ? (std::uint32_t{p[0]} << 8 | p[1]) : (std::uint32_t{p[1]} << 8 | p[0]);
        }
        return bigEndian_ ? (std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3])
                          : (std::uint32_t{p[3]} << 24 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[1]} << 8 | p[0]);
    }

    int width_;
    bool bigEndian_;
    std::vector<std::uint8_t> held_;
    RawBuffer buffer_;
};

class DoubleByteDecoder final : public Side {
public:
    explicit DoubleByteDecoder(const DoubleByteCodec& codec) : codec_(codec) {}

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        held_.clear();
        units_.clear();
        std::size_t invalid = 0;
        const std::size_t used = codec_.decode(bytes, false, units_, invalid);
        for (std::size_t k = 0; k < invalid; ++k) {
            noteInvalid(report, consumed_);
        }
        appendUTF16AsUTF8(out, units_);
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(used), bytes.end());
        consumed_ += static_cast<std::int64_t>(in.size());
    }
    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        units_.clear();
        std::size_t invalid = 0;
        codec_.decode(held_, true, units_, invalid);
        for (std::size_t k = 0; k < invalid; ++k) {
            noteInvalid(report, consumed_ - static_cast<std::int64_t>(held_.size()));
        }
        appendUTF16AsUTF8(out, units_);
        held_.clear();
    }
    [[nodiscard]] std::int64_t pending() const override { return static_cast<std::int64_t>(held_.size()); }

private:
    const DoubleByteCodec& codec_;
    std::vector<std::uint8_t> held_;
    std::u16string units_;
};

// MARK: ICU

struct ICUCallbackContext {
    ConversionReport* report = nullptr;
    std::int64_t base = 0;
};

void toUnicodeCallback(const void* context, UConverterToUnicodeArgs* args, const char* /*codeUnits*/,
                       int32_t /*length*/, UConverterCallbackReason reason, UErrorCode* status) {
    if (reason > UCNV_IRREGULAR) {
        return;
    }
    const auto* callback = static_cast<const ICUCallbackContext*>(context);
    if (callback != nullptr && callback->report != nullptr) {
        noteInvalid(*callback->report, callback->base);
    }
    *status = U_ZERO_ERROR;
    const UChar replacement = 0xFFFD;
    ucnv_cbToUWriteUChars(args, &replacement, 1, 0, status);
}

void fromUnicodeCallback(const void* context, UConverterFromUnicodeArgs* args, const UChar* /*codeUnits*/,
                         int32_t /*length*/, UChar32 codePoint, UConverterCallbackReason reason, UErrorCode* status) {
    if (reason > UCNV_IRREGULAR) {
        return;
    }
    const auto* callback = static_cast<const ICUCallbackContext*>(context);
    if (callback != nullptr && callback->report != nullptr) {
        noteUnwritable(*callback->report,
                       codePoint < 0 || isHighSurrogate(static_cast<std::uint32_t>(codePoint)) ||
                               isLowSurrogate(static_cast<std::uint32_t>(codePoint))
                           ? char32_t{0xFFFD}
                           : static_cast<char32_t>(codePoint));
    }
    *status = U_ZERO_ERROR;
    ucnv_cbFromUWriteSub(args, 0, status);
}

struct ConverterCloser {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using ConverterPointer = std::unique_ptr<UConverter, ConverterCloser>;

ConverterPointer openICU(const std::string& name) {
    UErrorCode status = U_ZERO_ERROR;
    ConverterPointer converter(ucnv_open(name.c_str(), &status));
    if (U_FAILURE(status)) {
        return nullptr;
    }
    return converter;
}

/// Sets the substitution to the set's own "?": ICU's default is not a question mark.
void useQuestionMark(UConverter* converter) {
    UErrorCode status = U_ZERO_ERROR;
    ConverterPointer probe(ucnv_clone(converter, &status));
    if (U_FAILURE(status)) {
        return;
    }
    ucnv_reset(probe.get());
    char bytes[16];
    const UChar question = u'?';
    const int32_t length = ucnv_fromUChars(probe.get(), bytes, sizeof bytes, &question, 1, &status);
    if (U_SUCCESS(status) && length > 0) {
        status = U_ZERO_ERROR;
        ucnv_setSubstChars(converter, bytes, static_cast<int8_t>(length), &status);
    }
}

/// ICU converter to or from UTF-8, with one pivot buffer kept across blocks so that state and partial
/// characters carry over.
class ICUSide final : public Side {
public:
    ICUSide(ConverterPointer set, bool decoding, bool stateful)
        : set_(std::move(set)), utf8_(openICU("UTF-8")), decoding_(decoding), stateful_(stateful) {
        UErrorCode status = U_ZERO_ERROR;
        if (decoding_) {
            ucnv_setToUCallBack(set_.get(), toUnicodeCallback, &context_, nullptr, nullptr, &status);
        } else {
            useQuestionMark(set_.get());
            ucnv_setFromUCallBack(set_.get(), fromUnicodeCallback, &context_, nullptr, nullptr, &status);
            // Ill-formed UTF-8 reaches the set as U+FFFD, which is then counted if it cannot be written.
            dropOpeningASCIIShift_ = ucnv_getType(set_.get()) == UCNV_HZ;
        }
    }

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        const std::size_t start = out.size();
        run(in, out, report, false);
        dropOpeningShift(out, start);
    }
    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        const std::size_t start = out.size();
        run({}, out, report, true);
        dropOpeningShift(out, start);
    }

    [[nodiscard]] std::int64_t pending() const override {
        UErrorCode status = U_ZERO_ERROR;
        const int32_t count = decoding_ ? ucnv_toUCountPending(set_.get(), &status)
                                        : ucnv_toUCountPending(utf8_.get(), &status);
        return U_SUCCESS(status) && count > 0 ? count : 0;
    }
    [[nodiscard]] bool isAtCleanCut() const override { return !stateful_ && pending() == 0; }

private:
    /// HZ starts in ASCII, yet its converter opens every stream with "~}", the switch to ASCII. Left
    /// out, so that a stretch written on its own (saving between checkpoints) is the same bytes as the
    /// same stretch in the middle of the whole file.
    void dropOpeningShift(std::vector<std::uint8_t>& out, std::size_t start) {
        if (!dropOpeningASCIIShift_ || out.size() == start) {
            return;
        }
        dropOpeningASCIIShift_ = false;
        if (out.size() - start >= 2 && out[start] == '~' && out[start + 1] == '}') {
            out.erase(out.begin() + static_cast<std::ptrdiff_t>(start), out.begin() + static_cast<std::ptrdiff_t>(start) + 2);
        }
    }

    void run(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report, bool flush) {
        context_.report = &report;
        context_.base = consumed_;
        UConverter* source = decoding_ ? set_.get() : utf8_.get();
        UConverter* target = decoding_ ? utf8_.get() : set_.get();
        // ICU refuses a null source even when it is empty.
        static constexpr char nothing = 0;
        const char* read = in.empty() ? &nothing : reinterpret_cast<const char*>(in.data());
        const char* readEnd = read + in.size();
        std::size_t room = in.size() * (decoding_ ? 3 : 2) + 64;
        // Never `reset`: ucnv_convertEx skips the target's pending output (ISO-2022-KR's header,
        // placed there when the converter opened) on a call that resets. Both converters start fresh.
        const bool reset = false;
        while (true) {
            const std::size_t start = out.size();
            out.resize(start + room);
            char* write = reinterpret_cast<char*>(out.data() + start);
            char* writeEnd = reinterpret_cast<char*>(out.data() + out.size());
            UErrorCode status = U_ZERO_ERROR;
            ucnv_convertEx(target, source, &write, writeEnd, &read, readEnd, pivot_.data(), &pivotSource_,
                           &pivotTarget_, pivot_.data() + pivot_.size(), reset, flush, &status);
            out.resize(static_cast<std::size_t>(reinterpret_cast<std::uint8_t*>(write) - out.data()));
            if (status == U_BUFFER_OVERFLOW_ERROR) {
                room = room * 2;
                continue;
            }
            if (U_FAILURE(status)) {
                // Not expected with substituting callbacks: what could not be converted is one
                // U+FFFD read, or one "?" written.
                if (decoding_) {
                    noteInvalid(report, consumed_);
                    out.insert(out.end(), replacementUTF8.begin(), replacementUTF8.end());
                } else {
                    noteUnwritable(report, 0xFFFD);
                    out.push_back('?');
                }
                ucnv_reset(source);
                ucnv_reset(target);
                pivotSource_ = pivotTarget_ = pivot_.data();
            }
            break;
        }
        consumed_ += static_cast<std::int64_t>(in.size());
    }

    ConverterPointer set_;
    ConverterPointer utf8_;
    bool decoding_;
    bool stateful_;
    bool dropOpeningASCIIShift_ = false;
    ICUCallbackContext context_;
    std::array<UChar, 8192> pivot_{};
    UChar* pivotSource_ = pivot_.data();
    UChar* pivotTarget_ = pivot_.data();
};

// MARK: double-byte system converters through a table

/// What a stateless ICU converter of one- and two-byte characters reads, taken from the converter once
/// per set: each single byte, and each pair after a lead byte. ICU reads a pair the same wherever it
/// stands, so the table gives exactly ICU's text, including where an unreadable lead byte leaves its
/// second byte to be read again, at table speed.
struct PairTable {
    struct Entry {
        std::array<std::uint8_t, 11> utf8{};
        std::uint8_t length = 0;
        std::uint8_t consumed = 1;      // 2 for a pair read as one; 1 when the second byte is read again
        bool invalid = false;
    };
    std::array<bool, 256> isLead{};
    std::array<Entry, 256> single{};    // a lone byte; for a lead byte, what it reads as at the very end
    std::vector<Entry> pairs = std::vector<Entry>(65'536);
    bool asciiIdentity = true;
};

/// ICU's reading of `bytes`, as UTF-16 units with the index of the byte each came from.
void readWithOffsets(UConverter* converter, std::span<const std::uint8_t> bytes, bool flush, std::u16string& units,
                     std::vector<int32_t>& offsets, int32_t& pendingBytes) {
    ucnv_reset(converter);
    std::array<UChar, 16> target{};
    std::array<int32_t, 16> sourceOffsets{};
    UChar* write = target.data();
    const char* read = reinterpret_cast<const char*>(bytes.data());
    UErrorCode status = U_ZERO_ERROR;
    ucnv_toUnicode(converter, &write, target.data() + target.size(), &read, read + bytes.size(), sourceOffsets.data(),
                   flush, &status);
    const auto count = static_cast<std::size_t>(write - target.data());
    units.assign(target.data(), count);
    offsets.assign(sourceOffsets.begin(), sourceOffsets.begin() + static_cast<std::ptrdiff_t>(count));
    status = U_ZERO_ERROR;
    pendingBytes = flush ? 0 : ucnv_toUCountPending(converter, &status);
}

PairTable::Entry entryFor(std::u16string_view units, std::uint8_t consumed) {
    PairTable::Entry entry;
    std::vector<std::uint8_t> utf8;
    appendUTF16AsUTF8(utf8, units);
    if (utf8.size() > entry.utf8.size()) {
        utf8.assign(replacementUTF8.begin(), replacementUTF8.end());
    }
    std::copy(utf8.begin(), utf8.end(), entry.utf8.begin());
    entry.length = static_cast<std::uint8_t>(utf8.size());
    entry.consumed = consumed;
    entry.invalid = units.find(u'\uFFFD') != std::u16string_view::npos;
    return entry;
}

std::shared_ptr<const PairTable> pairTableFor(const std::string& name) {
    static std::mutex cacheLock;
    static std::map<std::string, std::shared_ptr<const PairTable>> cache;    // guarded by cacheLock
    std::lock_guard lock(cacheLock);
    if (auto found = cache.find(name); found != cache.end()) {
        return found->second;
    }
    std::shared_ptr<const PairTable> result;
    ConverterPointer converter = openICU(name);
    if (converter && ucnv_getMaxCharSize(converter.get()) == 2 && ucnv_getMinCharSize(converter.get()) == 1 &&
        (ucnv_getType(converter.get()) == UCNV_MBCS || ucnv_getType(converter.get()) == UCNV_DBCS)) {
        UErrorCode status = U_ZERO_ERROR;
        ucnv_setToUCallBack(converter.get(), toUnicodeCallback, nullptr, nullptr, nullptr, &status);
        auto table = std::make_shared<PairTable>();
        std::u16string units;
        std::vector<int32_t> offsets;
        int32_t pendingBytes = 0;
        for (unsigned byte = 0; byte < 256; ++byte) {
            const std::uint8_t single[] = {static_cast<std::uint8_t>(byte)};
            readWithOffsets(converter.get(), single, false, units, offsets, pendingBytes);
            table->isLead[byte] = pendingBytes > 0;
            readWithOffsets(converter.get(), single, true, units, offsets, pendingBytes);
            table->single[byte] = entryFor(units, 1);
            if (byte < 0x80 && (table->isLead[byte] || units.size() != 1 || units[0] != byte)) {
                table->asciiIdentity = false;
            }
        }
        for (unsigned lead = 0; lead < 256; ++lead) {
            if (!table->isLead[lead]) {
                continue;
            }
            for (unsigned trail = 0; trail < 256; ++trail) {
                const std::uint8_t pair[] = {static_cast<std::uint8_t>(lead), static_cast<std::uint8_t>(trail)};
                readWithOffsets(converter.get(), pair, false, units, offsets, pendingBytes);
                // Units that came from the second byte, or a second byte still waiting, mean ICU read
                // only the first: the second is read again as the start of what follows.
                std::size_t fromFirst = 0;
                while (fromFirst < units.size() && offsets[fromFirst] == 0) {
                    ++fromFirst;
                }
                const bool both = fromFirst == units.size() && pendingBytes == 0;
                table->pairs[lead << 8 | trail] =
                    entryFor(std::u16string_view(units).substr(0, fromFirst), both ? 2 : 1);
            }
        }
        result = std::move(table);
    }
    cache.emplace(name, result);
    return result;
}

class PairTableDecoder final : public HoldingDecoder {
public:
    explicit PairTableDecoder(std::shared_ptr<const PairTable> table) : table_(std::move(table)) {}

protected:
    std::size_t run(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out, ConversionReport& report,
                    std::int64_t base, bool final) override {
        const PairTable& table = *table_;
        std::uint8_t* const begin = buffer_.reserve(bytes.size() * 11 + 16);
        std::uint8_t* write = begin;
        const std::uint8_t* data = bytes.data();
        const std::size_t count = bytes.size();
        std::size_t i = 0;
        while (i < count) {
            if (table.asciiIdentity && i + 8 <= count) {
                std::uint64_t word = 0;
                std::memcpy(&word, data + i, 8);
                if ((word & 0x8080808080808080ULL) == 0) {
                    std::memcpy(write, data + i, 8);
                    write += 8;
                    i += 8;
                    continue;
                }
            }
            const std::uint8_t byte = data[i];
            const PairTable::Entry* entry = &table.single[byte];
            if (table.isLead[byte]) {
                if (i + 1 == count) {
                    if (!final) {
                        break;      // the second byte is in the next block
                    }
                } else {
                    entry = &table.pairs[static_cast<std::size_t>(byte) << 8 | data[i + 1]];
                }
            }
            if (entry->invalid) {
                noteInvalid(report, base + static_cast<std::int64_t>(i));
            }
            std::memcpy(write, entry->utf8.data(), entry->utf8.size());
            write += entry->length;
            i += entry->consumed;
        }
        buffer_.appendTo(out, write);
        return i;
    }

    std::shared_ptr<const PairTable> table_;
    RawBuffer buffer_;
};

// MARK: ISO-2022-JP

/// What ICU reads for each pair of JIS X 0208 bytes, 0x21-0x7E each, as UTF-8; empty for a pair it does
/// not read as one character.
struct JISPairTable {
    std::array<std::array<std::uint8_t, 4>, 94 * 94> utf8{};
    std::array<std::uint8_t, 94 * 94> length{};
};

std::shared_ptr<const JISPairTable> jisPairTableFor(const std::string& name) {
    static std::mutex cacheLock;
    static std::map<std::string, std::shared_ptr<const JISPairTable>> cache;     // guarded by cacheLock
    std::lock_guard lock(cacheLock);
    if (auto found = cache.find(name); found != cache.end()) {
        return found->second;
    }
    std::shared_ptr<const JISPairTable> result;
    if (ConverterPointer converter = openICU(name)) {
        auto table = std::make_shared<JISPairTable>();
        std::u16string units;
        std::vector<int32_t> offsets;
        int32_t pendingBytes = 0;
        for (unsigned first = 0; first < 94; ++first) {
            for (unsigned second = 0; second < 94; ++second) {
                const std::uint8_t bytes[] = {0x1B, '$', 'B', static_cast<std::uint8_t>(0x21 + first),
                                              static_cast<std::uint8_t>(0x21 + second), 0x1B, '(', 'B'};
                readWithOffsets(converter.get(), bytes, true, units, offsets, pendingBytes);
                const bool one = units.size() == 1 && units[0] != 0xFFFD && units[0] != 0x1A &&
                                 !isHighSurrogate(units[0]) && !isLowSurrogate(units[0]);
                if (one) {
                    const std::size_t index = first * 94 + second;
                    std::vector<std::uint8_t> utf8;
                    appendUTF8(utf8, units[0]);
                    std::copy(utf8.begin(), utf8.end(), table->utf8[index].begin());
                    table->length[index] = static_cast<std::uint8_t>(utf8.size());
                }
            }
        }
        result = std::move(table);
    }
    cache.emplace(name, result);
    return result;
}

std::unique_ptr<Side> makeICUDecoder(const std::string& name);

/// ISO-2022-JP read at table speed for what nearly every file holds: ASCII, JIS X 0208 runs between
/// "ESC $ B" (or "ESC $ @") and "ESC ( B", and line feeds, at which the reader returns to ASCII as
/// ICU's does. At anything else (another set, a shift, an unreadable pair, a byte above 0x7F) the rest
/// of the stream goes to ICU's converter, started in the same state by the escape of the set in force,
/// so the text is ICU's own either way.
class ISO2022JPDecoder final : public Side {
public:
    ISO2022JPDecoder(std::string name, std::shared_ptr<const JISPairTable> table)
        : name_(std::move(name)), table_(std::move(table)) {}

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        if (fallback_) {
            fallback_->convert(in, out, report);
            consumed_ += static_cast<std::int64_t>(in.size());
            return;
        }
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        const std::int64_t base = consumed_ - static_cast<std::int64_t>(bytes.size() - in.size());
        held_.clear();
        const std::size_t used = run(bytes, out, false);
        consumed_ += static_cast<std::int64_t>(in.size());
        if (used < bytes.size() && stopped_) {
            handOver(bytes.subspan(used), base + static_cast<std::int64_t>(used), out, report);
            return;
        }
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(used), bytes.end());
    }

    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        if (!fallback_ && !held_.empty()) {
            std::vector<std::uint8_t> rest;
            rest.swap(held_);
            // Whatever is held at the end is unfinished: ICU says what it reads as.
            handOver(rest, consumed_ - static_cast<std::int64_t>(rest.size()), out, report);
        }
        if (fallback_) {
            fallback_->finish(out, report);
        }
    }

    [[nodiscard]] std::int64_t pending() const override {
        return fallback_ ? fallback_->pending() : static_cast<std::int64_t>(held_.size());
    }
    [[nodiscard]] bool isAtCleanCut() const override { return false; }

private:
    enum class Mode : std::uint8_t { ascii, jis0208 };

    /// Converts what it can; returns the bytes used. `stopped_` tells whether it stopped at something
    /// for ICU rather than at an unfinished escape or pair at the end.
    std::size_t run(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out, bool final) {
        stopped_ = false;
        const JISPairTable& table = *table_;
        const std::uint8_t* data = bytes.data();
        const std::size_t count = bytes.size();
        std::uint8_t* const begin = buffer_.reserve(count * 2 + 16);
        std::uint8_t* write = begin;
        std::size_t i = 0;
        while (i < count) {
            const std::uint8_t byte = data[i];
            if (byte == 0x1B) {
                if (count - i < 3) {
                    stopped_ = final;
                    break;
                }
                if (emptySegment_) {
                    stopped_ = true;    // an escape right after another: ICU counts the empty stretch
                    break;
                }
                if (data[i + 1] == '(' && data[i + 2] == 'B') {
                    mode_ = Mode::ascii;
                } else if (data[i + 1] == '$' && (data[i + 2] == 'B' || data[i + 2] == '@')) {
                    mode_ = Mode::jis0208;
                } else {
                    stopped_ = true;
                    break;
                }
                emptySegment_ = true;
                i += 3;
                continue;
            }
            if (mode_ == Mode::ascii) {
                if (byte >= 0x80 || byte == 0x0E || byte == 0x0F) {
                    stopped_ = true;
                    break;
                }
                *write++ = byte;
                emptySegment_ = false;
                ++i;
                continue;
            }
            if (byte == 0x0A) {
                mode_ = Mode::ascii;    // the reader returns to ASCII at a line end
                *write++ = byte;
                emptySegment_ = false;
                ++i;
                continue;
            }
            if (byte < 0x21 || byte > 0x7E) {
                stopped_ = true;
                break;
            }
            if (i + 1 == count) {
                stopped_ = final;
                break;
            }
            const std::uint8_t second = data[i + 1];
            if (second < 0x21 || second > 0x7E) {
                stopped_ = true;
                break;
            }
            const std::size_t index = static_cast<std::size_t>(byte - 0x21) * 94 + (second - 0x21);
            const std::uint8_t length = table.length[index];
            if (length == 0) {
                stopped_ = true;
                break;
            }
            std::memcpy(write, table.utf8[index].data(), 4);
            write += length;
            emptySegment_ = false;
            i += 2;
        }
        buffer_.appendTo(out, write);
        return i;
    }

    /// From here on ICU reads: it is put in the state in force by the escape of that set and, unless
    /// nothing was read since the escape, one character of it (ICU marks an escape with nothing after
    /// it), the text of which is dropped; then it is given the rest.
    void handOver(std::span<const std::uint8_t> rest, std::int64_t offset, std::vector<std::uint8_t>& out,
                  ConversionReport& report) {
        fallback_ = makeICUDecoder(name_);
        static constexpr std::array<std::uint8_t, 5> jis = {0x1B, '$', 'B', '0', '!'};
        static constexpr std::array<std::uint8_t, 4> ascii = {0x1B, '(', 'B', 'a'};
        std::span<const std::uint8_t> priming = mode_ == Mode::jis0208 ? std::span<const std::uint8_t>(jis)
                                                                         : std::span<const std::uint8_t>(ascii);
        if (emptySegment_) {
            priming = priming.first(3);
        }
        std::vector<std::uint8_t> dropped;
        ConversionReport ignored;
        fallback_->convert(priming, dropped, ignored);
        fallback_->startAt(offset);
        fallback_->convert(rest, out, report);
    }

    std::string name_;
    std::shared_ptr<const JISPairTable> table_;
    Mode mode_ = Mode::ascii;
    bool emptySegment_ = false;         // an escape was read and no character since
    bool stopped_ = false;
    std::vector<std::uint8_t> held_;
    RawBuffer buffer_;
    std::unique_ptr<Side> fallback_;
};

// MARK: glibc iconv

class IconvSide final : public Side {
public:
    IconvSide(iconv_t descriptor, bool decoding) : descriptor_(descriptor), decoding_(decoding) {}
    ~IconvSide() override { iconv_close(descriptor_); }
    IconvSide(const IconvSide&) = delete;
    IconvSide& operator=(const IconvSide&) = delete;

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        const std::int64_t base = consumed_ - static_cast<std::int64_t>(bytes.size() - in.size());
        held_.clear();
        std::size_t used = run(bytes, out, report, base, false);
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(used), bytes.end());
        consumed_ += static_cast<std::int64_t>(in.size());
    }

    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        if (!held_.empty()) {
            std::vector<std::uint8_t> rest;
            rest.swap(held_);
            run(rest, out, report, consumed_ - static_cast<std::int64_t>(rest.size()), true);
        }
        // Ends any shift state.
        std::array<char, 64> tail{};
        char* write = tail.data();
        std::size_t room = tail.size();
        iconv(descriptor_, nullptr, nullptr, &write, &room);
        out.insert(out.end(), tail.data(), write);
    }

    [[nodiscard]] std::int64_t pending() const override { return static_cast<std::int64_t>(held_.size()); }
    [[nodiscard]] bool isAtCleanCut() const override { return pending() == 0; }

private:
    std::size_t run(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out, ConversionReport& report,
                    std::int64_t base, bool final) {
        // iconv's interface is not const-correct; it never writes through the input pointer.
        char* read = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
        std::size_t left = bytes.size();
        while (left > 0) {
            const std::size_t start = out.size();
            const std::size_t room = left * 4 + 64;
            out.resize(start + room);
            char* write = reinterpret_cast<char*>(out.data() + start);
            std::size_t writeLeft = room;
            const std::size_t result = iconv(descriptor_, &read, &left, &write, &writeLeft);
            const int error = errno;
            out.resize(start + room - writeLeft);
            if (result != static_cast<std::size_t>(-1)) {
                continue;
            }
            if (error == E2BIG) {
                continue;
            }
            const std::int64_t offset = base + (read - reinterpret_cast<const char*>(bytes.data()));
            if (error == EINVAL && !final) {
                break;      // an unfinished character: kept for the next block
            }
            if (decoding_) {
                noteInvalid(report, offset);
                out.insert(out.end(), replacementUTF8.begin(), replacementUTF8.end());
                ++read;
                --left;
            } else {
                char32_t scalar = 0xFFFD;
                int length = readUTF8(reinterpret_cast<const std::uint8_t*>(read), left, scalar);
                if (length <= 0) {
                    length = 1;
                    scalar = 0xFFFD;
                }
                noteUnwritable(report, scalar);
                read += length;
                left -= static_cast<std::size_t>(length);
                writeQuestionMark(out);
            }
        }
        return bytes.size() - left;
    }

    void writeQuestionMark(std::vector<std::uint8_t>& out) {
        char question = '?';
        char* read = &question;
        std::size_t left = 1;
        std::array<char, 16> buffer{};
        char* write = buffer.data();
        std::size_t room = buffer.size();
        iconv(descriptor_, &read, &left, &write, &room);
        out.insert(out.end(), buffer.data(), write);
    }

    iconv_t descriptor_;
    bool decoding_;
    std::vector<std::uint8_t> held_;
};

// MARK: sets that only the TextEncoding value itself knows how to convert

/// Converts whole pieces through the encoding's own `decode` or `encode`, cut where no state or
/// character can be divided; a stretch with no such place waits, up to the force-flush limit.
class PieceSide final : public Side {
public:
    PieceSide(TextEncoding encoding, bool decoding) : encoding_(std::move(encoding)), decoding_(decoding) {}

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        held_.insert(held_.end(), in.begin(), in.end());
        consumed_ += static_cast<std::int64_t>(in.size());
        std::size_t cut = cutPoint();
        if (cut == 0 && static_cast<std::int64_t>(held_.size()) >= StreamingConverter::forceFlushLimit) {
            cut = decoding_ ? held_.size() : std::max<std::size_t>(safeCut(held_), 1);
        }
        if (cut == 0) {
            return;
        }
        emit(std::span<const std::uint8_t>(held_.data(), cut), out, report);
        held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(cut));
    }

    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        if (!held_.empty()) {
            emit(held_, out, report);
            held_.clear();
        }
    }
    [[nodiscard]] std::int64_t pending() const override { return static_cast<std::int64_t>(held_.size()); }

private:
    [[nodiscard]] std::size_t cutPoint() const {
        for (std::size_t i = held_.size(); i > 0; --i) {
            const std::uint8_t byte = held_[i - 1];
            if (decoding_) {
                if (encoding_.stateful ? encoding_.stateful->startsAfresh(byte)
                                       : (encoding_.asciiCompatible && byte < 0x30)) {
                    return i;
                }
            } else if (byte == '\n') {
                return i;
            }
        }
        return 0;
    }

    void emit(std::span<const std::uint8_t> piece, std::vector<std::uint8_t>& out, ConversionReport& report) {
        const std::int64_t base = consumed_ - static_cast<std::int64_t>(held_.size());
        if (decoding_) {
            const std::string text = encoding_.decode(piece);
            // The set's own decoder says nothing of what it could not read but leaves U+FFFD for it.
            for (std::size_t at = text.find("\xEF\xBF\xBD"); at != std::string::npos;
                 at = text.find("\xEF\xBF\xBD", at + 3)) {
                noteInvalid(report, base);
            }
            out.insert(out.end(), text.begin(), text.end());
        } else {
            const std::string_view text(reinterpret_cast<const char*>(piece.data()), piece.size());
            const EncodedText encoded = encoding_.encode(text);
            if (encoded.unwritable > 0) {
                const UnwritableReport found = encoding_.unwritable(text, maxExamples);
                report.unwritable += encoded.unwritable;
                for (const std::string& example : found.examples) {
                    if (report.unwritableExamples.size() < maxExamples &&
                        std::find(report.unwritableExamples.begin(), report.unwritableExamples.end(), example) ==
                            report.unwritableExamples.end()) {
                        report.unwritableExamples.push_back(example);
                    }
                }
            }
            out.insert(out.end(), encoded.bytes.begin(), encoded.bytes.end());
        }
    }

    TextEncoding encoding_;
    bool decoding_;
    std::vector<std::uint8_t> held_;
};

// MARK: encoders from UTF-8 of our own

/// Reads UTF-8 scalars across blocks, holding an unfinished sequence for the next one.
class UTF8Reader {
public:
    template <typename Body>
    void read(std::span<const std::uint8_t> in, bool final, Body&& body) {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        held_.clear();
        std::size_t i = 0;
        const std::size_t count = bytes.size();
        while (i < count) {
            char32_t scalar = 0;
            const int length = readUTF8(&bytes[i], count - i, scalar);
            if (length == 0) {
                if (!final) {
                    break;
                }
                body(char32_t{0xFFFD}, bytes.subspan(i));
                i = count;
                break;
            }
            const std::size_t step = length < 0 ? 1 : static_cast<std::size_t>(length);
            body(scalar, bytes.subspan(i));
            i += step;
        }
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(i), bytes.end());
    }
    [[nodiscard]] std::int64_t pending() const { return static_cast<std::int64_t>(held_.size()); }

private:
    std::vector<std::uint8_t> held_;
};

class UTFEncoder final : public Side {
public:
    UTFEncoder(int width, bool bigEndian) : width_(width), bigEndian_(bigEndian) {}

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        out.reserve(out.size() + in.size() * static_cast<std::size_t>(width_));
        reader_.read(in, false, [&](char32_t scalar, std::span<const std::uint8_t>) { put(scalar, out, report); });
    }
    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        reader_.read({}, true, [&](char32_t scalar, std::span<const std::uint8_t>) { put(scalar, out, report); });
    }
    [[nodiscard]] std::int64_t pending() const override { return reader_.pending(); }

private:
    void put(char32_t scalar, std::vector<std::uint8_t>& out, ConversionReport&) {
        if (width_ == 2) {
            if (scalar >= 0x10000) {
                unit(0xD800 + ((scalar - 0x10000) >> 10), out);
                unit(0xDC00 + ((scalar - 0x10000) & 0x3FF), out);
            } else {
                unit(scalar, out);
            }
        } else {
            unit(scalar, out);
        }
    }
    void unit(std::uint32_t value, std::vector<std::uint8_t>& out) const {
        if (width_ == 2) {
            const auto high = static_cast<std::uint8_t>(value >> 8);
            const auto low = static_cast<std::uint8_t>(value & 0xFF);
            out.push_back(bigEndian_ ? high : low);
            out.push_back(bigEndian_ ? low : high);
        } else {
            std::array<std::uint8_t, 4> bytes = {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
                                                 static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
            if (!bigEndian_) {
                std::reverse(bytes.begin(), bytes.end());
            }
            out.insert(out.end(), bytes.begin(), bytes.end());
        }
    }

    int width_;
    bool bigEndian_;
    UTF8Reader reader_;
};

/// The way back through a table: the first byte of each unit wins; expansions (to one byte) and pairs
/// (to two), longest first, before single units.
struct ReverseTable {
    std::vector<std::int16_t> byUnit = std::vector<std::int16_t>(65'536, -1);
    std::vector<std::pair<std::u16string, std::vector<std::uint8_t>>> expansions;     // longest first
    std::vector<bool> startsExpansion = std::vector<bool>(65'536, false);
    std::size_t longestExpansion = 0;
    std::uint8_t question = 0x3F;
};

std::shared_ptr<const ReverseTable> reverseTableFor(const TextEncoding& encoding) {
    static std::mutex reverseLock;
    static std::map<const void*, std::shared_ptr<const ReverseTable>> cache;    // guarded by reverseLock
    std::lock_guard lock(reverseLock);
    if (auto found = cache.find(encoding.table.get()); found != cache.end()) {
        return found->second;
    }
    auto reverse = std::make_shared<ReverseTable>();
    for (unsigned byte = 0; byte < 256; ++byte) {
        const std::uint16_t unit = (*encoding.table)[byte];
        const bool expanded = encoding.expansions && encoding.expansions->contains(static_cast<std::uint8_t>(byte));
        if (!expanded && unit != 0xFFFD && reverse->byUnit[unit] < 0) {
            reverse->byUnit[unit] = static_cast<std::int16_t>(byte);
        }
    }
    if (encoding.expansions) {
        for (const auto& [byte, units] : *encoding.expansions) {
            reverse->expansions.emplace_back(units, std::vector<std::uint8_t>{byte});
        }
    }
    if (encoding.pairs) {
        for (const auto& [code, units] : *encoding.pairs) {
            reverse->expansions.emplace_back(
                units, std::vector<std::uint8_t>{static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code)});
        }
    }
    for (const auto& [units, bytes] : reverse->expansions) {
        reverse->startsExpansion[units[0]] = true;
        reverse->longestExpansion = std::max(reverse->longestExpansion, units.size());
    }
    std::stable_sort(reverse->expansions.begin(), reverse->expansions.end(),
                     [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
    if (reverse->byUnit['?'] >= 0 && !encoding.asciiCompatible) {
        reverse->question = static_cast<std::uint8_t>(reverse->byUnit['?']);
    }
    return cache.try_emplace(encoding.table.get(), std::move(reverse)).first->second;
}

class TableEncoder final : public Side {
public:
    explicit TableEncoder(std::shared_ptr<const ReverseTable> reverse) : reverse_(std::move(reverse)) {
        for (unsigned byte = 0; byte < 0x80; ++byte) {
            if (reverse_->byUnit[byte] != static_cast<std::int16_t>(byte) || reverse_->startsExpansion[byte]) {
                asciiIdentity_ = false;
            }
        }
    }

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        held_.clear();
        out.reserve(out.size() + bytes.size());
        const std::size_t used = run(bytes, out, report, false);
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(used), bytes.end());
    }
    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        std::vector<std::uint8_t> rest;
        rest.swap(held_);
        run(rest, out, report, true);
    }
    [[nodiscard]] std::int64_t pending() const override { return static_cast<std::int64_t>(held_.size()); }

private:
    std::size_t run(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out, ConversionReport& report,
                    bool final) {
        const ReverseTable& reverse = *reverse_;
        const std::size_t count = bytes.size();
        std::size_t i = 0;
        while (i < count) {
            const std::uint8_t lead = bytes[i];
            if (asciiIdentity_ && lead < 0x80) {
                out.push_back(lead);
                ++i;
                continue;
            }
            char32_t scalar = 0;
            int length = readUTF8(&bytes[i], count - i, scalar);
            if (length == 0 && !final) {
                break;
            }
            if (length <= 0) {
                length = length == 0 ? static_cast<int>(count - i) : 1;
                scalar = 0xFFFD;
            }
            if (scalar < 0x10000 && reverse.startsExpansion[scalar]) {
                // Enough text must be at hand to try the longest expansion.
                if (!final && count - i < reverse.longestExpansion * 4) {
                    break;
                }
                if (const std::size_t matched = matchExpansion(bytes.subspan(i), out); matched > 0) {
                    i += matched;
                    continue;
                }
            }
            if (scalar < 0x10000 && reverse.byUnit[scalar] >= 0) {
                out.push_back(static_cast<std::uint8_t>(reverse.byUnit[scalar]));
            } else {
                noteUnwritable(report, scalar);
                out.push_back(reverse.question);
            }
            i += static_cast<std::size_t>(length);
        }
        return i;
    }

    /// Tries the expansions at the start of `bytes`; returns the UTF-8 bytes matched, 0 for none.
    std::size_t matchExpansion(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out) const {
        std::u16string units;
        std::vector<std::size_t> ends;      // UTF-8 length after each unit
        std::size_t at = 0;
        while (units.size() < reverse_->longestExpansion && at < bytes.size()) {
            char32_t scalar = 0;
            const int length = readUTF8(&bytes[at], bytes.size() - at, scalar);
            if (length <= 0) {
                break;
            }
            at += static_cast<std::size_t>(length);
            if (scalar >= 0x10000) {
                units.push_back(static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10)));
                ends.push_back(0);
                units.push_back(static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF)));
            } else {
                units.push_back(static_cast<char16_t>(scalar));
            }
            ends.push_back(at);
        }
        for (const auto& [expansion, written] : reverse_->expansions) {
            if (expansion.size() <= units.size() && units.compare(0, expansion.size(), expansion) == 0 &&
                ends[expansion.size() - 1] != 0) {
                out.insert(out.end(), written.begin(), written.end());
                return ends[expansion.size() - 1];
            }
        }
        return 0;
    }

    std::shared_ptr<const ReverseTable> reverse_;
    bool asciiIdentity_ = true;
    std::vector<std::uint8_t> held_;
};

class DoubleByteEncoder final : public Side {
public:
    explicit DoubleByteEncoder(const DoubleByteCodec& codec) : codec_(codec) {}

    void convert(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, ConversionReport& report) override {
        reader_.read(in, false, [&](char32_t scalar, std::span<const std::uint8_t>) { appendUnits(scalar); });
        run(false, out, report);
    }
    void finish(std::vector<std::uint8_t>& out, ConversionReport& report) override {
        reader_.read({}, true, [&](char32_t scalar, std::span<const std::uint8_t>) { appendUnits(scalar); });
        run(true, out, report);
    }
    [[nodiscard]] std::int64_t pending() const override {
        return reader_.pending() + static_cast<std::int64_t>(units_.size());
    }

private:
    void appendUnits(char32_t scalar) {
        if (scalar >= 0x10000) {
            units_.push_back(static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10)));
            units_.push_back(static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF)));
        } else {
            units_.push_back(static_cast<char16_t>(scalar));
        }
    }
    void run(bool final, std::vector<std::uint8_t>& out, ConversionReport& report) {
        std::size_t unwritable = 0;
        lost_.clear();
        const std::size_t used = codec_.encode(units_, final, out, unwritable, &lost_);
        units_.erase(0, used);
        for (char32_t scalar : lost_) {
            noteUnwritable(report, scalar);
        }
    }

    const DoubleByteCodec& codec_;
    UTF8Reader reader_;
    std::u16string units_;              // read but not yet written: the start of a possible sequence
    std::vector<char32_t> lost_;
};

// MARK: choosing a side

std::unique_ptr<Side> makeICUDecoder(const std::string& name) {
    return std::make_unique<ICUSide>(openICU(name), true, true);
}


std::unique_ptr<Side> makeSide(const TextEncoding& encoding, bool decoding) {
    if (const auto width = encoding.unicodeUnitWidth()) {
        const bool bigEndian = encoding.id.ends_with("be");
        if (decoding) {
            return std::make_unique<UTFDecoder>(*width, bigEndian);
        }
        return std::make_unique<UTFEncoder>(*width, bigEndian);
    }
    if (!encoding.stateful && encoding.doubleByteCodec != nullptr) {
        if (decoding) {
            return std::make_unique<DoubleByteDecoder>(*encoding.doubleByteCodec);
        }
        return std::make_unique<DoubleByteEncoder>(*encoding.doubleByteCodec);
    }
    if (encoding.table) {
        if (decoding) {
            return std::make_unique<TableDecoder>(byteTableFor(encoding));
        }
        return std::make_unique<TableEncoder>(reverseTableFor(encoding));
    }
    if (!encoding.stateful && decoding && encoding.isSingleByte()) {
        return std::make_unique<TableDecoder>(byteTableFor(encoding));
    }
    if (!encoding.stateful && decoding && encoding.converterName == "ISO_2022,locale=ja,version=0") {
        if (auto table = jisPairTableFor(encoding.converterName)) {
            return std::make_unique<ISO2022JPDecoder>(encoding.converterName, std::move(table));
        }
    }
    if (!encoding.stateful && decoding && isICUName(encoding.converterName)) {
        if (auto table = pairTableFor(encoding.converterName)) {
            return std::make_unique<PairTableDecoder>(std::move(table));
        }
    }
    if (!encoding.stateful && isICUName(encoding.converterName)) {
        if (ConverterPointer converter = openICU(encoding.converterName)) {
            return std::make_unique<ICUSide>(std::move(converter), decoding, isStatefulSet(encoding));
        }
    }
    if (!encoding.stateful && encoding.converterName.starts_with("iconv:")) {
        const std::string name = encoding.converterName.substr(6);
        const iconv_t descriptor = decoding ? iconv_open("UTF-8", name.c_str()) : iconv_open(name.c_str(), "UTF-8");
        if (descriptor != reinterpret_cast<iconv_t>(-1)) {
            return std::make_unique<IconvSide>(descriptor, decoding);
        }
    }
    return std::make_unique<PieceSide>(encoding, decoding);
}

} // namespace

// MARK: BlockConverter

BlockConverter::BlockConverter(const TextEncoding& from, const TextEncoding& to)
    : decoder_(isUTF8(from) ? nullptr : makeSide(from, true)), encoder_(isUTF8(to) ? nullptr : makeSide(to, false)) {}

BlockConverter::~BlockConverter() = default;
BlockConverter::BlockConverter(BlockConverter&&) noexcept = default;
BlockConverter& BlockConverter::operator=(BlockConverter&&) noexcept = default;

void BlockConverter::convert(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out) {
    if (!decoder_ && !encoder_) {
        out.insert(out.end(), bytes.begin(), bytes.end());
        return;
    }
    if (!encoder_) {
        decoder_->convert(bytes, out, report_);
        return;
    }
    if (!decoder_) {
        encoder_->convert(bytes, out, report_);
        return;
    }
    middle_.clear();
    decoder_->convert(bytes, middle_, report_);
    encoder_->convert(middle_, out, report_);
}

void BlockConverter::finish(std::vector<std::uint8_t>& out) {
    if (decoder_ && encoder_) {
        middle_.clear();
        decoder_->finish(middle_, report_);
        encoder_->convert(middle_, out, report_);
        encoder_->finish(out, report_);
    } else if (decoder_) {
        decoder_->finish(out, report_);
    } else if (encoder_) {
        encoder_->finish(out, report_);
    }
}

std::int64_t BlockConverter::pending() const {
    return (decoder_ ? decoder_->pending() : 0) + (encoder_ && !decoder_ ? encoder_->pending() : 0);
}

bool BlockConverter::isAtCleanCut() const {
    return (!decoder_ || decoder_->isAtCleanCut()) && (!encoder_ || encoder_->isAtCleanCut());
}

const ConversionReport& BlockConverter::report() const { return report_; }

// MARK: line endings

/// Rewrites line breaks in a stream of bytes, in UTF-8 or an ASCII-compatible set, holding a CR (or
/// the start of a multi-byte break) at a block's end until the next block says what it is.
class StreamingConverter::LineRewriter {
public:
    enum class Form : std::uint8_t { plain, nelByte, utf8 };

    LineRewriter(Form form, std::uint16_t kinds, std::vector<std::uint8_t> target)
        : form_(form), kinds_(kinds), target_(std::move(target)) {
        for (const std::size_t byte : {0x0AUL, 0x0BUL, 0x0CUL, 0x0DUL}) {
            interesting_[byte] = true;
        }
        if (form_ == Form::nelByte) {
            interesting_[0x85] = true;
        }
        if (form_ == Form::utf8) {
            interesting_[0xC2] = true;
            interesting_[0xE2] = true;
        }
    }

    static std::uint16_t bit(LineEnding ending) { return static_cast<std::uint16_t>(1u << static_cast<unsigned>(ending)); }

    void feed(std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out, bool final) {
        Joined joined(held_, in);
        const std::span<const std::uint8_t> bytes = joined.bytes();
        held_.clear();
        const std::size_t count = bytes.size();
        out.reserve(out.size() + count + count / 8);
        std::size_t runStart = 0;
        std::size_t i = 0;
        while (i < count) {
            if (!interesting_[bytes[i]]) {
                ++i;
                continue;
            }
            std::size_t length = 0;
            std::optional<LineEnding> kind;
            const std::uint8_t byte = bytes[i];
            const std::size_t left = count - i;
            bool needMore = false;
            switch (byte) {
            case 0x0D:
                if (left < 2 && !final) {
                    needMore = true;
                } else if (left >= 2 && bytes[i + 1] == 0x0A) {
                    kind = LineEnding::crlf, length = 2;
                } else {
                    kind = LineEnding::cr, length = 1;
                }
                break;
            case 0x0A:
                if (left < 2 && !final) {
                    needMore = true;
                } else if (left >= 2 && bytes[i + 1] == 0x0D && !(left >= 3 && bytes[i + 2] == 0x0A)) {
                    // LF CR, unless the CR begins a CR LF of its own.
                    kind = LineEnding::lfcr, length = 2;
                } else if (left == 2 && bytes[i + 1] == 0x0D && !final) {
                    needMore = true;
                } else {
                    kind = LineEnding::lf, length = 1;
                }
                break;
            case 0x0B:
                kind = LineEnding::vt, length = 1;
                break;
            case 0x0C:
                kind = LineEnding::ff, length = 1;
                break;
            case 0x85:
                kind = LineEnding::nel, length = 1;
                break;
            case 0xC2:
                if (left < 2 && !final) {
                    needMore = true;
                } else if (left >= 2 && bytes[i + 1] == 0x85) {
                    kind = LineEnding::nel, length = 2;
                }
                break;
            case 0xE2:
                if (left < 3 && !final && (left < 2 || bytes[i + 1] == 0x80)) {
                    needMore = true;
                } else if (left >= 3 && bytes[i + 1] == 0x80 && (bytes[i + 2] == 0xA8 || bytes[i + 2] == 0xA9)) {
                    kind = bytes[i + 2] == 0xA8 ? LineEnding::ls : LineEnding::ps, length = 3;
                }
                break;
            default:
                break;
            }
            if (needMore) {
                break;
            }
            if (!kind) {
                ++i;
                continue;
            }
            if ((kinds_ & bit(*kind)) != 0) {
                out.insert(out.end(), bytes.begin() + static_cast<std::ptrdiff_t>(runStart),
                           bytes.begin() + static_cast<std::ptrdiff_t>(i));
                out.insert(out.end(), target_.begin(), target_.end());
                runStart = i + length;
            }
            i += length;
        }
        out.insert(out.end(), bytes.begin() + static_cast<std::ptrdiff_t>(runStart),
                   bytes.begin() + static_cast<std::ptrdiff_t>(i));
        held_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(i), bytes.end());
    }

    [[nodiscard]] std::int64_t held() const { return static_cast<std::int64_t>(held_.size()); }

private:
    Form form_;
    std::uint16_t kinds_;
    std::vector<std::uint8_t> target_;
    std::array<bool, 256> interesting_{};
    std::vector<std::uint8_t> held_;
};

namespace {

using LineRewriter = StreamingConverter::LineRewriter;

LineRewriter::Form formFor(const TextEncoding& encoding) {
    if (isUTF8(encoding)) {
        return LineRewriter::Form::utf8;
    }
    return encoding.readsNELAsOneByte() ? LineRewriter::Form::nelByte : LineRewriter::Form::plain;
}

std::uint16_t kindsMask(std::span<const LineEnding> kinds) {
    std::uint16_t mask = 0;
    for (LineEnding kind : kinds) {
        mask = static_cast<std::uint16_t>(mask | LineRewriter::bit(kind));
    }
    return mask;
}

// What saving rewrites: the ordinary breaks. NEL, LS, PS and page breaks in the text are characters
// the document kept on purpose.
constexpr std::array<LineEnding, 4> savedBreaks = {LineEnding::lf, LineEnding::crlf, LineEnding::cr, LineEnding::lfcr};

std::vector<std::uint8_t> utf8Of(LineEnding ending) {
    const std::string_view text = utf8Bytes(ending);
    return {text.begin(), text.end()};
}

} // namespace

// MARK: StreamingConverter

StreamingConverter::StreamingConverter(const TextEncoding& from, const TextEncoding& to,
                                       std::optional<LineEnding> lineEnding)
    : from_(from), to_(to), lineEnding_(lineEnding) {
    if (!lineEnding_) {
        passThrough_ = from_ == to_;
        if (!passThrough_) {
            first_ = std::make_unique<BlockConverter>(from_, to_);
        }
        return;
    }
    const LineEnding wanted = spelledIn(*lineEnding_, to_);
    const std::vector<std::uint8_t> target = bytesIn(wanted, to_);
    endingSpelledInSource_ = breaksAreBytes(from_) && breaksAreBytes(to_) && bytesIn(wanted, from_) == target &&
                             (wanted == LineEnding::lf || wanted == LineEnding::crlf || wanted == LineEnding::cr ||
                              wanted == LineEnding::lfcr || formFor(from_) == formFor(to_));
    if (endingSpelledInSource_) {
        rewriter_ = std::make_unique<LineRewriter>(formFor(from_), kindsMask(savedBreaks), target);
        if (!(from_ == to_)) {
            first_ = std::make_unique<BlockConverter>(from_, to_);
        }
    } else {
        first_ = std::make_unique<BlockConverter>(from_, TextEncoding::utf8());
        rewriter_ = std::make_unique<LineRewriter>(LineRewriter::Form::utf8, kindsMask(savedBreaks), utf8Of(wanted));
        second_ = std::make_unique<BlockConverter>(TextEncoding::utf8(), to_);
    }
}

StreamingConverter::~StreamingConverter() = default;
StreamingConverter::StreamingConverter(StreamingConverter&&) noexcept = default;
StreamingConverter& StreamingConverter::operator=(StreamingConverter&&) noexcept = default;

std::vector<std::uint8_t> StreamingConverter::convert(std::span<const std::uint8_t> bytes) {
    std::vector<std::uint8_t> out;
    if (bytes.empty()) {
        return out;
    }
    if (passThrough_) {
        out.assign(bytes.begin(), bytes.end());
        return out;
    }
    if (!rewriter_) {
        first_->convert(bytes, out);
    } else if (endingSpelledInSource_) {
        if (first_) {
            scratch_.clear();
            rewriter_->feed(bytes, scratch_, false);
            first_->convert(scratch_, out);
        } else {
            rewriter_->feed(bytes, out, false);
        }
    } else {
        scratch_.clear();
        first_->convert(bytes, scratch_);
        std::vector<std::uint8_t> rewritten;
        rewriter_->feed(scratch_, rewritten, false);
        second_->convert(rewritten, out);
    }
    updateReport();
    return out;
}

std::vector<std::uint8_t> StreamingConverter::flush() {
    std::vector<std::uint8_t> out;
    if (passThrough_) {
        return out;
    }
    if (!rewriter_) {
        first_->finish(out);
    } else if (endingSpelledInSource_) {
        if (first_) {
            scratch_.clear();
            rewriter_->feed({}, scratch_, true);
            first_->convert(scratch_, out);
            first_->finish(out);
        } else {
            rewriter_->feed({}, out, true);
        }
    } else {
        scratch_.clear();
        first_->finish(scratch_);
        std::vector<std::uint8_t> rewritten;
        rewriter_->feed(scratch_, rewritten, true);
        second_->convert(rewritten, out);
        second_->finish(out);
    }
    updateReport();
    return out;
}

std::int64_t StreamingConverter::carry() const {
    return (rewriter_ ? rewriter_->held() : 0) + (first_ ? first_->pending() : 0) + (second_ ? second_->pending() : 0);
}

void StreamingConverter::updateReport() {
    report_ = first_ ? first_->report() : ConversionReport{};
    if (second_) {
        const ConversionReport& more = second_->report();
        report_.invalid += more.invalid;
        report_.unwritable += more.unwritable;
        for (const std::string& example : more.unwritableExamples) {
            if (report_.unwritableExamples.size() < maxExamples) {
                report_.unwritableExamples.push_back(example);
            }
        }
    }
}

// MARK: Checkpoints

void Checkpoints::add(std::int64_t copyOffset, std::int64_t fileOffset) {
    if (!isUsable) {
        return;
    }
    if (copyOffset < 0 || fileOffset < 0 || copyOffset > 0xFFFF'FFFF || fileOffset > 0xFFFF'FFFF) {
        isUsable = false;
        return;
    }
    const auto copy32 = static_cast<std::uint32_t>(copyOffset);
    const auto file32 = static_cast<std::uint32_t>(fileOffset);
    if (!copy.empty() && copy.back() == copy32 && file.back() == file32) {
        return;
    }
    copy.push_back(copy32);
    file.push_back(file32);
}

void Checkpoints::append(const Checkpoints& other, ByteRange range, std::int64_t copyOffset, std::int64_t fileOffset) {
    if (!other.isUsable) {
        isUsable = false;
        return;
    }
    const auto first = std::lower_bound(other.copy.begin(), other.copy.end(), range.lower);
    if (first == other.copy.end() || *first != range.lower) {
        return;
    }
    const std::size_t start = static_cast<std::size_t>(first - other.copy.begin());
    const std::int64_t fileBase = other.file[start];
    for (std::size_t i = start; i < other.copy.size() && other.copy[i] <= range.upper; ++i) {
        add(copyOffset + (other.copy[i] - range.lower), fileOffset + (other.file[i] - fileBase));
    }
}

std::optional<std::pair<std::int64_t, std::int64_t>> Checkpoints::atOrBefore(std::int64_t copyOffset) const {
    if (!isUsable || copy.empty() || copyOffset < copy.front()) {
        return std::nullopt;
    }
    const auto after = std::upper_bound(copy.begin(), copy.end(), copyOffset);
    const std::size_t index = static_cast<std::size_t>(after - copy.begin()) - 1;
    return std::pair<std::int64_t, std::int64_t>{copy[index], file[index]};
}

std::optional<std::pair<std::int64_t, std::int64_t>> Checkpoints::atOrAfter(std::int64_t copyOffset) const {
    if (!isUsable) {
        return std::nullopt;
    }
    const auto found = std::lower_bound(copy.begin(), copy.end(), copyOffset);
    if (found == copy.end()) {
        return std::nullopt;
    }
    const std::size_t index = static_cast<std::size_t>(found - copy.begin());
    return std::pair<std::int64_t, std::int64_t>{copy[index], file[index]};
}

// MARK: Failure

Failure Failure::cannotCreate() { return {Kind::cannotCreate, L("cannot create working copy")}; }

Failure Failure::cannotWrite(const std::filesystem::path& path, int errnoValue) {
    return {Kind::cannotWrite, L("The working copy %@ could not be written: %@", path.string(), std::strerror(errnoValue))};
}

Failure Failure::invalidInput(const TextEncoding& encoding, std::int64_t offset) {
    return {Kind::invalidInput,
            L("The file is not valid %@: the bytes at offset %ld cannot be read.", encoding.localisedName(), offset)};
}

// MARK: working copies

namespace {

std::string newUUID() {
    static std::mutex randomLock;
    static std::random_device device;
    static std::mt19937_64 generator(
        (static_cast<std::uint64_t>(device()) << 32) ^ device() ^
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        static_cast<std::uint64_t>(::getpid()));   // guarded by randomLock
    std::array<std::uint8_t, 16> bytes{};
    {
        std::lock_guard lock(randomLock);
        for (std::size_t i = 0; i < 16; i += 8) {
            const std::uint64_t value = generator();
            std::memcpy(bytes.data() + i, &value, 8);
        }
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

constexpr std::string_view copySuffix = ".utf8";
constexpr std::string_view partialSuffix = ".partial";

/// Makes the folder of working copies, private to the user, with the support folder above it.
void ensureDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        std::filesystem::create_directories(directory.parent_path(), error);
        if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
            throw Failure::cannotCreate();
        }
    }
    if (!std::filesystem::is_directory(directory, error)) {
        throw Failure::cannotCreate();
    }
}

/// A file being written: the descriptor is closed on every path, and unless `commit` was reached the
/// file is removed, so a failed or cancelled conversion leaves nothing behind.
class CopyWriter {
public:
    explicit CopyWriter(std::filesystem::path finalPath)
        : finalPath_(std::move(finalPath)), path_(finalPath_.string() + std::string(partialSuffix)) {
        descriptor_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (descriptor_ < 0) {
            throw Failure::cannotCreate();
        }
    }
    ~CopyWriter() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        if (!committed_) {
            std::error_code ignored;
            std::filesystem::remove(path_, ignored);
        }
    }
    CopyWriter(const CopyWriter&) = delete;
    CopyWriter& operator=(const CopyWriter&) = delete;

    void write(std::span<const std::uint8_t> bytes) {
        const std::uint8_t* data = bytes.data();
        std::size_t left = bytes.size();
        while (left > 0) {
            const ssize_t written = ::write(descriptor_, data, left);
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throw Failure::cannotWrite(finalPath_, errno);
            }
            data += written;
            left -= static_cast<std::size_t>(written);
        }
        written_ += static_cast<std::int64_t>(bytes.size());
    }

    /// Closes the copy and gives it its final name.
    ///
    /// Not synchronised: a working copy is scratch space for one running document. Nothing reads it
    /// after a crash (it is then abandoned, and removed at the next start), and while the process runs
    /// the page cache serves it whether or not it reached the disk. Waiting for the disk would make
    /// opening a large file in a legacy set cost the disk's write time on top of the conversion, for
    /// no safety gained. The rename still means that a copy under its final name was written whole;
    /// a write error is caught by `write` and `close`.
    std::filesystem::path commit() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        if (::close(descriptor) != 0) {
            throw Failure::cannotWrite(finalPath_, errno);
        }
        if (::rename(path_.c_str(), finalPath_.c_str()) != 0) {
            throw Failure::cannotWrite(finalPath_, errno);
        }
        committed_ = true;
        return finalPath_;
    }

    [[nodiscard]] std::int64_t written() const { return written_; }

private:
    std::filesystem::path finalPath_;
    std::string path_;
    int descriptor_ = -1;
    bool committed_ = false;
    std::int64_t written_ = 0;
};

/// Writes a copy's blocks on a thread of its own while the next block is converted: on a machine with a
/// second core, the copy into the page cache (as long as the conversion for the plainer sets) is then
/// no longer added to it. Memory: three blocks of output at most, the one being written, the one
/// waiting and the one being filled. A write error is thrown from the next `submit` or from `finish`.
class WriteBehind {
public:
    explicit WriteBehind(CopyWriter& writer) : writer_(writer), thread_([this] { run(); }) {}
    ~WriteBehind() {
        {
            std::lock_guard lock(lock_);
            done_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    /// Hands `buffer` over to be written; it comes back empty, with the room of one already written.
    void submit(std::vector<std::uint8_t>& buffer) {
        submitted_ += static_cast<std::int64_t>(buffer.size());
        std::unique_lock lock(lock_);
        changed_.wait(lock, [this] { return !waiting_ || error_; });
        if (error_) {
            std::rethrow_exception(error_);
        }
        waiting_ = true;
        slot_.swap(buffer);
        buffer.clear();
        lock.unlock();
        changed_.notify_all();
    }
    /// Waits until everything handed over is written.
    void finish() {
        std::unique_lock lock(lock_);
        changed_.wait(lock, [this] { return (!waiting_ && !writing_) || error_; });
        if (error_) {
            std::rethrow_exception(error_);
        }
    }
    /// Bytes handed over so far: the copy's length once they are written.
    [[nodiscard]] std::int64_t submitted() const { return submitted_; }

private:
    void run() {
        std::vector<std::uint8_t> current;
        std::unique_lock lock(lock_);
        while (true) {
            changed_.wait(lock, [this] { return waiting_ || done_; });
            if (!waiting_) {
                return;
            }
            current.swap(slot_);
            waiting_ = false;
            writing_ = true;
            lock.unlock();
            changed_.notify_all();
            std::exception_ptr error;
            try {
                writer_.write(current);
            } catch (...) {
                error = std::current_exception();
            }
            lock.lock();
            writing_ = false;
            if (error && !error_) {
                error_ = error;
            }
            changed_.notify_all();
        }
    }

    CopyWriter& writer_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::uint8_t> slot_;    // guarded by lock_
    bool waiting_ = false;              // guarded by lock_: `slot_` holds bytes to write
    bool writing_ = false;              // guarded by lock_
    bool done_ = false;                 // guarded by lock_
    std::exception_ptr error_;          // guarded by lock_
    std::int64_t submitted_ = 0;        // the caller's thread only
    std::thread thread_;
};

std::filesystem::path newCopyPath() {
    const std::filesystem::path directory = workingCopiesDirectory();
    ensureDirectory(directory);
    return directory / (newUUID() + std::string(copySuffix));
}

bool startsWith(const ByteSource& source, std::span<const std::uint8_t> prefix) {
    if (prefix.empty() || source.count() < static_cast<std::int64_t>(prefix.size())) {
        return false;
    }
    const std::vector<std::uint8_t> head = source.data({0, static_cast<std::int64_t>(prefix.size())});
    return std::equal(prefix.begin(), prefix.end(), head.begin(), head.end());
}

/// Follows the shift state of an ISO-2022 (Japanese or Chinese) or HZ file byte by byte, to find the
/// places where a decoder started afresh would read the rest exactly as one that read everything
/// before: just after a line feed read in ASCII, with no shift, escape or double-byte character open.
/// There a checkpoint may stand: the stretch before it can be converted on its own and the stretch
/// after it copied, and the other way round.
///
/// Line ends matter twice. The converters forget the designations of G1 and G2 at each line end (a line
/// names again the sets it uses), so what was designated on an earlier line never reaches past a line
/// feed; and a converter writing text starts and ends a line in ASCII, so at a line start one that
/// wrote everything before is in the state a fresh one starts in. A line feed met in any other state
/// (inside a double-byte run, after a shift out) is not a clean place, even though some readers reset
/// there: this is never more generous than the converter that reads the file.
class CleanCutFinder {
public:
    enum class Family : std::uint8_t { iso2022, hz };

    explicit CleanCutFinder(Family family) : family_(family) {}

    /// The finder for a set whose clean places can be found this way; none for every other set.
    static std::optional<CleanCutFinder> forSet(const TextEncoding& encoding) {
        if (encoding.stateful) {
            return std::nullopt;
        }
        const std::string& name = encoding.converterName;
        // ISO-2022-KR is left out: its converter writes a header at the start of every stream, so a
        // stretch converted on its own would carry a second one into the middle of the file.
        if (name.starts_with("ISO_2022,locale=ja") || name.starts_with("ISO_2022,locale=zh")) {
            return CleanCutFinder(Family::iso2022);
        }
        if (name == "HZ") {
            return CleanCutFinder(Family::hz);
        }
        return std::nullopt;
    }

    /// Reads on through `bytes`; returns the position in `bytes` after the last line feed there that
    /// is a clean place, or none.
    std::optional<std::size_t> feed(std::span<const std::uint8_t> bytes) {
        std::optional<std::size_t> last;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (family_ == Family::iso2022 ? stepISO2022(bytes[i]) : stepHZ(bytes[i])) {
                last = i + 1;
            }
        }
        return last;
    }

private:
    /// One byte; true when it is a line feed that leaves a clean place after it.
    bool stepISO2022(std::uint8_t byte) {
        if (escape_ > 0) {
            // ESC, intermediate bytes 0x20-0x2F, then one final byte.
            if (byte >= 0x20 && byte <= 0x2F && escape_ < 4) {
                sequence_[escape_++] = byte;
                return false;
            }
            if (byte >= 0x30 && byte <= 0x7E) {
                finishEscape(byte);
            } else {
                g0IsASCII_ = false;     // not an escape anyone reads the same way: no clean place
            }
            escape_ = 0;
            return false;
        }
        if (singleShift_ > 0) {
            --singleShift_;
            return false;
        }
        switch (byte) {
        case 0x1B:
            escape_ = 1;
            return false;
        case 0x0E:
            shiftedOut_ = true;
            return false;
        case 0x0F:
            shiftedOut_ = false;
            return false;
        case 0x0A:
            return g0IsASCII_ && !shiftedOut_;
        default:
            return false;
        }
    }

    void finishEscape(std::uint8_t final) {
        const std::uint8_t first = escape_ > 1 ? sequence_[1] : 0;
        const std::uint8_t second = escape_ > 2 ? sequence_[2] : 0;
        if (escape_ == 1 && (final == 'N' || final == 'O')) {
            // A single shift: the next character, one byte (Japanese G2) or two (Chinese G2 and G3).
            // Two are passed over either way; at worst a line feed right after a one-byte character
            // is not taken as a clean place.
            singleShift_ = 2;
            return;
        }
        if (escape_ == 2 && first == '(') {
            g0IsASCII_ = final == 'B';          // ESC ( B is ASCII; J (Roman) and I (katakana) are not
        } else if ((escape_ == 2 && first == '$') || (escape_ == 3 && first == '$' && second == '(')) {
            g0IsASCII_ = false;                 // a double-byte set into G0
        }
        // Designations into G1, G2 and G3 change nothing read before a shift out or a single shift,
        // and the converters forget them at the line end.
    }

    /// HZ as its converter reads it: "~{" and "~}" switch between ASCII and pairs of GB 2312 bytes,
    /// "~~" is a tilde and "~" with a line feed joins two lines. A byte that cannot continue what came
    /// before but could start a character is read again as a start, as the converter does.
    bool stepHZ(std::uint8_t byte) {
        if (tilde_) {
            tilde_ = false;
            if (byte == '{' || byte == '}') {
                inGB_ = byte == '{';
                return false;
            }
            if (byte == '~' || byte == 0x0A) {
                return false;   // a tilde, or a joined line: no line end
            }
            if (!(inGB_ ? byte >= 0x21 && byte <= 0x7E : byte <= 0x7F)) {
                return false;
            }
        }
        if (inGB_) {
            if (lead_ >= 0) {
                const int lead = std::exchange(lead_, -1);
                const bool leadIsGood = lead >= 0x21 && lead <= 0x7D;
                const bool trailIsGood = byte >= 0x21 && byte <= 0x7E;
                if (leadIsGood || !trailIsGood) {
                    return false;   // one pair, read or unreadable
                }
                // Only the first byte was unreadable: this one starts the next pair.
            }
            if (byte == '~') {
                tilde_ = true;
            } else {
                lead_ = byte;
            }
            return false;
        }
        if (byte == '~') {
            tilde_ = true;
            return false;
        }
        return byte == 0x0A;
    }

    Family family_;
    // ISO-2022
    std::size_t escape_ = 0;            // bytes of an escape sequence read so far, ESC included
    std::array<std::uint8_t, 4> sequence_{};
    int singleShift_ = 0;               // bytes still to come of a single-shifted character
    bool g0IsASCII_ = true;
    bool shiftedOut_ = false;
    // HZ
    bool tilde_ = false;
    bool inGB_ = false;
    int lead_ = -1;                     // the first byte of a pair, or -1
};

/// Reads `source` in blocks from `start` and hands each to `body`; checks cancellation between blocks.
/// Returns false when cancelled.
template <typename Body>
bool forEachBlock(const ByteSource& source, std::int64_t start, const TranscodeOptions& options, Body&& body) {
    const std::int64_t total = source.count();
    const std::int64_t size = std::max<std::int64_t>(options.blockSize, 1);
    const auto* mapped = dynamic_cast<const MappedSource*>(&source);
    std::vector<std::uint8_t> block(
        mapped != nullptr ? 0 : static_cast<std::size_t>(std::min(size, std::max<std::int64_t>(total - start, 0))));
    for (std::int64_t offset = start; offset < total; offset += size) {
        if (options.isCancelled && options.isCancelled()) {
            return false;
        }
        const std::int64_t length = std::min(size, total - offset);
        if (offset + length > source.readableCount()) {
            throw BrimError(L("The file changed while it was being read."));
        }
        if (mapped != nullptr) {
            // Straight from the map: no copy of the block; a page the file no longer has reads as zeros.
            mapped->prefetch({offset + length, std::min(total, offset + 2 * length)});
            mapped->withBytes({offset, offset + length},
                              [&](std::span<const std::uint8_t> bytes) { body(bytes, offset + length); });
            // The pages read are let go of again (they stay in the page cache, and the map refills
            // them if touched): the process keeps a block or two of the file resident, not all of it.
            const auto page = static_cast<std::int64_t>(::getpagesize());
            const std::int64_t from = offset / page * page;
            const std::int64_t to = (offset + length) / page * page;
            if (to > from) {
                ::madvise(const_cast<std::uint8_t*>(mapped->base()) + from, static_cast<std::size_t>(to - from),
                          MADV_DONTNEED);
            }
        } else {
            block.resize(static_cast<std::size_t>(length));
            source.read({offset, offset + length}, block.data());
            body(std::span<const std::uint8_t>(block), offset + length);
        }
        if (options.progress) {
            options.progress(static_cast<double>(offset + length - start) / static_cast<double>(std::max<std::int64_t>(total - start, 1)));
        }
    }
    return true;
}

} // namespace

bool hasShiftState(const TextEncoding& encoding) { return isStatefulSet(encoding); }

std::filesystem::path workingCopiesDirectory() { return UserResources::root() / "WorkingCopies"; }

std::filesystem::path makeWorkingCopy() {
    const std::filesystem::path path = newCopyPath();
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        throw Failure::cannotCreate();
    }
    ::close(descriptor);
    return path;
}

std::filesystem::path writeWorkingCopy(std::span<const std::uint8_t> bytes) {
    CopyWriter writer(newCopyPath());
    writer.write(bytes);
    return writer.commit();
}

TranscodeOutcome transcodeToWorkingCopy(const ByteSource& source, const TextEncoding& from,
                                        const TranscodeOptions& options) {
    CopyWriter writer(newCopyPath());
    std::int64_t start = 0;
    if (options.stripBOM && startsWith(source, from.bom())) {
        start = static_cast<std::int64_t>(from.bom().size());
    }
    BlockConverter converter(from, TextEncoding::utf8());
    // A set with a shift state has checkpoints only where its state is provably the initial one; a set
    // whose clean places cannot be found has none that can be used.
    std::optional<CleanCutFinder> cleanCuts;
    if (options.checkpoints != nullptr) {
        options.checkpoints->add(0, start);
        if (isStatefulSet(from)) {
            cleanCuts = CleanCutFinder::forSet(from);
            if (!cleanCuts) {
                options.checkpoints->isUsable = false;
            }
        }
    }
    std::vector<std::uint8_t> out;
    auto check = [&] {
        if (!options.substituting && converter.report().invalid > 0) {
            throw Failure::invalidInput(from, converter.report().firstInvalidOffset.value_or(0) + start);
        }
    };
    // More than two blocks: written behind the conversion, on a thread of its own.
    const std::int64_t blockCount = (source.count() - start + std::max<std::int64_t>(options.blockSize, 1) - 1) /
                                    std::max<std::int64_t>(options.blockSize, 1);
    std::optional<WriteBehind> behind;
    if (blockCount > 2) {
        behind.emplace(writer);
    }
    auto emit = [&] {
        if (behind) {
            behind->submit(out);
        } else {
            writer.write(out);
        }
    };
    auto copyLength = [&] { return behind ? behind->submitted() : writer.written(); };
    auto convert = [&](std::span<const std::uint8_t> bytes) {
        out.clear();
        converter.convert(bytes, out);
        check();
        emit();
    };
    const bool finished = forEachBlock(source, start, options, [&](std::span<const std::uint8_t> block, std::int64_t end) {
        if (!cleanCuts) {
            convert(block);
            if (options.checkpoints != nullptr && converter.isAtCleanCut()) {
                options.checkpoints->add(copyLength(), end - converter.pending());
            }
            return;
        }
        // The block is converted in two parts, cut after its last clean line feed, so that the copy's
        // offset of that place is known. The converter's state runs on across the cut unchanged.
        const std::int64_t blockStart = end - static_cast<std::int64_t>(block.size());
        const std::optional<std::size_t> cut = cleanCuts->feed(block);
        if (!cut) {
            convert(block);
            return;
        }
        convert(block.first(*cut));
        if (converter.pending() == 0) {
            options.checkpoints->add(copyLength(), blockStart + static_cast<std::int64_t>(*cut));
        }
        if (*cut < block.size()) {
            convert(block.subspan(*cut));
        }
    });
    TranscodeOutcome outcome;
    if (!finished) {
        outcome.cancelled = true;
        outcome.report = converter.report();
        return outcome;     // the writer removes the half-made copy
    }
    out.clear();
    converter.finish(out);
    check();
    emit();
    if (behind) {
        behind->finish();
        behind.reset();
    }
    if (options.checkpoints != nullptr) {
        options.checkpoints->add(writer.written(), source.count());
    }
    outcome.bytesWritten = writer.written();
    outcome.report = converter.report();
    outcome.workingCopy = writer.commit();
    return outcome;
}

TranscodeOutcome normalizeBreaksToWorkingCopy(const ByteSource& source, std::span<const LineEnding> kinds,
                                              const TextEncoding& encoding, const TranscodeOptions& options) {
    CopyWriter writer(newCopyPath());
    const std::uint16_t mask = kindsMask(kinds);
    std::vector<std::uint8_t> out;
    TranscodeOutcome outcome;
    bool finished = false;
    if (breaksAreBytes(encoding)) {
        LineRewriter rewriter(formFor(encoding), mask, bytesIn(LineEnding::lf, encoding));
        finished = forEachBlock(source, 0, options, [&](std::span<const std::uint8_t> block, std::int64_t) {
            out.clear();
            rewriter.feed(block, out, false);
            writer.write(out);
        });
        if (finished) {
            out.clear();
            rewriter.feed({}, out, true);
            writer.write(out);
        }
    } else {
        // Breaks are found in the text: decode, rewrite, and encode back to the same set.
        BlockConverter decoder(encoding, TextEncoding::utf8());
        BlockConverter encoder(TextEncoding::utf8(), encoding);
        LineRewriter rewriter(LineRewriter::Form::utf8, mask, utf8Of(LineEnding::lf));
        std::vector<std::uint8_t> text;
        std::vector<std::uint8_t> rewritten;
        auto step = [&](std::span<const std::uint8_t> block, bool final) {
            text.clear();
            rewritten.clear();
            out.clear();
            if (final) {
                decoder.finish(text);
            } else {
                decoder.convert(block, text);
            }
            rewriter.feed(text, rewritten, final);
            encoder.convert(rewritten, out);
            if (final) {
                encoder.finish(out);
            }
            writer.write(out);
        };
        finished = forEachBlock(source, 0, options,
                                [&](std::span<const std::uint8_t> block, std::int64_t) { step(block, false); });
        if (finished) {
            step({}, true);
        }
        outcome.report = decoder.report();
        outcome.report.unwritable = encoder.report().unwritable;
    }
    if (!finished) {
        outcome.cancelled = true;
        return outcome;
    }
    outcome.bytesWritten = writer.written();
    outcome.workingCopy = writer.commit();
    return outcome;
}

std::vector<std::uint8_t> normalizeLineEndings(std::span<const std::uint8_t> bytes, LineEnding to,
                                               const TextEncoding& encoding, bool treatingPageBreaksAsLines) {
    std::vector<LineEnding> kinds = {LineEnding::lf, LineEnding::crlf, LineEnding::cr, LineEnding::nel,
                                     LineEnding::ls, LineEnding::ps, LineEnding::lfcr};
    if (treatingPageBreaksAsLines) {
        kinds.push_back(LineEnding::vt);
        kinds.push_back(LineEnding::ff);
    }
    const std::uint16_t mask = kindsMask(kinds);
    std::vector<std::uint8_t> out;
    if (breaksAreBytes(encoding)) {
        LineRewriter rewriter(formFor(encoding), mask, bytesIn(to, encoding));
        rewriter.feed(bytes, out, true);
        return out;
    }
    BlockConverter decoder(encoding, TextEncoding::utf8());
    std::vector<std::uint8_t> text;
    decoder.convert(bytes, text);
    decoder.finish(text);
    std::vector<std::uint8_t> rewritten;
    LineRewriter rewriter(LineRewriter::Form::utf8, mask, utf8Of(spelledIn(to, encoding)));
    rewriter.feed(text, rewritten, true);
    BlockConverter encoder(TextEncoding::utf8(), encoding);
    encoder.convert(rewritten, out);
    encoder.finish(out);
    return out;
}

std::size_t safeCut(std::span<const std::uint8_t> bytes) {
    const std::size_t count = bytes.size();
    const std::size_t floor = count > 16 ? count - 16 : 0;
    for (std::size_t i = count; i > floor; --i) {
        const std::uint8_t byte = bytes[i - 1];
        if (byte < 0x80 && (byte < 0x0A || byte > 0x0D)) {
            return i;
        }
    }
    if (count < 4) {
        return 0;
    }
    // Back over up to three continuation bytes to the lead byte of the last character.
    std::size_t cut = count;
    for (int steps = 0; steps < 4 && cut > 0; ++steps) {
        --cut;
        if ((bytes[cut] & 0xC0) != 0x80) {
            break;
        }
    }
    // Then off any CR or LF next to its partner.
    while (cut > 0 && (bytes[cut - 1] == 0x0D || bytes[cut - 1] == 0x0A) &&
           (cut == count || bytes[cut] == 0x0A || bytes[cut] == 0x0D)) {
        --cut;
    }
    return cut;
}

// MARK: abandoned working copies

namespace {

/// Every file below `directory` that some process of ours has open or mapped.
std::set<std::string> filesHeldOpen(const std::filesystem::path& directory) {
    std::set<std::string> held;
    std::error_code error;
    const std::string prefix = std::filesystem::weakly_canonical(directory, error).string() + "/";
    for (const auto& process : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = process.path().filename().string();
        if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::error_code ignored;
        for (const auto& descriptor : std::filesystem::directory_iterator(process.path() / "fd", ignored)) {
            std::error_code linkError;
            const std::string target = std::filesystem::read_symlink(descriptor.path(), linkError).string();
            if (!linkError && target.starts_with(prefix)) {
                held.insert(target);
            }
        }
        std::ifstream maps(process.path() / "maps");
        std::string line;
        while (std::getline(maps, line)) {
            if (const auto at = line.find(prefix); at != std::string::npos) {
                std::string path = line.substr(at);
                if (path.ends_with(" (deleted)")) {
                    continue;
                }
                held.insert(path);
            }
        }
    }
    return held;
}

} // namespace

std::vector<std::filesystem::path> abandonedWorkingCopies(std::chrono::seconds olderThan) {
    std::vector<std::filesystem::path> abandoned;
    const std::filesystem::path directory = workingCopiesDirectory();
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) {
        return abandoned;
    }
    const std::set<std::string> held = filesHeldOpen(directory);
    const auto now = std::filesystem::file_time_type::clock::now();
    const std::string canonicalDirectory = std::filesystem::weakly_canonical(directory, error).string();
    for (const auto& item : std::filesystem::directory_iterator(directory, error)) {
        std::error_code itemError;
        if (!item.is_regular_file(itemError)) {
            continue;
        }
        const std::string name = item.path().filename().string();
        if (!name.ends_with(copySuffix) && !name.ends_with(std::string(copySuffix) + std::string(partialSuffix))) {
            continue;
        }
        const auto modified = item.last_write_time(itemError);
        if (itemError || now - modified < olderThan) {
            continue;
        }
        if (held.contains(canonicalDirectory + "/" + name)) {
            continue;
        }
        abandoned.push_back(item.path());
    }
    std::sort(abandoned.begin(), abandoned.end());
    return abandoned;
}

std::size_t removeAbandonedWorkingCopies(std::chrono::seconds olderThan) {
    std::size_t removed = 0;
    for (const std::filesystem::path& path : abandonedWorkingCopies(olderThan)) {
        std::error_code error;
        if (std::filesystem::remove(path, error)) {
            ++removed;
        }
    }
    return removed;
}

} // namespace brim::Transcoder
