#include "search/LineFilter.h"

#include "bytes/MemorySource.h"
#include "search/ExpressionSyntax.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

namespace brim {
namespace {

MemorySource sourceOf(std::string_view text) { return MemorySource(std::vector<std::uint8_t>(text.begin(), text.end())); }

SearchQuery query(std::string pattern, bool isRegex = false, bool caseSensitive = true) {
    SearchQuery q;
    q.pattern = std::move(pattern);
    q.isRegex = isRegex;
    q.caseSensitive = caseSensitive;
    return q;
}

/// The runs of the lines for which `keep` says yes, the slow way: split, test, join.
template <typename Keep>
std::vector<LineRun> naiveRuns(const std::string& text, Keep keep) {
    std::vector<LineRun> runs;
    std::int64_t line = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        const std::size_t next = end == std::string::npos ? text.size() : end + 1;
        if (keep(text.substr(start, (end == std::string::npos ? text.size() : end) - start))) {
            const ByteRange bytes{static_cast<std::int64_t>(start), static_cast<std::int64_t>(next)};
            if (!runs.empty() && runs.back().last + 1 == line) {
                runs.back().last = line;
                runs.back().bytes.upper = bytes.upper;
            } else {
                runs.push_back({line, line, bytes});
            }
        }
        ++line;
        start = next;
    }
    return runs;
}

TEST(LineFilter, matchingLinesWithTheirLineEnds) {
    const std::string text = "alpha\nbeta ERROR one\ngamma\nERROR two\ndelta\nepsilon ERROR\n";
    const auto source = sourceOf(text);
    const auto result = LineFilter::matchingRuns(source, query("ERROR"));
    EXPECT_TRUE(result.isComplete);
    EXPECT_EQ(result.matchedLines, 3);
    EXPECT_EQ(result.linesSeen, 7);  // the empty line after the last line end counts, as in the line index
    EXPECT_EQ(result.matched, (std::vector<LineRun>{{1, 1, {6, 21}}, {3, 3, {27, 37}}, {5, 5, {43, 57}}}));
    // Two matches in a line make one line; a last line with no line end counts.
    const auto last = LineFilter::matchingRuns(sourceOf("x\nERROR ERROR\nERROR"), query("ERROR"));
    EXPECT_EQ(last.matched, (std::vector<LineRun>{{1, 2, {2, 19}}}));
    EXPECT_EQ(last.matchedLines, 2);
    // An expression: "^" is the start of each line and "|" the or.
    EXPECT_EQ(LineFilter::matchingRuns(source, query("^(gamma|delta)$|one", true)).matched,
              (std::vector<LineRun>{{1, 2, {6, 27}}, {4, 4, {37, 43}}}));
    EXPECT_TRUE(LineFilter::matchingRuns(source, query("")).matched.empty());
    EXPECT_THROW((void)LineFilter::matchingRuns(source, query("(", true)), PatternError);
}

TEST(LineFilter, agreesWithALineByLineCheckOnRandomText) {
    std::mt19937 random(99);
    const std::vector<std::string> words = {"ab", "Ab", "ba", "cab", "x_y", "é", "ERROR", " ", "  ", ""};
    for (int round = 0; round < 60; ++round) {
        std::string text;
        const int lines = static_cast<int>(random() % 200);
        for (int l = 0; l < lines; ++l) {
            const int count = static_cast<int>(random() % 6);
            for (int w = 0; w < count; ++w) text += words[random() % words.size()] + (random() % 2 ? " " : "");
            if (l + 1 < lines || random() % 2) text += '\n';
        }
        const auto source = sourceOf(text);
        SCOPED_TRACE(::testing::Message() << "round " << round);
        const bool caseSensitive = round % 2 == 0;
        const auto expectedLiteral = naiveRuns(text, [&](const std::string& line) {
            if (caseSensitive) return line.find("ab") != std::string::npos;
            std::string lowered = line;
            for (char& c : lowered) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
            return lowered.find("ab") != std::string::npos;
        });
        EXPECT_EQ(LineFilter::matchingRuns(source, query("ab", false, caseSensitive)).matched, expectedLiteral);
        const std::regex pattern("^c|b a|x_y$");
        const auto expectedExpression =
            naiveRuns(text, [&](const std::string& line) { return std::regex_search(line, pattern); });
        EXPECT_EQ(LineFilter::matchingRuns(source, query("^c|b a|x_y$", true)).matched, expectedExpression);
    }
}

TEST(LineFilter, blocksSmallerThanALineGiveTheSameAnswer) {
    // Lines far longer than a block of 1 MiB, and enough text for the blocks to go in parallel.
    std::string text;
    for (int i = 0; i < 12; ++i) {
        text += std::string(static_cast<std::size_t>(LineFilter::blockSize) * (i % 3 == 0 ? 2 : 0) + 10, 'a');
        text += (i % 4 == 1) ? "needle" : "hay";
        text += std::string(500, 'b') + "\n";
        for (int k = 0; k < 20'000; ++k) text += (k % 997 == 0) ? "short needle\n" : "short line\n";
    }
    const auto source = sourceOf(text);
    const auto expected = naiveRuns(text, [](const std::string& line) { return line.find("needle") != std::string::npos; });
    for (const bool isRegex : {false, true}) {
        SCOPED_TRACE(isRegex ? "expression" : "literal");
        std::vector<LineRun> told;
        const auto result = LineFilter::matchingRuns(source, query(isRegex ? "ne+dle" : "needle", isRegex), std::nullopt,
                                                     [&](std::span<const LineRun> runs) { told.insert(told.end(), runs.begin(), runs.end()); });
        EXPECT_EQ(result.matched, expected);
        // What was told along the way builds the same rows as the end result.
        RowMap incremental;
        incremental.append(told);
        EXPECT_EQ(incremental.runs(), result.matched);
    }
}

TEST(LineFilter, candidatesLimitTheScanToThoseLines) {
    const std::string text = "hit 0\nhit 1\nhit 2\nmiss 3\nhit 4\nhit 5\n";
    const auto source = sourceOf(text);
    const std::vector<LineRun> candidates = {{1, 3, {6, 25}}, {5, 5, {31, 37}}};
    const auto result = LineFilter::matchingRuns(source, query("hit"), std::span<const LineRun>(candidates));
    EXPECT_EQ(result.matched, (std::vector<LineRun>{{1, 2, {6, 18}}, {5, 5, {31, 37}}}));
    EXPECT_EQ(result.linesSeen, 4);
}

TEST(LineFilter, runSetsCombineAndKeepTheirBytesInStep) {
    // Ten lines of "lineN\n": line n starts at byte 6n.
    const auto run = [](std::int64_t first, std::int64_t last) { return LineRun{first, last, {first * 6, (last + 1) * 6}}; };
    const std::vector<LineRun> a = {run(0, 2), run(5, 7)};
    const std::vector<LineRun> b = {run(2, 3), run(6, 6), run(9, 9)};
    EXPECT_EQ(LineFilter::complement(a, 10, 60), (std::vector<LineRun>{run(3, 4), run(8, 9)}));
    EXPECT_EQ(LineFilter::complement({}, 10, 60), (std::vector<LineRun>{run(0, 9)}));
    EXPECT_TRUE(LineFilter::complement(std::vector<LineRun>{run(0, 9)}, 10, 60).empty());
    EXPECT_EQ(LineFilter::union_(a, b), (std::vector<LineRun>{run(0, 3), run(5, 7), run(9, 9)}));
    EXPECT_EQ(LineFilter::union_(std::vector<LineRun>{run(0, 1)}, std::vector<LineRun>{run(2, 2)}),
              (std::vector<LineRun>{run(0, 2)}));  // touching runs join
    EXPECT_EQ(LineFilter::subtract(a, b), (std::vector<LineRun>{run(0, 1), run(5, 5), run(7, 7)}));
    EXPECT_EQ(LineFilter::subtract(b, a), (std::vector<LineRun>{run(3, 3), run(9, 9)}));
    EXPECT_EQ(LineFilter::intersect(a, b), (std::vector<LineRun>{run(2, 2), run(6, 6)}));
    // A ∪ (B \ A) is A ∪ B, and (A \ B) ∩ B is empty.
    EXPECT_EQ(LineFilter::union_(a, LineFilter::subtract(b, a)), LineFilter::union_(a, b));
    EXPECT_TRUE(LineFilter::intersect(LineFilter::subtract(a, b), b).empty());
}

TEST(LineFilter, conditionsRunInOrderAndContextWidensWhatIsLeft) {
    const std::string text = "alpha\nbeta ERROR one\ngamma\nERROR two\ndelta\nepsilon ERROR\nzeta\n";
    const auto source = sourceOf(text);
    const std::vector<LineFilterStep> steps = {
        LineFilterStep::from({.show = true, .pattern = "error"}),
        LineFilterStep::from({.show = false, .pattern = "two"}),
    };
    const auto shown = LineFilter::apply(source, steps, 8, static_cast<std::int64_t>(text.size()));
    EXPECT_EQ(shown.matched, (std::vector<LineRun>{{1, 1, {6, 21}}, {5, 5, {43, 57}}}));
    EXPECT_EQ(shown.matchedLines, 2);
    const auto withContext = LineFilter::apply(source, steps, 8, static_cast<std::int64_t>(text.size()), std::nullopt, 1, 1);
    EXPECT_EQ(withContext.matched, (std::vector<LineRun>{{0, 2, {0, 27}}, {4, 6, {37, 62}}}));
    // Context never reaches beyond what the filter started from.
    const std::vector<LineRun> start = {{1, 5, {6, 57}}};
    const auto bounded = LineFilter::apply(source, steps, 8, static_cast<std::int64_t>(text.size()),
                                           std::span<const LineRun>(start), 2, 2);
    EXPECT_EQ(bounded.matched, (std::vector<LineRun>{{1, 5, {6, 57}}}));
    // Hiding only, and a selection step.
    const std::vector<LineFilterStep> hide = {LineFilterStep::search(query("a"), false),
                                              LineFilterStep::selected({{5, 5, {43, 57}}}, false)};
    EXPECT_EQ(LineFilter::apply(source, hide, 8, static_cast<std::int64_t>(text.size())).matched,
              (std::vector<LineRun>{{3, 3, {27, 37}}, {7, 7, {62, 62}}}));
}

TEST(LineFilter, linesThatArriveAreFilteredAloneAndAgreeWithAFullRun) {
    std::string text;
    for (int i = 0; i < 3'000; ++i) text += (i % 7 == 0 ? "GET /index ok\n" : (i % 5 == 0 ? "GET /admin denied\n" : "POST /x ok\n"));
    const std::int64_t before = static_cast<std::int64_t>(text.size());
    const std::int64_t linesBefore = 3'000;
    for (int i = 0; i < 500; ++i) text += (i % 3 == 0 ? "GET /late ok\n" : "GET /admin denied\n");
    const auto grown = sourceOf(text);
    const std::vector<LineFilterStep> steps = {LineFilterStep::search(query("GET"), true),
                                               LineFilterStep::search(query("denied"), false),
                                               LineFilterStep::selected({{0, 10, {0, 100}}}, false)};
    const std::vector<LineRun> arrived = {{linesBefore, linesBefore + 499, {before, static_cast<std::int64_t>(text.size())}}};
    const auto added = LineFilter::apply(grown, steps, 0, 0, std::span<const LineRun>(arrived));
    const auto full = LineFilter::apply(grown, steps, linesBefore + 501, static_cast<std::int64_t>(text.size()));
    EXPECT_EQ(added.matched, LineFilter::intersect(full.matched, arrived));
    EXPECT_EQ(added.matchedLines, 167);
}

TEST(LineFilter, cancellingAndTheRunLimitLeaveAPartialResult) {
    std::string text;
    for (int i = 0; i < 1'000'005; ++i) text += "x\n\n";
    const auto source = sourceOf(text);
    const auto limited = LineFilter::matchingRuns(source, query("x"));
    EXPECT_TRUE(limited.reachedLimit);
    EXPECT_FALSE(limited.isComplete);
    EXPECT_EQ(limited.matched.size(), LineFilter::runLimit);
    EXPECT_EQ(limited.matched.back().first, 2 * static_cast<std::int64_t>(LineFilter::runLimit - 1));

    const auto cancelled = LineFilter::matchingRuns(source, query("x"), std::nullopt, {}, {}, [] { return true; });
    EXPECT_FALSE(cancelled.isComplete);
    EXPECT_FALSE(cancelled.reachedLimit);
    const std::vector<LineFilterStep> steps = {LineFilterStep::search(query("x"), true)};
    const auto stopped = LineFilter::apply(source, steps, 10, 10, std::nullopt, 0, 0, {}, [] { return true; });
    EXPECT_FALSE(stopped.isComplete);
}

TEST(RowMap, rowsAndLinesMapBothWays) {
    const RowMap rows({{2, 4, {}}, {10, 10, {}}, {12, 13, {}}});
    EXPECT_EQ(rows.rowCount(), 6);
    const std::vector<std::int64_t> lines = {2, 3, 4, 10, 12, 13};
    for (std::int64_t row = 0; row < 6; ++row) {
        SCOPED_TRACE(row);
        EXPECT_EQ(rows.lineForRow(row), lines[static_cast<std::size_t>(row)]);
        EXPECT_EQ(rows.rowForLine(lines[static_cast<std::size_t>(row)]), row);
    }
    EXPECT_FALSE(rows.lineForRow(6));
    EXPECT_FALSE(rows.lineForRow(-1));
    EXPECT_FALSE(rows.rowForLine(5));
    EXPECT_FALSE(rows.rowForLine(0));
    EXPECT_EQ(rows.nearestShownLine(5), 10);
    EXPECT_EQ(rows.nearestShownLine(0), 2);
    EXPECT_EQ(rows.nearestShownLine(99), 13);
    EXPECT_FALSE(RowMap().nearestShownLine(0));
}

TEST(RowMap, editsMoveHiddenLinesAndCarryTheStateOfTheLineTheyBeganIn) {
    // Lines of 6 bytes; shown: 0-1, 3, 5-6.
    const auto run = [](std::int64_t first, std::int64_t last) { return LineRun{first, last, {first * 6, (last + 1) * 6}}; };
    struct Case {
        const char* what;
        LineEdit edit;
        std::vector<LineRun> shown;
    };
    const Case cases[] = {
        {"Return typed in shown line 3 pushes the rest down, and the new line is shown",
         {3, 3, {18, 24}, 2, 7},
         {run(0, 1), {3, 4, {18, 25}}, {6, 7, {31, 43}}}},
        {"a deletion from shown line 3 across hidden line 4 into shown line 5 keeps one shown line",
         {3, 5, {18, 36}, 1, 6},
         {run(0, 1), {3, 4, {18, 30}}}},
        {"typing inside hidden line 2 keeps it hidden",
         {2, 2, {12, 18}, 1, 9},
         {run(0, 1), {3, 3, {21, 27}}, {5, 6, {33, 45}}}},
        {"an edit from hidden line 4 into shown line 5 takes the hiding with it",
         {4, 5, {24, 36}, 1, 4},
         {run(0, 1), run(3, 3), {5, 5, {28, 34}}}},
        {"an edit after every line changes nothing before it", {9, 9, {54, 60}, 3, 20}, {run(0, 1), run(3, 3), run(5, 6)}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RowMap rows({run(0, 1), run(3, 3), run(5, 6)});
        rows.applyEdit(c.edit);
        EXPECT_EQ(rows.runs(), c.shown);
        std::int64_t count = 0;
        for (const auto& r : c.shown) count += r.lineCount();
        EXPECT_EQ(rows.rowCount(), count);
    }
}

} // namespace
} // namespace brim
