#include "search/SearchResultsView.h"

#include "bytes/LineIndex.h"
#include "bytes/MemorySource.h"
#include "search/SearchEngine.h"

#include <gtest/gtest.h>

#include <string>

namespace brim {
namespace {

MemorySource sourceOf(std::string_view text) { return MemorySource(std::vector<std::uint8_t>(text.begin(), text.end())); }

std::vector<ByteRange> find(const ByteSource& source, std::string pattern) {
    SearchQuery query;
    query.pattern = std::move(pattern);
    query.caseSensitive = true;
    return SearchEngine::findAll(source, query, 100'000, 0).matches;
}

TEST(SearchResultsView, rowsGiveLinesUTF16ColumnsAndTheLineText) {
    // "😀" is two UTF-16 units; a CR before the line end is not part of the text; a stray
    // byte shows as U+FFFD.
    const std::string text = "first\r\n\xF0\x9F\x98\x80 x and x\n\xFFx\nlast x";
    const auto source = sourceOf(text);
    const auto rows = SearchResultsView::build(source, find(source, "x"), 100);
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_EQ(rows[0].line, 1);
    EXPECT_EQ(rows[0].column, 3);
    EXPECT_EQ(rows[0].text, "\xF0\x9F\x98\x80 x and x");
    EXPECT_EQ(rows[0].matchInText, (SearchResult::Span{3, 1}));
    EXPECT_EQ(rows[1].column, 9);
    EXPECT_EQ(rows[1].text, rows[0].text);
    EXPECT_EQ(rows[2].line, 2);
    EXPECT_EQ(rows[2].text, "\xEF\xBF\xBDx");
    EXPECT_EQ(rows[2].column, 1);
    EXPECT_EQ(rows[3].line, 3);
    EXPECT_EQ(rows[3].text, "last x");
    EXPECT_EQ(SearchResultsView::build(source, find(source, "x"), 2).size(), 2U);
}

TEST(SearchResultsView, longLinesAreCutAroundTheMatch) {
    const std::string line = std::string(1'000, 'a') + "NEEDLE" + std::string(1'000, 'b');
    for (const std::size_t repeat : {std::size_t{1}, std::size_t{100}}) {  // 2 KB and, repeated, over 64 KB
        std::string text = "x\n";
        for (std::size_t i = 0; i < repeat; ++i) text += line;
        text += "\n";
        const auto source = sourceOf(text);
        const auto rows = SearchResultsView::build(source, find(source, "NEEDLE"), 100);
        ASSERT_EQ(rows.size(), repeat);
        for (std::size_t i = 0; i < rows.size(); i += 33) {
            SCOPED_TRACE(::testing::Message() << "repeat " << repeat << " row " << i);
            const auto& row = rows[i];
            EXPECT_EQ(row.line, 1);
            EXPECT_EQ(row.column, static_cast<std::int64_t>(i * line.size() + 1'000));
            EXPECT_TRUE(row.text.starts_with("\xE2\x80\xA6" + std::string(60, 'a') + "NEEDLE")) << row.text.substr(0, 80);
            EXPECT_TRUE(row.text.ends_with("\xE2\x80\xA6"));
            EXPECT_EQ(row.matchInText, (SearchResult::Span{61, 6}));
        }
    }
}

TEST(SearchResultsView, lineNumbersFromAnIndexAgreeWithCounting) {
    std::string text;
    // Matches far enough apart that the index, not counting, takes the rows there.
    for (int i = 0; i < 1'200'000; ++i) text += (i % 300'000 == 7 || i == 8 ? "the needle\n" : "hay\n");
    const auto source = sourceOf(text);
    const auto matches = find(source, "needle");
    const auto index = LineIndex::build(source, 64);
    ASSERT_TRUE(index);
    const auto counted = SearchResultsView::build(source, matches, 1'000);
    const auto indexed = SearchResultsView::build(source, matches, 1'000, &*index);
    const std::vector<std::int64_t> lines = {7, 8, 300'007, 600'007, 900'007};
    ASSERT_EQ(counted.size(), lines.size());
    for (std::size_t i = 0; i < counted.size(); ++i) {
        EXPECT_EQ(counted[i].line, lines[i]);
        EXPECT_EQ(indexed[i].line, lines[i]);
    }
}

} // namespace
} // namespace brim
