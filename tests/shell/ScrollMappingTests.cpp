#include "shell/ScrollMapping.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace brim::shell {
namespace {

TEST(ScrollMapping, smallDocumentsGetOneStepPerByteAndMapExactly) {
    const std::int64_t lastTop = 12'345;
    const int range = ScrollMapping::rangeFor(lastTop);
    EXPECT_EQ(range, 12'345);
    for (const std::int64_t byte : {0LL, 1LL, 77LL, 6'000LL, 12'344LL, 12'345LL}) {
        SCOPED_TRACE(byte);
        EXPECT_EQ(ScrollMapping::byteForValue(ScrollMapping::valueForByte(byte, range, lastTop), range, lastTop), byte);
    }
    EXPECT_EQ(ScrollMapping::rangeFor(0), 0);
    EXPECT_EQ(ScrollMapping::byteForValue(5, 0, 0), 0);
}

TEST(ScrollMapping, twentyGigabytesFitQtsRangeAndScrollSmoothly) {
    const std::int64_t lastTop = 20LL * 1'000'000'000LL;
    const int range = ScrollMapping::rangeFor(lastTop);
    EXPECT_EQ(range, ScrollMapping::maximumSteps);
    EXPECT_EQ(ScrollMapping::byteForValue(0, range, lastTop), 0);
    EXPECT_EQ(ScrollMapping::byteForValue(range, range, lastTop), lastTop);
    // One step is a few bytes, not a fraction of a screen: dragging the bar lands where it points.
    const std::int64_t step = ScrollMapping::byteForValue(1, range, lastTop);
    EXPECT_GT(step, 0);
    EXPECT_LT(step, 32);
    std::int64_t previous = -1;
    for (int value = 0; value <= range; value += range / 1'000) {
        const std::int64_t byte = ScrollMapping::byteForValue(value, range, lastTop);
        ASSERT_GT(byte, previous) << value;
        previous = byte;
        // Going back to the bar lands on the same value (within rounding of one step).
        EXPECT_NEAR(ScrollMapping::valueForByte(byte, range, lastTop), value, 1);
    }
    // The middle of the file is the middle of the bar.
    EXPECT_EQ(ScrollMapping::valueForByte(lastTop / 2, range, lastTop), range / 2);
}

TEST(ScrollMapping, theEndsAreOnlyForTheEnds) {
    const std::int64_t lastTop = 30LL * 1'000'000'000LL;
    const int range = ScrollMapping::rangeFor(lastTop);
    // A byte just past the top is not shown as the top, one just before the end not as the end, so the
    // bar never claims the view sits at an end it has not reached.
    EXPECT_EQ(ScrollMapping::valueForByte(1, range, lastTop), 1);
    EXPECT_EQ(ScrollMapping::valueForByte(lastTop - 1, range, lastTop), range - 1);
    EXPECT_EQ(ScrollMapping::valueForByte(lastTop + 500, range, lastTop), range);
    EXPECT_EQ(ScrollMapping::valueForByte(-3, range, lastTop), 0);
}

TEST(ScrollMapping, pageStepIsAScreensShareOfTheBar) {
    const std::int64_t lastTop = 10LL * 1'000'000'000LL;
    const int range = ScrollMapping::rangeFor(lastTop);
    EXPECT_EQ(ScrollMapping::pageStepFor(5, range, lastTop), 1);   // less than a step: still one
    EXPECT_EQ(ScrollMapping::pageStepFor(5'000, range, lastTop), 537);
    EXPECT_EQ(ScrollMapping::pageStepFor(lastTop / 4, range, lastTop), range / 4);
    EXPECT_EQ(ScrollMapping::pageStepFor(3'000, 3'000, 3'000), 3'000);
}

} // namespace
} // namespace brim::shell
