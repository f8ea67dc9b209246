#include "store/FixedFields.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

using Widths = std::vector<std::int64_t>;

TEST(FixedFields, detectsColumnsSeparatedByTwoBlanks) {
    const std::vector<std::string> records = {
        "001  Smith          London    ",
        "002  Jones          Paris     ",
        "003  O Brien        Berlin    ",
    };
    EXPECT_EQ(FixedFields::detect(records), (Widths{5, 15, 10}));
    EXPECT_TRUE(FixedFields::looksLikeRecords(records));

    // A single blank is not padding: "O Brien" stays one field.
    const auto fields = FixedFields::split(records[2], FixedFields::detect(records));
    EXPECT_EQ(fields, (std::vector<std::string>{"003", "O Brien", "Berlin"}));
}

TEST(FixedFields, refusesWhatIsNotRecords) {
    struct Case {
        const char* name;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"prose", {"The quick brown fox jumps", "over the lazy dog and then", "runs away into the woods."}},
        {"one line", {"001  Smith  London"}},
        {"short lines", {"a  b  c", "d  e  f", "g  h  i"}},
        {"lengths differ", {"001  Smith  London", "002  Jones  Paris", "003  Brown  Rome"}},
        {"two fields", {"0001    Smith", "0002    Jones", "0003    Brown"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(FixedFields::looksLikeRecords(c.lines));
    }
}

TEST(FixedFields, shorterLinesDoNotVoteAndColumnsCountCharacters) {
    const std::vector<std::string> lines = {"é1  b2  c3", "é4  b5", "é7  b8  c9"};
    EXPECT_EQ(FixedFields::detect(lines), (Widths{4, 4, 2}));
    EXPECT_EQ(FixedFields::split("é7  b8  c9", Widths{4, 4, 2}), (std::vector<std::string>{"é7", "b8", "c9"}));
}

TEST(FixedFields, parsesAndDescribesLayouts) {
    struct Case {
        const char* text;
        std::optional<std::vector<FixedFields::Field>> fields;
    };
    using F = FixedFields::Field;
    const std::vector<Case> cases = {
        {"3 15 10", std::vector<F>{{3, ""}, {15, ""}, {10, ""}}},
        {"3, 15, 10", std::vector<F>{{3, ""}, {15, ""}, {10, ""}}},
        {" 3\t15\n10", std::vector<F>{{3, ""}, {15, ""}, {10, ""}}},
        {"3 id, 15 surname, 10 first name, 20 street",
         std::vector<F>{{3, "id"}, {15, "surname"}, {10, "first name"}, {20, "street"}}},
        {"3 0 5", std::nullopt},
        {"copybook", std::nullopt},
        {"3 9000000000000000000 9000000000000000000 5", std::nullopt},
        {"1048577", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto parsed = FixedFields::parseLayout(c.text);
        EXPECT_EQ(parsed, c.fields);
        if (parsed) {
            EXPECT_EQ(FixedFields::parseLayout(FixedFields::describe(*parsed)), parsed);
        }
    }
    EXPECT_EQ(FixedFields::describe({{3, ""}, {15, ""}}), "3 15");
    EXPECT_EQ(FixedFields::describe({{3, "id"}, {15, "surname"}}), "3 id, 15 surname");
}

TEST(FixedFields, convertsBetweenWidthsStartsAndColumns) {
    EXPECT_EQ(FixedFields::starts({3, 15, 10}), (Widths{0, 3, 18}));
    EXPECT_EQ(FixedFields::widths({0, 3, 18}, 28), (Widths{3, 15, 10}));
    EXPECT_EQ(FixedFields::widths({2, 6}, 10), (Widths{2, 4, 4}));
    EXPECT_EQ(FixedFields::field(0, {3, 15}), 0U);
    EXPECT_EQ(FixedFields::field(3, {3, 15}), 1U);
    EXPECT_EQ(FixedFields::field(18, {3, 15}), std::nullopt);
    EXPECT_EQ(FixedFields::field(-1, {3, 15}), std::nullopt);
    EXPECT_EQ(FixedFields::limited({3, 15, 10}, 10), (Widths{3, 7}));
}

TEST(FieldLayouts, theFirstMatchingPatternWins) {
    const std::vector<FieldLayout> layouts = {
        {"*.ebcdic", {4, 4}, {"a", "b"}},
        {"payroll-??.dat", {2, 8, 6}, {}},
        {"*.dat", {1}, {}},
    };
    EXPECT_EQ(FieldLayouts::layout("x.ebcdic", layouts)->names, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(FieldLayouts::layout("payroll-07.dat", layouts)->widths, (Widths{2, 8, 6}));
    EXPECT_EQ(FieldLayouts::layout("other.dat", layouts)->widths, (Widths{1}));
    EXPECT_FALSE(FieldLayouts::layout("notes.txt", layouts));
    EXPECT_EQ(layouts[1].fields()[2], (FixedFields::Field{6, ""}));
}

} // namespace
} // namespace brim
