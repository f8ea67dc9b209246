#include "search/DocumentText.h"

#include "bytes/PieceTable.h"
#include "charsets/TextEncoding.h"
#include "store/TextDocument.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace brim {

namespace {

/// How the characters of a multi-byte set are built, as far as finding where they begin goes.
enum class Shape : std::uint8_t {
    shiftJIS,    ///< 0x81-0x9F and 0xE0-0xFC lead a pair; the second byte may be 0x40-0xFC
    eucJP,       ///< 0x8F leads three bytes, 0x8E and 0xA1-0xFE two; every byte of them is 0x80 or more
    eucTW,       ///< 0x8E leads four bytes, 0xA1-0xFE two
    gb18030,     ///< 0x81-0xFE leads a pair, or four bytes when a digit follows it
    doubleByte,  ///< 0x81-0xFE leads a pair (GBK, Big5, UHC, EUC-KR and the like)
};

Shape shapeOf(const std::string& id) {
    if (id == "cp932" || id == "macjapanese" || id.find("sjis") != std::string::npos ||
        id.find("shiftjis") != std::string::npos) {
        return Shape::shiftJIS;
    }
    if (id.find("eucjp") != std::string::npos || id.find("eucjis") != std::string::npos) return Shape::eucJP;
    if (id == "euctw") return Shape::eucTW;
    if (id == "gb18030") return Shape::gb18030;
    return Shape::doubleByte;
}

/// Bytes below this are never part of a longer character, so a character begins right after one.
std::uint8_t standsAloneBelow(Shape shape) {
    switch (shape) {
    case Shape::shiftJIS: return 0x40;
    case Shape::eucJP:
    case Shape::eucTW: return 0x80;
    case Shape::gb18030:
    case Shape::doubleByte: return 0x30;  // GB18030's four-byte forms hold digits; Johab's second bytes go down to 0x31
    }
    return 0x30;
}

std::size_t lengthAt(Shape shape, std::span<const std::uint8_t> bytes, std::size_t at) {
    const std::uint8_t b = bytes[at];
    std::size_t length = 1;
    if (b >= 0x80) {
        switch (shape) {
        case Shape::shiftJIS: length = (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC) ? 2 : 1; break;
        case Shape::eucJP: length = b == 0x8F ? 3 : (b == 0x8E || (b >= 0xA1 && b <= 0xFE) ? 2 : 1); break;
        case Shape::eucTW: length = b == 0x8E ? 4 : (b >= 0xA1 && b <= 0xFE ? 2 : 1); break;
        case Shape::gb18030:
            if (b >= 0x81 && b <= 0xFE) {
                length = at + 1 < bytes.size() && bytes[at + 1] >= 0x30 && bytes[at + 1] <= 0x39 ? 4 : 2;
            }
            break;
        case Shape::doubleByte: length = b >= 0x81 && b <= 0xFE ? 2 : 1; break;
        }
    }
    return std::min(length, bytes.size() - at);
}

/// How far back the start of a character is looked for: as far as a line is decoded whole.
constexpr std::int64_t lookback = 1'048'576;
constexpr std::int64_t backStep = 4'096;

std::int64_t characterStart(Shape shape, const ByteSource& source, std::int64_t offset) {
    const std::int64_t count = source.count();
    if (offset <= 0 || offset >= count) return std::clamp<std::int64_t>(offset, 0, count);
    const std::uint8_t alone = standsAloneBelow(shape);
    if (source.byte(offset) < alone) return offset;
    // The last byte before `offset` that is a character by itself: the walk starts after it.
    const std::int64_t floor = std::max<std::int64_t>(0, offset - lookback);
    std::int64_t walkFrom = floor;
    for (std::int64_t upper = offset; upper > floor;) {
        const std::int64_t lower = std::max(floor, upper - backStep);
        std::int64_t found = -1;
        source.withBytes({lower, upper}, [&](std::span<const std::uint8_t> bytes) {
            for (std::size_t i = bytes.size(); i > 0; --i) {
                if (bytes[i - 1] < alone) {
                    found = lower + static_cast<std::int64_t>(i - 1);
                    return;
                }
            }
        });
        if (found >= 0) {
            walkFrom = found + 1;
            break;
        }
        upper = lower;
    }
    // Whole characters from there up to the one that holds `offset`; a few bytes past it tell
    // GB18030's four-byte forms.
    std::int64_t start = offset;
    source.withBytes({walkFrom, std::min(count, offset + 4)}, [&](std::span<const std::uint8_t> bytes) {
        std::size_t at = 0;
        while (at < bytes.size()) {
            const std::size_t length = lengthAt(shape, bytes, at);
            if (walkFrom + static_cast<std::int64_t>(at + length) > offset) {
                start = walkFrom + static_cast<std::int64_t>(at);
                return;
            }
            at += length;
        }
    });
    return start;
}

std::shared_ptr<const SearchEncoding> makeSearchEncoding(const TextEncoding& encoding) {
    auto made = std::make_shared<SearchEncoding>();
    made->encode = [encoding](std::string_view text) -> std::optional<std::string> {
        const EncodedText encoded = encoding.encode(text);
        if (encoded.unwritable > 0) return std::nullopt;
        return std::string(encoded.bytes.begin(), encoded.bytes.end());
    };
    made->decode = [encoding](std::span<const std::uint8_t> bytes) { return encoding.decode(bytes); };
    made->encodedLength = [encoding](std::string_view text) {
        return static_cast<std::int64_t>(encoding.encode(text).bytes.size());
    };
    made->asciiCompatible = encoding.asciiCompatible && !encoding.stateful && !encoding.unicodeUnitWidth();
    if (made->asciiCompatible && !encoding.isSingleByte()) {
        const Shape shape = shapeOf(encoding.id);
        made->characterLength = [shape](std::span<const std::uint8_t> bytes, std::size_t at) {
            return lengthAt(shape, bytes, at);
        };
        made->characterStart = [shape](const ByteSource& source, std::int64_t offset) {
            return characterStart(shape, source, offset);
        };
    }
    return made;
}

} // namespace

