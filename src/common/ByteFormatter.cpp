#include "common/ByteFormatter.h"

#include "common/Localization.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace brim::ByteFormatter {

namespace {

std::string trimmed(double value, int decimals) {
    std::array<char, 64> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%.*f", decimals, value);
    std::string text(buffer.data());
    if (text.find('.') != std::string::npos) {
        while (!text.empty() && text.back() == '0') text.pop_back();
        if (!text.empty() && text.back() == '.') text.pop_back();
    }
    return text;
}

} // namespace

std::string string(std::int64_t count) {
    if (count < 0) count = 0;
    if (count < 1'000) return count == 1 ? L("1 byte") : L("%@ bytes", std::to_string(count));
    static constexpr std::array<const char*, 6> units{"KB", "MB", "GB", "TB", "PB", "EB"};
    static constexpr std::array<int, 6> decimals{0, 1, 2, 2, 2, 2};
    double value = static_cast<double>(count) / 1'000.0;
    std::size_t unit = 0;
    // Round first, so 999,999 bytes reads "1 MB" rather than "1,000 KB".
    while (unit + 1 < units.size()) {
        const double scale = std::pow(10.0, decimals[unit]);
        if (std::round(value * scale) / scale < 1'000.0) break;
        value /= 1'000.0;
        ++unit;
    }
    return trimmed(value, decimals[unit]) + " " + units[unit];
}

std::string decimal(std::int64_t count) {
    const bool negative = count < 0;
    // The magnitude in unsigned arithmetic, so the most negative number has one too.
    const std::uint64_t magnitude = negative ? 0 - static_cast<std::uint64_t>(count) : static_cast<std::uint64_t>(count);
    std::string digits = std::to_string(magnitude);
    std::string out;
    const std::size_t lead = digits.size() % 3;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (i % 3) == lead % 3) out.push_back(',');
        out.push_back(digits[i]);
    }
    if (!out.empty() && out.front() == ',') out.erase(0, 1);
    return negative ? "-" + out : out;
}

std::string lines(std::int64_t count) {
    return count == 1 ? L("1 line") : L("%@ lines", decimal(count));
}

} // namespace brim::ByteFormatter
