#include "charsets/LossyUTF8.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <unordered_map>

namespace brim::LossyUTF8 {

namespace {

constexpr std::size_t storeLimit = 513;

bool isContinuation(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

struct Store {
    std::mutex lock;
    std::atomic<std::size_t> count{0};                                   // read without the lock first
    std::unordered_map<std::string, std::vector<std::uint8_t>> rawByText; // guarded by lock
    std::deque<std::string> order;                                        // guarded by lock; oldest first
};

Store& store() {
    static Store shared;
    return shared;
}

void appendReplacement(std::string& out) { out.append("\xEF\xBF\xBD"); }

} // namespace

Step step(std::span<const std::uint8_t> bytes, std::size_t offset) {
    const std::uint8_t lead = bytes[offset];
    if (lead < 0x80) return {1, true};
    std::size_t needed = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        needed = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        needed = 2;
        if (lead == 0xE0) low = 0xA0;       // overlong below U+0800
        if (lead == 0xED) high = 0x9F;      // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        needed = 3;
        if (lead == 0xF0) low = 0x90;       // overlong below U+10000
        if (lead == 0xF4) high = 0x8F;      // above U+10FFFF
    } else {
        return {1, false};
    }
    std::size_t length = 1;
    for (std::size_t k = 0; k < needed; ++k) {
        const std::size_t at = offset + length;
        if (at >= bytes.size()) return {static_cast<std::uint8_t>(length), false};
        const std::uint8_t byte = bytes[at];
        const std::uint8_t min = k == 0 ? low : std::uint8_t{0x80};
        const std::uint8_t max = k == 0 ? high : std::uint8_t{0xBF};
        if (byte < min || byte > max) return {static_cast<std::uint8_t>(length), false};
        ++length;
    }
    return {static_cast<std::uint8_t>(length), true};
}

std::string repaired(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        // Runs of ASCII are copied without stepping byte by byte through the rules.
        std::size_t run = i;
        while (run < bytes.size() && bytes[run] < 0x80) ++run;
        if (run > i) {
            out.append(reinterpret_cast<const char*>(bytes.data() + i), run - i);
            i = run;
            if (i >= bytes.size()) break;
        }
        const Step s = step(bytes, i);
        if (s.valid) {
            out.append(reinterpret_cast<const char*>(bytes.data() + i), s.length);
        } else {
            appendReplacement(out);
        }
        i += s.length;
    }
    return out;
}

bool isValid(std::span<const std::uint8_t> bytes) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        if (bytes[i] < 0x80) {
            ++i;
            continue;
        }
        const Step s = step(bytes, i);
        if (!s.valid) return false;
        i += s.length;
    }
    return true;
}

void remember(const std::string& text, std::span<const std::uint8_t> raw) {
    Store& shared = store();
    std::lock_guard guard(shared.lock);
    auto [position, inserted] = shared.rawByText.try_emplace(text, raw.begin(), raw.end());
    if (!inserted) {
        position->second.assign(raw.begin(), raw.end());
        return;
    }
    shared.order.push_back(text);
    while (shared.order.size() > storeLimit) {
        shared.rawByText.erase(shared.order.front());
        shared.order.pop_front();
    }
    shared.count.store(shared.rawByText.size(), std::memory_order_release);
}

std::optional<std::vector<std::uint8_t>> raw(const std::string& text) {
    Store& shared = store();
    if (shared.count.load(std::memory_order_acquire) == 0) return std::nullopt;
    std::lock_guard guard(shared.lock);
    const auto found = shared.rawByText.find(text);
    if (found == shared.rawByText.end()) return std::nullopt;
    return found->second;
}

std::string decodeRemembering(std::span<const std::uint8_t> bytes) {
    std::string text = repaired(bytes);
    if (text.size() != bytes.size() || !std::equal(bytes.begin(), bytes.end(), text.begin(), [](std::uint8_t a, char b) {
            return a == static_cast<std::uint8_t>(b);
        })) {
        remember(text, bytes);
    }
    return text;
}

void forgetAll() {
    Store& shared = store();
    std::lock_guard guard(shared.lock);
    shared.rawByText.clear();
    shared.order.clear();
    shared.count.store(0, std::memory_order_release);
}

namespace {

// The UTF-16 units the sequence at `offset` stands for in the repaired text.
std::int64_t unitsOf(std::span<const std::uint8_t> bytes, std::size_t offset, const Step& s) {
    return s.valid && s.length == 4 && isContinuation(bytes[offset + 1]) ? 2 : 1;
}

} // namespace

std::int64_t utf16Index(std::int64_t offset, std::span<const std::uint8_t> bytes) {
    if (offset < 1) return 0;
    std::int64_t units = 0;
    std::size_t i = 0;
    while (i < bytes.size() && static_cast<std::int64_t>(i) < offset) {
        const Step s = step(bytes, i);
        units += unitsOf(bytes, i, s);
        i += s.length;
    }
    return units;
}

std::int64_t byteLength(std::int64_t utf16Count, std::span<const std::uint8_t> bytes) {
    if (utf16Count < 1) return 0;
    std::int64_t units = 0;
    std::size_t i = 0;
    while (i < bytes.size() && units < utf16Count) {
        const Step s = step(bytes, i);
        units += unitsOf(bytes, i, s);
        i += s.length;
    }
    return static_cast<std::int64_t>(i);
}

std::vector<std::int64_t> byteOffsets(std::span<const std::uint8_t> bytes) {
    std::vector<std::int64_t> offsets;
    offsets.reserve(bytes.size() + 1);
    std::size_t i = 0;
    while (i < bytes.size()) {
        const Step s = step(bytes, i);
        const std::int64_t units = unitsOf(bytes, i, s);
        for (std::int64_t k = 0; k < units; ++k) offsets.push_back(static_cast<std::int64_t>(i));
        i += s.length;
    }
    offsets.push_back(static_cast<std::int64_t>(bytes.size()));
    return offsets;
}

} // namespace brim::LossyUTF8
