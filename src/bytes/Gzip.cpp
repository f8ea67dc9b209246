#include "bytes/Gzip.h"

#include "common/ByteFormatter.h"
#include "common/Localization.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <fstream>

namespace brim::Gzip {

namespace {

constexpr std::uint8_t flagHeaderCRC = 0x02;
constexpr std::uint8_t flagExtra = 0x04;
constexpr std::uint8_t flagName = 0x08;
constexpr std::uint8_t flagComment = 0x10;
/// zlib counts in 32-bit lengths; longer inputs go in pieces of this size.
constexpr std::size_t largestFeed = 1U << 30;
constexpr std::size_t outputBlock = 65'536;

std::uint32_t littleEndian32(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint32_t>(bytes[at]) | (static_cast<std::uint32_t>(bytes[at + 1]) << 8) |
           (static_cast<std::uint32_t>(bytes[at + 2]) << 16) |
           (static_cast<std::uint32_t>(bytes[at + 3]) << 24);
}

void appendLittleEndian32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

/// A raw inflate stream that ends itself.
struct Inflater {
    z_stream stream{};
    bool live = false;
    Inflater() { live = inflateInit2(&stream, -15) == Z_OK; }
    ~Inflater() {
        if (live) inflateEnd(&stream);
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
};

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

}  // namespace

Failure Failure::notGzip() {
    return {Kind::notGzip, L("This is not a gzip file.")};
}

Failure Failure::corrupt(const std::string& detail) {
    return {Kind::corrupt, L("The compressed data is damaged: %@", detail)};
}

Failure Failure::tooLarge(std::int64_t limit) {
    return {Kind::tooLarge,
            L("Unpacked it would be more than %@, which is more than Brim will hold in memory at once.",
              ByteFormatter::string(limit))};
}

bool isGzip(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= 3 && bytes[0] == 0x1F && bytes[1] == 0x8B && bytes[2] == 0x08;
}

bool looksCompressed(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::uint8_t head[3] = {0, 0, 0};
    if (!file.read(reinterpret_cast<char*>(head), 3)) return false;
    return isGzip(head);
}

int level(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < 10 || !isGzip(bytes)) return 6;
    switch (bytes[8]) {
    case 2: return 9;
    case 4: return 1;
    default: return 6;
    }
}

std::string uncompressedName(const std::string& name) {
    const std::string lower = lowercased(name);
    if (name.size() < 4 || !lower.ends_with(".gz") || lower.ends_with(".tar.gz")) return name;
    return name.substr(0, name.size() - 3);
}

std::optional<std::size_t> bodyStart(std::span<const std::uint8_t> bytes, std::size_t start) {
    if (start > bytes.size() || bytes.size() - start < 10) return std::nullopt;
    const auto header = bytes.subspan(start);
    if (header[0] != 0x1F || header[1] != 0x8B || header[2] != 0x08) return std::nullopt;
    const std::uint8_t flags = header[3];
    std::size_t at = 10;
    if ((flags & flagExtra) != 0) {
        if (header.size() < at + 2) return std::nullopt;
        at += 2 + (static_cast<std::size_t>(header[at]) | (static_cast<std::size_t>(header[at + 1]) << 8));
        if (at > header.size()) return std::nullopt;
    }
    for (const std::uint8_t field : {flagName, flagComment}) {
        if ((flags & field) == 0) continue;
        const auto zero = std::find(header.begin() + static_cast<std::ptrdiff_t>(at), header.end(), 0);
        if (zero == header.end()) return std::nullopt;
        at = static_cast<std::size_t>(zero - header.begin()) + 1;
    }
    if ((flags & flagHeaderCRC) != 0) {
        at += 2;
        if (at > header.size()) return std::nullopt;
    }
    return start + at;
}

std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> bytes, std::int64_t limit) {
    std::optional<std::size_t> body = bodyStart(bytes, 0);
    if (!body) throw Failure::notGzip();
    const auto ceiling = static_cast<std::size_t>(std::max<std::int64_t>(limit, 0)) + 1;
    std::vector<std::uint8_t> out;
    std::size_t produced = 0;
    while (true) {
        Inflater inflater;
        if (!inflater.live) throw Failure::corrupt(L("the decoder would not start"));
        z_stream& stream = inflater.stream;
        std::size_t consumed = *body;
        const std::size_t memberStart = produced;
        bool ended = false;
        while (!ended) {
            if (stream.avail_in == 0 && consumed < bytes.size()) {
                const std::size_t feed = std::min(bytes.size() - consumed, largestFeed);
                stream.next_in = const_cast<Bytef*>(bytes.data() + consumed);
                stream.avail_in = static_cast<uInt>(feed);
                consumed += feed;
            }
            if (produced >= ceiling) throw Failure::tooLarge(limit);
            // Room grows with what has come out, but never past one byte over the limit.
            const std::size_t room =
                std::min({std::max(outputBlock, produced / 2), ceiling - produced, largestFeed});
            if (out.size() < produced + room) out.resize(produced + room);
            stream.next_out = out.data() + produced;
            stream.avail_out = static_cast<uInt>(room);
            const int status = inflate(&stream, Z_NO_FLUSH);
            produced += room - stream.avail_out;
            switch (status) {
            case Z_STREAM_END: ended = true; break;
            case Z_OK: break;
            case Z_BUF_ERROR:
                if (stream.avail_in == 0 && consumed >= bytes.size())
                    throw Failure::corrupt(L("it is not as long as it says it is"));
                break;
            case Z_MEM_ERROR: throw Failure::corrupt(L("the decoder would not start"));
            default: throw Failure::corrupt(L("the deflate stream is not readable"));
            }
            if (!ended && stream.avail_in == 0 && consumed >= bytes.size() && stream.avail_out != 0) {
                throw Failure::corrupt(L("it is not as long as it says it is"));
            }
        }
        if (produced > ceiling - 1) throw Failure::tooLarge(limit);
        const std::size_t trailer = consumed - stream.avail_in;
        if (bytes.size() - trailer < 8) throw Failure::corrupt(L("it is not as long as it says it is"));
        const std::uint32_t crc = checksum(std::span(out).subspan(memberStart, produced - memberStart));
        if (crc != littleEndian32(bytes, trailer)) throw Failure::corrupt(L("the checksum does not match"));
        if (static_cast<std::uint32_t>(produced - memberStart) != littleEndian32(bytes, trailer + 4)) {
            throw Failure::corrupt(L("it is not as long as it says it is"));
        }
        const std::size_t next = trailer + 8;
        if (next == bytes.size() || std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(next),
                                                bytes.end(), [](std::uint8_t b) { return b == 0; })) {
            break;
        }
        body = bodyStart(bytes, next);
        if (!body) throw Failure::corrupt(L("there is something after the end that is not gzip"));
    }
    out.resize(produced);
    return out;
}

