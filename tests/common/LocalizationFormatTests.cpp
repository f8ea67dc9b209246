#include "common/Localization.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace brim {
namespace {

std::string format(std::string_view pattern, std::vector<LocalizedArgument> arguments) {
    return Localization::format(pattern, arguments);
}

TEST(LocalizationFormat, substitutesEachKindOfConversion) {
    const struct {
        const char* pattern;
        std::vector<LocalizedArgument> arguments;
        const char* expected;
    } cases[] = {
        {"Open %@ now", {"notes.txt"}, "Open notes.txt now"},
        {"%@ and %@", {"one", "two"}, "one and two"},
        {"%d lines", {20'300'000}, "20300000 lines"},
        {"%d", {-42}, "-42"},
        {"%ld of %lu", {7, 9}, "7 of 9"},
        {"%2$@ before %1$@", {"first", "second"}, "second before first"},
        {"%1$d, %1$d again", {5}, "5, 5 again"},
        {"%.2f GB/s", {5.214}, "5.21 GB/s"},
        {"%.2f", {3}, "3.00"},
        {"[%-10s]", {"left"}, "[left      ]"},
        {"[%10s]", {"right"}, "[     right]"},
        {"100%% sure", {}, "100% sure"},
        {"%@ is %d%%", {"load", 75}, "load is 75%"},
        {"%x", {255}, "ff"},
        {"number as text: %@", {12}, "number as text: 12"},
        {"no conversions", {"unused"}, "no conversions"},
        {"trailing %", {}, "trailing %"},
        {"", {}, ""},
        {"multi-byte %@ kept", {"\xC3\xA9t\xC3\xA9"}, "multi-byte \xC3\xA9t\xC3\xA9 kept"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.pattern);
        EXPECT_EQ(format(row.pattern, row.arguments), row.expected);
    }
}

TEST(LocalizationFormat, aMissingArgumentLeavesTheConversion) {
    EXPECT_EQ(format("%@ and %@", {"one"}), "one and %@");
    EXPECT_EQ(format("%d items", {}), "%d items");
    EXPECT_EQ(format("%3$@", {"a", "b"}), "%3$@");
}

TEST(LocalizationFormat, anUnknownKeyStandsAsItIs) {
    EXPECT_EQ(L("a text no catalogue has, %d times", 3), "a text no catalogue has, 3 times");
    EXPECT_EQ(L("plain"), "plain");
}

}  // namespace
}  // namespace brim
