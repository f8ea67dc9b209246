#pragma once

#include <cstdint>

namespace brim::shell::ScrollMapping {

/// Qt's scroll bars count in 32-bit integers, so a document's position is kept as a byte offset and the
/// bar only ever shows a fraction of it. The bar's range never exceeds this many steps.
inline constexpr int maximumSteps = 1 << 30;

/// The range for a document whose last page starts at `lastTop`: one step per byte while that fits,
/// else `maximumSteps`. Never negative.
[[nodiscard]] int rangeFor(std::int64_t lastTop);

/// The byte a bar at `value` (0 to `range`) stands for, from 0 to `lastTop`; the bar's end is exactly
/// `lastTop`, its start exactly 0.
[[nodiscard]] std::int64_t byteForValue(int value, int range, std::int64_t lastTop);

/// Where the bar stands for a first visible byte `byte`: its fraction of `lastTop`, rounded to the
/// nearest step; `range` at or past `lastTop`.
[[nodiscard]] int valueForByte(std::int64_t byte, int range, std::int64_t lastTop);

/// The bar's page step for a screen holding about `visibleBytes`: at least one step.
[[nodiscard]] int pageStepFor(std::int64_t visibleBytes, int range, std::int64_t lastTop);

} // namespace brim::shell::ScrollMapping
