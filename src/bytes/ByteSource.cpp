#include "bytes/ByteSource.h"

#include <algorithm>

namespace brim {

std::vector<std::uint8_t> ByteSource::data(ByteRange range) const {
    const std::int64_t readable = readableCount();
    const std::int64_t lower = std::clamp<std::int64_t>(range.lower, 0, readable);
    const std::int64_t upper = std::clamp<std::int64_t>(range.upper, lower, readable);
    std::vector<std::uint8_t> out(static_cast<std::size_t>(upper - lower));
    if (!out.empty()) {
        withBytes({lower, upper}, [&](std::span<const std::uint8_t> bytes) {
            std::copy_n(bytes.begin(), std::min(bytes.size(), out.size()), out.begin());
        });
    }
    return out;
}

std::uint8_t ByteSource::byte(std::int64_t offset) const {
    if (offset < 0 || offset >= readableCount()) return 0;
    std::uint8_t value = 0;
    withBytes({offset, offset + 1}, [&](std::span<const std::uint8_t> bytes) {
        if (!bytes.empty()) value = bytes.front();
    });
    return value;
}

}  // namespace brim