std::vector<std::uint8_t> unpackPrefix(std::span<const std::uint8_t> bytes, std::int64_t maxBytes) {
    const std::optional<std::size_t> body = bodyStart(bytes, 0);
    if (!body || maxBytes <= 0) return {};
    Inflater inflater;
    if (!inflater.live) return {};
    z_stream& stream = inflater.stream;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(maxBytes));
    std::size_t consumed = *body;
    std::size_t produced = 0;
    while (produced < out.size()) {
        if (stream.avail_in == 0) {
            if (consumed >= bytes.size()) break;  // cut short: what came out is the sample
            const std::size_t feed = std::min(bytes.size() - consumed, largestFeed);
            stream.next_in = const_cast<Bytef*>(bytes.data() + consumed);
            stream.avail_in = static_cast<uInt>(feed);
            consumed += feed;
        }
        const std::size_t room = std::min(out.size() - produced, largestFeed);
        stream.next_out = out.data() + produced;
        stream.avail_out = static_cast<uInt>(room);
        const int status = inflate(&stream, Z_NO_FLUSH);
        produced += room - stream.avail_out;
        if (status == Z_STREAM_END) break;
        if (status != Z_OK && status != Z_BUF_ERROR) return {};
        if (status == Z_BUF_ERROR && stream.avail_in == 0 && consumed >= bytes.size()) break;
    }
    out.resize(produced);
    return out;
}

