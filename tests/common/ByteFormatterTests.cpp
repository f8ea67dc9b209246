#include "common/ByteFormatter.h"
#include "common/Localization.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

class ByteFormatterTest : public ::testing::Test {
protected:
    void SetUp() override { Localization::setCurrent(AppLanguage::english); }
};

TEST_F(ByteFormatterTest, sizesReadLikeAFileManagersInDecimalUnits) {
    const std::pair<std::int64_t, const char*> cases[] = {
        {0, "0 bytes"},
        {1, "1 byte"},
        {2, "2 bytes"},
        {999, "999 bytes"},
        {1'000, "1 KB"},
        {1'499, "1 KB"},
        {1'500, "2 KB"},
        {999'499, "999 KB"},
        {999'999, "1 MB"},
        {1'500'000, "1.5 MB"},
        {536'870'912, "536.9 MB"},
        {10'737'418'240, "10.74 GB"},
        {-5, "0 bytes"},
    };
    for (const auto& [count, expected] : cases) {
        SCOPED_TRACE(count);
        EXPECT_EQ(ByteFormatter::string(count), expected);
    }
}

TEST_F(ByteFormatterTest, decimalsAreGroupedInThousands) {
    const std::pair<std::int64_t, const char*> cases[] = {
        {0, "0"},
        {7, "7"},
        {999, "999"},
        {1'000, "1,000"},
        {20'300'000, "20,300,000"},
        {-1, "-1"},
        {-1'234, "-1,234"},
        {-999'999, "-999,999"},
        {INT64_MAX, "9,223,372,036,854,775,807"},
        {INT64_MIN, "-9,223,372,036,854,775,808"},
    };
    for (const auto& [count, expected] : cases) {
        SCOPED_TRACE(count);
        EXPECT_EQ(ByteFormatter::decimal(count), expected);
    }
    EXPECT_EQ(ByteFormatter::lines(1), "1 line");
    EXPECT_EQ(ByteFormatter::lines(0), "0 lines");
    EXPECT_EQ(ByteFormatter::lines(20'300'000), "20,300,000 lines");
}

}  // namespace
}  // namespace brim
