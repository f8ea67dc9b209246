#pragma once

#include <cstdint>
#include <string>

namespace brim::ByteFormatter {

/// A size in the style of a file manager, decimal units, no shortening into words:
/// "0 bytes", "1 byte", "999 bytes", "2 KB", "1.5 MB", "536.9 MB", "10.74 GB".
[[nodiscard]] std::string string(std::int64_t count);

/// An integer with thousands grouping: "20,300,000".
[[nodiscard]] std::string decimal(std::int64_t count);

/// A count of lines in words: "1 line", "20,300,000 lines".
[[nodiscard]] std::string lines(std::int64_t count);

} // namespace brim::ByteFormatter
