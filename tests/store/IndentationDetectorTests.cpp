#include "store/IndentationDetector.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace brim {
namespace {

using testing::bytes;

TEST(IndentationDetector, choosesStyleAndWidthFromTheLines) {
    struct Case {
        const char* name;
        std::string text;
        std::optional<bool> useSpaces;
        std::optional<int> width;
    };
    const std::vector<Case> cases = {
        {"nothing indented", "a\nb\nc\n", std::nullopt, std::nullopt},
        {"four spaces", "if x {\n    y\n    if z {\n        w\n    }\n}\n", true, 4},
        {"two spaces", "a:\n  b:\n    c\n  d\ne\n", true, 2},
        {"tabs", "f() {\n\tx;\n\tif (y) {\n\t\tz;\n\t}\n}\n", false, std::nullopt},
        {"eight spaces", "a\n        b\n        c\nd\n        e\n", true, 8},
        {"a tie goes to spaces; no vote after a tab line", "a\n\tb\n    c\n", true, std::nullopt},
        {"odd deltas say nothing", "/*\n * one\n * two\n */\n", true, std::nullopt},
        {"CR line ends", "a\r    b\r        c\r", true, 4},
        {"CRLF line ends", "a\r\n  b\r\n    c\r\n", true, 2},
        {"blank lines are skipped", "a\n\n   \n    b\n\t\n", true, 4},
        {"byte order mark", "\xEF\xBB\xBF  a\nb\n", true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto report = IndentationDetector::detect(bytes(c.text), 5'000);
        EXPECT_EQ(report.useSpaces, c.useSpaces);
        EXPECT_EQ(report.width, c.width);
    }
}

TEST(IndentationDetector, countsLinesAndStopsAtTheLimit) {
    const auto report = IndentationDetector::detect(bytes("a\n\tb\n  c\n\n    d\n\te\n"), 4);
    EXPECT_EQ(report.sampledLines, 4);
    EXPECT_EQ(report.tabLines, 1);
    EXPECT_EQ(report.spaceLines, 1);
    // The line after a tab line casts no vote; "  c" follows "\tb".
    EXPECT_EQ(report.deltaVotes[2], 0);
    EXPECT_EQ(report.summary(), "2 indented lines, from the first 4");
    EXPECT_EQ(IndentationDetector::detect(bytes("a\nb\n"), 10).summary(), "No indented lines in the first 2");
}

TEST(IndentationDetector, widthFollowsTheVotes) {
    struct Case {
        int twos, fours, eights;
        std::optional<int> width;
    };
    const std::vector<Case> cases = {
        {0, 0, 0, std::nullopt}, {3, 1, 0, 2}, {1, 3, 0, 4}, {0, 5, 1, 4}, {2, 3, 0, 2},
        {2, 4, 0, 4},            {0, 0, 4, 8}, {0, 1, 4, 8}, {0, 3, 4, 4}, {1, 0, 3, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(std::vector{c.twos, c.fours, c.eights}));
        std::array<std::int64_t, 9> votes{};
        votes[2] = c.twos;
        votes[4] = c.fours;
        votes[8] = c.eights;
        EXPECT_EQ(IndentationDetector::widthFromVotes(votes), c.width);
    }
}

} // namespace
} // namespace brim
