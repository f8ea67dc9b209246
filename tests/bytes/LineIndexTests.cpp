#include "bytes/LineIndex.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <string>

namespace brim {
namespace {

using testing::TemporaryFolder;

/// Line starts of a text the plain way: 0, and one after every 0x0A.
std::vector<std::int64_t> lineStarts(const std::string& text) {
    std::vector<std::int64_t> starts{0};
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') starts.push_back(static_cast<std::int64_t>(i) + 1);
    }
    return starts;
}

/// Lines of random length, empty ones and long ones among them.
std::string randomLines(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text;
    text.reserve(size + 2'000);
    while (text.size() < size) {
        const auto roll = random() % 100;
        const std::size_t length = roll < 10 ? 0 : (roll < 95 ? random() % 120 : random() % 3'000);
        for (std::size_t i = 0; i < length; ++i)
            text.push_back(static_cast<char>('a' + random() % 26));
        text.push_back('\n');
    }
    return text;
}

MemorySource sourceOf(const std::string& text) {
    return MemorySource(testing::bytes(text));
}

/// Every answer of the index against the plain line starts.
void expectAgrees(const LineIndex& index, const ByteSource& source, const std::string& text,
                  std::int64_t everyNth = 1) {
    const auto starts = lineStarts(text);
    const auto lines = static_cast<std::int64_t>(starts.size());
    ASSERT_EQ(index.knownNewlines(), lines - 1);
    ASSERT_EQ(index.estimatedLineCount(), lines);
    for (std::int64_t n = 0; n < lines; n += everyNth) {
        ASSERT_EQ(index.startOffsetOfLine(n, source), starts[static_cast<std::size_t>(n)]) << "line " << n;
    }
    EXPECT_EQ(index.startOffsetOfLine(lines, source), static_cast<std::int64_t>(text.size()));
    EXPECT_EQ(index.startOffsetOfLine(-5, source), 0);
    std::int64_t newlines = 0;
    std::int64_t counted = 0;
    for (std::int64_t o = 0; o <= static_cast<std::int64_t>(text.size()); o += everyNth) {
        newlines += std::count(text.begin() + counted, text.begin() + o, '\n');
        counted = o;
        // Newlines before `o` are the number of the line that holds it.
        const auto line = std::upper_bound(starts.begin(), starts.end(), o) - starts.begin() - 1;
        ASSERT_EQ(line, newlines);
        ASSERT_EQ(index.newlineCountBefore(o, source), newlines) << "offset " << o;
    }
}

TEST(LineIndex, smallTextsHaveTheLinesTheirNewlinesMake) {
    const struct {
        const char* text;
        std::int64_t lines;
    } cases[] = {{"", 1}, {"a", 1}, {"\n", 2}, {"a\nbb\nccc", 3}, {"a\nbb\nccc\n", 4}, {"\n\n\n", 4}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.text);
        const auto source = sourceOf(row.text);
        const auto index = LineIndex::build(source, 2);
        ASSERT_TRUE(index);
        EXPECT_EQ(index->estimatedLineCount(), row.lines);
        expectAgrees(*index, source, row.text);
    }
}

TEST(LineIndex, everyStrideGivesTheSameAnswers) {
    const std::string text = randomLines(60'000, 1);
    const auto source = sourceOf(text);
    for (const std::int64_t stride : {1, 2, 3, 7, 4'096}) {
        SCOPED_TRACE(stride);
        const auto index = LineIndex::build(source, stride);
        ASSERT_TRUE(index);
        expectAgrees(*index, source, text);
    }
}

TEST(LineIndex, aFileWithoutNewlinesIsOneLine) {
    const std::string text(50'000, 'x');
    const auto source = sourceOf(text);
    const auto index = LineIndex::build(source);
    ASSERT_TRUE(index);
    EXPECT_EQ(index->estimatedLineCount(), 1);
    EXPECT_EQ(index->newlineCountBefore(40'000, source), 0);
    EXPECT_EQ(index->startOffsetOfLine(1, source), 50'000);
    ASSERT_EQ(index->chunks().size(), 1u);
    EXPECT_TRUE(index->chunks().front().checkpoints.empty());
}

// Several slices of more than 4 MiB each, through the buffered path of a mapped file and the
// direct path of memory, against a serial count of the same bytes.
TEST(LineIndex, aParallelBuildEqualsASerialOne) {
    TemporaryFolder folder;
    const std::string text = randomLines(28'000'000, 2);
    const auto path = folder.write("big.txt", text);
    const MappedSource mapped(path);
    const auto memory = sourceOf(text);

    LineIndex::Builder serial(512);
    serial.scan(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    const LineIndex expected = serial.finish();
    ASSERT_EQ(expected.chunks().size(), 1u);

    std::mutex progressLock;
    std::vector<double> fractions;
    for (const ByteSource* source :
         {static_cast<const ByteSource*>(&mapped), static_cast<const ByteSource*>(&memory)}) {
        SCOPED_TRACE(source->prefersBufferedReads() ? "buffered" : "direct");
        fractions.clear();
        const auto index = LineIndex::build(*source, 512, [&](double fraction) {
            std::lock_guard guard(progressLock);
            fractions.push_back(fraction);
        });
        ASSERT_TRUE(index);
        EXPECT_GT(index->chunks().size(), 4u);
        EXPECT_EQ(index->knownNewlines(), expected.knownNewlines());
        EXPECT_TRUE(index->isComplete());
        expectAgrees(*index, *source, text, 9'973);
        // The checkpoints of all slices together are as many as one serial scan has, give or
        // take one per slice boundary.
        std::size_t checkpoints = 0;
        for (const auto& chunk : index->chunks())
            checkpoints += chunk.checkpoints.size();
        EXPECT_NEAR(static_cast<double>(checkpoints),
                    static_cast<double>(expected.chunks().front().checkpoints.size()),
                    static_cast<double>(index->chunks().size()));
        ASSERT_FALSE(fractions.empty());
        EXPECT_DOUBLE_EQ(*std::max_element(fractions.begin(), fractions.end()), 1.0);
    }
    expectAgrees(expected, memory, text, 9'973);
}

TEST(LineIndex, growsByCommitsAndAnswersForWhatItHasSeen) {
    const std::string text = randomLines(300'000, 3);
    const auto source = sourceOf(text);
    const auto starts = lineStarts(text);
    LineIndex index(source.count(), 16);
    EXPECT_EQ(index.indexedBytes(), 0);
    EXPECT_EQ(index.knownNewlines(), 0);
    EXPECT_EQ(index.startOffsetOfLine(3, source), 0);

    for (int step = 1; step <= 7; ++step) {
        const std::int64_t through = source.count() * step / 7;
        auto extension = index.plan(source, through);
        ASSERT_TRUE(extension);
        ASSERT_TRUE(index.commit(std::move(*extension)));
        EXPECT_EQ(index.indexedBytes(), through);
        // Every line that starts within the scanned part is answered exactly.
        const std::int64_t known = index.knownNewlines();
        EXPECT_EQ(known, std::count(text.begin(), text.begin() + through, '\n'));
        for (std::int64_t n = 0; n <= known; n += 97) {
            ASSERT_EQ(index.startOffsetOfLine(n, source), starts[static_cast<std::size_t>(n)]);
        }
        if (step < 7) {
            EXPECT_EQ(index.startOffsetOfLine(known + 1, source), through);
            EXPECT_FALSE(index.isComplete());
        }
    }
    expectAgrees(index, source, text, 31);
}

TEST(LineIndex, aStalePlanChangesNothing) {
    const std::string text = randomLines(100'000, 4);
    const auto source = sourceOf(text);
    LineIndex index(source.count());
    auto first = index.plan(source, 40'000);
    auto same = index.plan(source, 60'000);
    ASSERT_TRUE(first && same);
    EXPECT_TRUE(index.commit(std::move(*first)));
    const auto lines = index.knownNewlines();
    EXPECT_FALSE(index.commit(std::move(*same)));
    EXPECT_EQ(index.indexedBytes(), 40'000);
    EXPECT_EQ(index.knownNewlines(), lines);
    // A plan from where the index now ends is taken; asking for less than is indexed is empty.
    auto rest = index.plan(source, source.count());
    ASSERT_TRUE(rest);
    EXPECT_TRUE(index.commit(std::move(*rest)));
    auto nothing = index.plan(source, 10);
    ASSERT_TRUE(nothing);
    EXPECT_TRUE(nothing->chunks.empty());
    EXPECT_TRUE(index.commit(std::move(*nothing)));
    expectAgrees(index, source, text, 13);
}

TEST(LineIndex, aCancelledPlanReturnsNothingAndChangesNothing) {
    const std::string text = randomLines(20'000'000, 5);
    const auto source = sourceOf(text);
    LineIndex index(source.count());
    auto head = index.plan(source, 1'000);
    ASSERT_TRUE(head);
    index.commit(std::move(*head));

    EXPECT_FALSE(index.plan(source, source.count(), {}, [] { return true; }));
    // Cancelled part way, from inside the slices.
    std::atomic<int> asked{0};
    EXPECT_FALSE(index.plan(source, source.count(), {}, [&] { return asked.fetch_add(1) > 3; }));
    EXPECT_GT(asked.load(), 3);
    EXPECT_FALSE(index.extend(source, 1'000'000, 1'048'576, {}, [] { return true; }));
    EXPECT_EQ(index.indexedBytes(), 1'000);
    EXPECT_EQ(index.knownNewlines(), std::count(text.begin(), text.begin() + 1'000, '\n'));
}

TEST(LineIndex, extendReachesTheLineAlsoAfterAFarJump) {
    const std::string text = randomLines(2'000'000, 6);
    const auto source = sourceOf(text);
    const auto starts = lineStarts(text);
    LineIndex index(source.count(), 64);
    ASSERT_TRUE(index.extend(source, 10, 4'096));
    EXPECT_GE(index.knownNewlines(), 10);
    EXPECT_LT(index.indexedBytes(), source.count());
    EXPECT_EQ(index.startOffsetOfLine(10, source), starts[10]);

    const auto far = static_cast<std::int64_t>(starts.size()) - 20;
    ASSERT_TRUE(index.extend(source, far, 4'096));
    EXPECT_GE(index.knownNewlines(), far);
    EXPECT_EQ(index.startOffsetOfLine(far, source), starts[static_cast<std::size_t>(far)]);
    // Past the last line the whole source gets indexed, and that is still success.
    ASSERT_TRUE(index.extend(source, far * 10, 4'096));
    EXPECT_TRUE(index.isComplete());
    expectAgrees(index, source, text, 101);
}

TEST(LineIndex, estimatesTheLineCountFromWhatItHasSeen) {
    // Lines of 40 to 60 bytes: a 5% sample lands well within a quarter of the truth.
    std::mt19937 random(8);
    std::string text;
    while (text.size() < 2'000'000) {
        text.append(40 + random() % 21, 'q');
        text.push_back('\n');
    }
    const auto source = sourceOf(text);
    const auto lines = static_cast<double>(std::count(text.begin(), text.end(), '\n') + 1);
    LineIndex index(source.count());
    EXPECT_EQ(index.estimatedLineCount(), 1);
    index.setDensityHint(50.0);
    EXPECT_NEAR(static_cast<double>(index.estimatedLineCount()), lines, lines * 0.25);
    index.setDensityHint(0);
    auto sample = index.plan(source, source.count() / 20);
    ASSERT_TRUE(sample);
    index.commit(std::move(*sample));
    EXPECT_NEAR(static_cast<double>(index.estimatedLineCount()), lines, lines * 0.25);
}

TEST(LineIndex, aBuilderFedInBlocksEqualsABuild) {
    const std::string text = randomLines(500'000, 9);
    const auto source = sourceOf(text);
    std::mt19937 random(10);
    LineIndex::Builder builder(33);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = std::min<std::size_t>(text.size() - at, 1 + random() % 9'000);
        builder.scan(std::span(reinterpret_cast<const std::uint8_t*>(text.data()) + at, length));
        at += length;
    }
    const LineIndex built = builder.finish();
    EXPECT_EQ(built.byteCount(), source.count());
    EXPECT_TRUE(built.isComplete());
    EXPECT_DOUBLE_EQ(built.densityHint(), 0);
    expectAgrees(built, source, text, 7);
    const auto whole = LineIndex::build(source, 33);
    ASSERT_TRUE(whole);
    EXPECT_EQ(built.chunks().front().checkpoints, whole->chunks().front().checkpoints);
}

// A saved file is made of stretches of the old text, whose index is known, and typed bytes. The
// builder takes the stretches from the old index and must answer exactly as a scan of the result:
// stretches cut anywhere (mid-line, at checkpoints, across the old index's chunks), strides from 1,
// lines longer than a stride of lines, and an old index made of many small chunks.
TEST(LineIndex, stretchesTakenFromAKnownIndexAgreeWithAScan) {
    for (const std::int64_t stride : {1, 2, 5, 33}) {
        for (const unsigned seed : {1u, 2u, 3u}) {
            SCOPED_TRACE("stride " + std::to_string(stride) + ", seed " + std::to_string(seed));
            const std::string old = randomLines(120'000, seed) + (seed == 2 ? std::string(5'000, 'z') : "");
            const auto oldSource = sourceOf(old);
            LineIndex oldIndex(oldSource.count(), stride);
            // Grown in small steps, as the background does it, so it has many chunks.
            for (std::int64_t through = 0; !oldIndex.isComplete();) {
                through += 7'919;
                auto extension = oldIndex.plan(oldSource, through);
                ASSERT_TRUE(extension);
                oldIndex.commit(std::move(*extension));
            }
            ASSERT_GT(oldIndex.chunks().size(), 10u);

            std::mt19937 random(seed * 31 + static_cast<unsigned>(stride));
            LineIndex::Builder builder(stride);
            std::string text;
            for (int step = 0; step < 40; ++step) {
                if (random() % 3 == 0) {
                    std::string typed = random() % 2 == 0 ? "typed\n\nmore" : std::string(1 + random() % 40, 'q');
                    builder.scan(testing::bytes(typed));
                    text += typed;
                } else {
                    const auto from = static_cast<std::int64_t>(random() % old.size());
                    const auto length = static_cast<std::int64_t>(random() % (random() % 2 == 0 ? 200 : 30'000));
                    const ByteRange range{from, std::min<std::int64_t>(from + length, static_cast<std::int64_t>(old.size()))};
                    builder.appendIndexed(oldIndex, oldSource, range);
                    text += old.substr(static_cast<std::size_t>(range.lower), static_cast<std::size_t>(range.length()));
                }
            }
            builder.appendIndexed(oldIndex, oldSource, {0, static_cast<std::int64_t>(old.size())});
            text += old;
            const LineIndex built = builder.finish();
            EXPECT_EQ(built.byteCount(), static_cast<std::int64_t>(text.size()));
            EXPECT_TRUE(built.isComplete());
            expectAgrees(built, sourceOf(text), text, 3);
        }
    }
}

}  // namespace
}  // namespace brim
