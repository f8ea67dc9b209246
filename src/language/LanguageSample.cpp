#include "language/LanguageSample.h"

#include "bytes/Gzip.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace brim::LanguageSample {
namespace {

/// Compressed bytes read to unpack a sample: enough for even incompressible data to yield
/// `sampleBytes`, and a fixed cost however large the file.
inline constexpr std::size_t compressedReadLimit = 1'048'576;

constexpr char replacement[] = "\xEF\xBF\xBD";

/// Reads up to `limit` bytes from the start of the file; nothing if it cannot be read.
std::optional<std::vector<std::uint8_t>> readHead(const std::string& path, std::size_t limit) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(limit);
    std::size_t filled = 0;
    bool failed = false;
    while (filled < limit) {
        const auto got = ::read(descriptor, bytes.data() + filled, limit - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            failed = true;
            break;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    ::close(descriptor);
    if (failed) {
        return std::nullopt;
    }
    bytes.resize(filled);
    return bytes;
}

} // namespace

std::string decodeRepairingUTF8(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size());
    std::size_t position = 0;
    const auto size = bytes.size();
    while (position < size) {
        const auto lead = bytes[position];
        if (lead < 0x80) {
            text.push_back(static_cast<char>(lead));
            ++position;
            continue;
        }
        std::size_t length = 0;
        std::uint8_t lowest = 0x80;
        std::uint8_t highest = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            lowest = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
            highest = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            lowest = lead == 0xF0 ? 0x90 : 0x80;
            highest = lead == 0xF4 ? 0x8F : 0xBF;
        }
        if (length == 0) {
            text += replacement;
            ++position;
            continue;
        }
        // The longest valid start of the sequence; a maximal bad prefix becomes one U+FFFD.
        std::size_t valid = 1;
        while (valid < length && position + valid < size) {
            const auto next = bytes[position + valid];
            const auto low = valid == 1 ? lowest : std::uint8_t{0x80};
            const auto high = valid == 1 ? highest : std::uint8_t{0xBF};
            if (next < low || next > high) {
                break;
            }
            ++valid;
        }
        if (valid == length) {
            text.append(reinterpret_cast<const char*>(bytes.data() + position), length);
        } else if (position + valid == size) {
            break;   // cut by the sample's end, not bad
        } else {
            text += replacement;
        }
        position += valid;
    }
    return text;
}

std::optional<std::string> read(const std::string& path) {
    auto head = readHead(path, static_cast<std::size_t>(sampleBytes));
    if (!head) {
        return std::nullopt;
    }
    if (Gzip::isGzip(*head)) {
        head = readHead(path, compressedReadLimit);
        if (!head) {
            return std::nullopt;
        }
        // Unpacked with no checks at the end: a damaged tail still leaves a readable head.
        *head = Gzip::unpackPrefix(*head, sampleBytes);
    }
    const auto count = std::min(head->size(), static_cast<std::size_t>(sampleBytes));
    return decodeRepairingUTF8(std::span(head->data(), count));
}

} // namespace brim::LanguageSample
