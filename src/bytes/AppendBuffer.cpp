#include "bytes/AppendBuffer.h"

#include <cstring>

namespace brim {

std::int64_t AppendBuffer::append(std::span<const std::uint8_t> bytes) {
    const auto start = static_cast<std::int64_t>(bytes_.size());
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return start;
}

void AppendBuffer::read(ByteRange range, std::uint8_t* destination) const {
    const ByteRange clamped = range.clampedTo(count());
    if (clamped.empty()) return;
    std::memcpy(destination, bytes_.data() + clamped.lower, static_cast<std::size_t>(clamped.length()));
}

void AppendBuffer::withBytes(ByteRange range,
                             const std::function<void(std::span<const std::uint8_t>)>& body) const {
    const ByteRange clamped = range.clampedTo(count());
    body(std::span<const std::uint8_t>(bytes_.data() + clamped.lower,
                                       static_cast<std::size_t>(clamped.length())));
}

}  // namespace brim