std::uint32_t checksum(std::span<const std::uint8_t> bytes, std::uint32_t previous) {
    uLong crc = previous;
    for (std::size_t at = 0; at < bytes.size(); at += largestFeed) {
        const std::size_t length = std::min(bytes.size() - at, largestFeed);
        crc = crc32(crc, bytes.data() + at, static_cast<uInt>(length));
    }
    return static_cast<std::uint32_t>(crc);
}

struct Encoder::Stream {
    z_stream stream{};
};

Encoder::Encoder(std::optional<std::string> name, int level)
    : name_(std::move(name)), level_(level < 0 ? 6 : std::min(level, 9)),
      stream_(std::make_unique<Stream>()) {
    if (name_) name_ = name_->substr(0, name_->find('\0'));
    if (deflateInit2(&stream_->stream, level_, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw Failure::corrupt(L("the decoder would not start"));
    }
    started_ = true;
}

Encoder::~Encoder() {
    if (started_) deflateEnd(&stream_->stream);
}

std::vector<std::uint8_t> Encoder::header() const {
    std::vector<std::uint8_t> out{0x1F, 0x8B, 0x08, static_cast<std::uint8_t>(name_ ? flagName : 0),
                                  0,    0,    0,    0};
    out.push_back(level_ == 9 ? 2 : (level_ == 1 ? 4 : 0));
    out.push_back(3);  // Unix
    if (name_) {
        out.insert(out.end(), name_->begin(), name_->end());
        out.push_back(0);
    }
    return out;
}

std::vector<std::uint8_t> Encoder::process(std::span<const std::uint8_t> bytes) {
    std::vector<std::uint8_t> out;
    if (!started_ || bytes.empty()) return out;
    crc_ = checksum(bytes, crc_);
    size_ += static_cast<std::uint32_t>(bytes.size());
    z_stream& stream = stream_->stream;
    std::uint8_t block[outputBlock];
    for (std::size_t at = 0; at < bytes.size(); at += largestFeed) {
        const std::size_t feed = std::min(bytes.size() - at, largestFeed);
        stream.next_in = const_cast<Bytef*>(bytes.data() + at);
        stream.avail_in = static_cast<uInt>(feed);
        do {
            stream.next_out = block;
            stream.avail_out = static_cast<uInt>(outputBlock);
            deflate(&stream, Z_NO_FLUSH);
            out.insert(out.end(), block, block + (outputBlock - stream.avail_out));
        } while (stream.avail_out == 0 || stream.avail_in > 0);
    }
    return out;
}

std::vector<std::uint8_t> Encoder::finish() {
    std::vector<std::uint8_t> out;
    if (!started_) return out;
    z_stream& stream = stream_->stream;
    std::uint8_t block[outputBlock];
    stream.next_in = nullptr;
    stream.avail_in = 0;
    int status = Z_OK;
    do {
        stream.next_out = block;
        stream.avail_out = static_cast<uInt>(outputBlock);
        status = deflate(&stream, Z_FINISH);
        out.insert(out.end(), block, block + (outputBlock - stream.avail_out));
    } while (status == Z_OK || (status == Z_BUF_ERROR && stream.avail_out == 0));
    appendLittleEndian32(out, crc_);
    appendLittleEndian32(out, size_);
    deflateEnd(&stream);
    started_ = false;
    return out;
}

}  // namespace brim::Gzip
