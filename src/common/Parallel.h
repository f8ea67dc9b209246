#pragma once

#include <cstddef>
#include <functional>

namespace brim {

/// Runs `body(i)` for every i in [0, count) on a small process-wide pool of threads (one per
/// processor, the calling thread included) and returns when all have finished. Iterations may run
/// in any order and at the same time; `body` must not throw.
void parallelFor(std::size_t count, const std::function<void(std::size_t)>& body);

/// The number of processors the pool uses, at least 1.
[[nodiscard]] std::size_t activeProcessorCount();

} // namespace brim