std::shared_ptr<const SearchEncoding> searchEncoding(const TextEncoding& encoding) {
    if (encoding.id == "utf8") return nullptr;
    // Made once a set: a search of many files in one set shares it.
    static std::mutex lock;
    static std::map<std::string, std::shared_ptr<const SearchEncoding>> made;  // guarded by lock
    std::lock_guard guard(lock);
    auto& entry = made[encoding.id];
    if (!entry) entry = makeSearchEncoding(encoding);
    return entry;
}

// MARK: PieceTableSource

std::int64_t PieceTableSource::count() const { return table_.byteCount(); }

void PieceTableSource::withBytes(ByteRange range, const std::function<void(std::span<const std::uint8_t>)>& body) const {
    // A scratch buffer for each level of nesting in this thread: the body may read again (a
    // character start looked up while a block is scanned).
    thread_local std::deque<std::vector<std::uint8_t>> scratches;
    thread_local std::size_t depth = 0;
    if (scratches.size() <= depth) scratches.emplace_back();
    std::vector<std::uint8_t>& scratch = scratches[depth];
    ++depth;
    try {
        table_.withBytes(range, scratch, body);
    } catch (...) {
        --depth;
        throw;
    }
    --depth;
}

void PieceTableSource::read(ByteRange range, std::uint8_t* destination) const {
    withBytes(range, [destination](std::span<const std::uint8_t> bytes) {
        if (!bytes.empty()) std::memcpy(destination, bytes.data(), bytes.size());
    });
}

// MARK: DocumentText

DocumentText::DocumentText(const TextDocument& document) : encoding_(searchEncoding(document.encoding)) {
    const PieceTable& table = document.table();
    if (table.isPristine()) {
        bytes_ = table.originalSource();
    } else {
        bytes_ = std::make_shared<PieceTableSource>(table);
    }
}

DocumentText::DocumentText(std::shared_ptr<const ByteSource> bytes, const TextEncoding& encoding)
    : bytes_(std::move(bytes)), encoding_(searchEncoding(encoding)) {}

} // namespace brim
