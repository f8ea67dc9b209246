#include "shell/ScrollMapping.h"

#include <algorithm>
#include <cmath>

namespace brim::shell::ScrollMapping {

int rangeFor(std::int64_t lastTop) {
    return static_cast<int>(std::clamp<std::int64_t>(lastTop, 0, maximumSteps));
}

std::int64_t byteForValue(int value, int range, std::int64_t lastTop) {
    if (range <= 0 || lastTop <= 0 || value <= 0) return 0;
    if (value >= range) return lastTop;
    // long double holds 64 bits of mantissa: a 2^30 step times a terabyte offset stays exact enough.
    const long double fraction = static_cast<long double>(value) / static_cast<long double>(range);
    const auto byte = static_cast<std::int64_t>(std::floor(fraction * static_cast<long double>(lastTop)));
    return std::clamp<std::int64_t>(byte, 0, lastTop);
}

int valueForByte(std::int64_t byte, int range, std::int64_t lastTop) {
    if (range <= 0 || lastTop <= 0 || byte <= 0) return 0;
    if (byte >= lastTop) return range;
    const long double fraction = static_cast<long double>(byte) / static_cast<long double>(lastTop);
    const auto value = static_cast<std::int64_t>(std::llround(fraction * static_cast<long double>(range)));
    // A byte past the start never shows as the very top, nor one before the end as the very end.
    return static_cast<int>(std::clamp<std::int64_t>(value, 1, std::max(1, range - 1)));
}

int pageStepFor(std::int64_t visibleBytes, int range, std::int64_t lastTop) {
    if (range <= 0 || lastTop <= 0) return 1;
    const long double fraction = static_cast<long double>(std::max<std::int64_t>(visibleBytes, 1)) /
                                 static_cast<long double>(lastTop);
    const auto step = static_cast<std::int64_t>(std::llround(fraction * static_cast<long double>(range)));
    return static_cast<int>(std::clamp<std::int64_t>(step, 1, range));
}

} // namespace brim::shell::ScrollMapping
