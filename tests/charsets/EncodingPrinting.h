#pragma once

#include "charsets/TextEncoding.h"

#include <ostream>

namespace brim {

/// Test failures name a set by its id rather than by its bytes.
inline void PrintTo(const TextEncoding& encoding, std::ostream* out) { *out << encoding.id; }

} // namespace brim
