#include "bytes/ByteScan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace brim {
namespace {

std::int64_t naiveCount(const std::vector<std::uint8_t>& bytes, std::size_t from, std::size_t length) {
    return std::count(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                      bytes.begin() + static_cast<std::ptrdiff_t>(from + length), 0x0A);
}

/// Random bytes where roughly one in `spacing` is a newline, with 0x0A's neighbours (0x0B,
/// 0x8A, 0x09) mixed in, since a faulty word trick confuses them.
std::vector<std::uint8_t> randomBytes(std::size_t size, int spacing, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(size);
    const std::uint8_t tricky[] = {0x0B, 0x8A, 0x09, 0x0A ^ 0x80, 0x00, 0xFF};
    for (auto& byte : bytes) {
        const auto roll = random() % static_cast<unsigned>(spacing);
        if (roll == 0)
            byte = 0x0A;
        else if (roll == 1)
            byte = tricky[random() % std::size(tricky)];
        else
            byte = static_cast<std::uint8_t>('a' + random() % 26);
    }
    return bytes;
}

TEST(ByteScan, countsNewlinesAtEveryAlignmentAndLength) {
    for (int spacing : {1, 2, 3, 16, 200}) {
        const auto bytes = randomBytes(5'000, spacing, static_cast<unsigned>(spacing));
        for (std::size_t start = 0; start < 70; ++start) {
            for (std::size_t length :
                 {0ul, 1ul, 7ul, 8ul, 15ul, 63ul, 64ul, 65ul, 128ul, 4'031ul, 4'032ul, 4'033ul, 4'900ul}) {
                SCOPED_TRACE(::testing::Message()
                             << "spacing " << spacing << " start " << start << " length " << length);
                ASSERT_EQ(ByteScan::countNewlines(bytes.data() + start, static_cast<std::int64_t>(length)),
                          naiveCount(bytes, start, length));
            }
        }
    }
    // All newlines: every lane of the vector sum is at its fullest for the longest run.
    const std::vector<std::uint8_t> allNewlines(100'000, 0x0A);
    EXPECT_EQ(ByteScan::countNewlines(allNewlines.data(), 100'000), 100'000);
    EXPECT_EQ(ByteScan::countNewlines(nullptr, 10), 0);
}

TEST(ByteScan, findsTheNthNewlineOrCountsThemAll) {
    for (int spacing : {1, 5, 90, 3'000}) {
        const auto bytes = randomBytes(20'000, spacing, 99u + static_cast<unsigned>(spacing));
        std::vector<std::int64_t> positions;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (bytes[i] == 0x0A) positions.push_back(static_cast<std::int64_t>(i));
        }
        const auto total = static_cast<std::int64_t>(positions.size());
        std::mt19937 random(7);
        for (int trial = 0; trial < 300; ++trial) {
            const std::int64_t n =
                total == 0 ? 0 : static_cast<std::int64_t>(random() % static_cast<unsigned>(total + 2));
            SCOPED_TRACE(::testing::Message() << "spacing " << spacing << " n " << n);
            std::int64_t passed = -1;
            const std::int64_t found =
                ByteScan::findNewline(bytes.data(), static_cast<std::int64_t>(bytes.size()), n, passed);
            if (n < total) {
                ASSERT_EQ(found, positions[static_cast<std::size_t>(n)]);
                ASSERT_EQ(passed, n);
            } else {
                ASSERT_EQ(found, -1);
                ASSERT_EQ(passed, total);
            }
        }
    }
    const auto text = std::vector<std::uint8_t>{'a', 'b'};
    std::int64_t passed = 0;
    EXPECT_EQ(ByteScan::findNewline(text.data(), 2, 0, passed), -1);
    EXPECT_EQ(ByteScan::firstNewline(text.data(), 2), -1);
}

}  // namespace
}  // namespace brim
