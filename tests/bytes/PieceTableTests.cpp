#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "bytes/PieceTable.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

namespace brim {
namespace {

using Piece = PieceTable::Piece;

PieceTable tableOver(const std::string& text, std::int64_t stride = defaultIndexStride) {
    auto source = std::make_shared<MemorySource>(testing::bytes(text));
    auto index = LineIndex::build(*source, stride);
    return PieceTable(source, std::move(*index));
}

std::string textOf(const PieceTable& table) {
    const auto bytes = table.bytes({0, table.byteCount()});
    return {bytes.begin(), bytes.end()};
}

std::vector<std::uint8_t> bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

std::string piecesText(const PieceTable& table, const Piece& piece) {
    const ByteSource& source =
        piece.fromOriginal ? table.original() : static_cast<const ByteSource&>(table.added());
    const auto bytes = source.data({piece.offset, piece.offset + piece.length});
    return {bytes.begin(), bytes.end()};
}

bool mergeable(const Piece& previous, const Piece& piece) {
    return previous.fromOriginal == piece.fromOriginal && previous.offset + previous.length == piece.offset &&
           (piece.fromOriginal || previous.length + piece.length <= PieceTable::maximumAddedPieceLength);
}

/// The table against a plain string: bytes, counts, every line's start, the line of offsets
/// around every line start, and the pieces' own bookkeeping.
void expectSame(const PieceTable& table, const std::string& model, bool everyOffset) {
    ASSERT_EQ(table.byteCount(), static_cast<std::int64_t>(model.size()));
    ASSERT_EQ(textOf(table), model);
    std::vector<std::int64_t> starts{0};
    for (std::size_t i = 0; i < model.size(); ++i) {
        if (model[i] == '\n') starts.push_back(static_cast<std::int64_t>(i) + 1);
    }
    const auto lines = static_cast<std::int64_t>(starts.size());
    ASSERT_EQ(table.newlineCount(), lines - 1);
    for (std::int64_t n = 0; n < lines; ++n) {
        ASSERT_EQ(table.offsetOfLine(n), starts[static_cast<std::size_t>(n)]) << "line " << n;
    }
    EXPECT_EQ(table.offsetOfLine(lines), static_cast<std::int64_t>(model.size()));
    const auto lineOf = [&](std::int64_t o) {
        return static_cast<std::int64_t>(std::upper_bound(starts.begin(), starts.end(), o) - starts.begin() -
                                         1);
    };
    for (std::int64_t n = 0; n < lines; ++n) {
        const std::int64_t start = starts[static_cast<std::size_t>(n)];
        for (std::int64_t o : {start - 1, start, start + 1}) {
            if (o < 0 || o > static_cast<std::int64_t>(model.size())) continue;
            ASSERT_EQ(table.lineContainingOffset(o), lineOf(o)) << "offset " << o;
        }
    }
    if (everyOffset) {
        for (std::int64_t o = 0; o <= static_cast<std::int64_t>(model.size()); ++o) {
            ASSERT_EQ(table.lineContainingOffset(o), lineOf(o)) << "offset " << o;
            const auto next = model.find('\n', static_cast<std::size_t>(o));
            const auto found = table.nextNewline(o);
            if (next == std::string::npos) {
                ASSERT_FALSE(found.has_value()) << "offset " << o;
            } else {
                ASSERT_EQ(found, static_cast<std::int64_t>(next)) << "offset " << o;
            }
        }
    }
    // Each piece knows its own newlines; together they are the document.
    std::int64_t total = 0;
    for (const Piece& piece : table.pieces()) {
        ASSERT_GT(piece.length, 0);
        const std::string span = piecesText(table, piece);
        // A pristine table's single piece learns its count only on leaving that state.
        if (!table.isPristine()) {
            ASSERT_EQ(piece.newlines, std::count(span.begin(), span.end(), '\n'));
        }
        total += piece.length;
    }
    ASSERT_EQ(total, static_cast<std::int64_t>(model.size()));
    // From 65 pieces on, no two neighbours are left that could have merged.
    if (table.pieces().size() >= PieceTable::compactionThreshold) {
        for (std::size_t i = 1; i < table.pieces().size(); ++i) {
            ASSERT_FALSE(mergeable(table.pieces()[i - 1], table.pieces()[i]))
                << "pieces " << i - 1 << " and " << i;
        }
    }
}

TEST(PieceTable, startsPristineAndAnswersFromTheIndex) {
    auto table = tableOver("one\ntwo\nthree\nfour\n");
    EXPECT_TRUE(table.isPristine());
    ASSERT_EQ(table.pieces().size(), 1u);
    EXPECT_EQ(table.pieces().front().newlines, 0);  // not known until the table leaves that state
    expectSame(table, "one\ntwo\nthree\nfour\n", true);

    const PieceTable empty = tableOver("");
    EXPECT_FALSE(empty.isPristine());
    EXPECT_TRUE(empty.pieces().empty());
    expectSame(empty, "", true);
}

TEST(PieceTable, editsKeepLinesRight) {
    auto table = tableOver("one\ntwo\nthree\nfour\n");
    // The second line's text becomes "2": still four newlines, five lines, the last empty.
    EXPECT_EQ(table.replace({4, 7}, bytesOf("2")), bytesOf("two"));
    EXPECT_FALSE(table.isPristine());
    EXPECT_EQ(table.newlineCount() + 1, 5);
    EXPECT_EQ(textOf(table), "one\n2\nthree\nfour\n");
    // "X\nY" before "three": one more line, and the new line starts at "Y".
    EXPECT_TRUE(table.replace({6, 6}, bytesOf("X\nY")).empty());
    EXPECT_EQ(textOf(table), "one\n2\nX\nYthree\nfour\n");
    EXPECT_EQ(table.newlineCount() + 1, 6);
    EXPECT_EQ(table.offsetOfLine(3), 8);
    EXPECT_EQ(table.bytes({8, 9}), bytesOf("Y"));
    expectSame(table, "one\n2\nX\nYthree\nfour\n", true);
    // Ranges are clamped; removing everything leaves an empty document.
    EXPECT_EQ(table.replace({-5, 1'000}, {}), bytesOf("one\n2\nX\nYthree\nfour\n"));
    expectSame(table, "", true);
    EXPECT_FALSE(table.nextNewline(0).has_value());
}

TEST(PieceTable, nextNewlineFindsNothingWithoutNewlines) {
    auto table = tableOver(std::string(100'000, 'z'));
    EXPECT_FALSE(table.nextNewline(0).has_value());
    table.replace({50'000, 50'000}, bytesOf("abc"));
    EXPECT_FALSE(table.nextNewline(0).has_value());
    table.replace({70'000, 70'000}, bytesOf("\n"));
    EXPECT_EQ(table.nextNewline(10), 70'000);
    EXPECT_FALSE(table.nextNewline(70'001).has_value());
}

TEST(PieceTable, typingAtTheEndGrowsOnePieceUpToItsLimit) {
    auto table = tableOver("abc\n");
    std::string model = "abc\n";
    const std::int64_t typed = PieceTable::maximumAddedPieceLength + 100;
    for (std::int64_t i = 0; i < typed; ++i) {
        const char c = i % 50 == 49 ? '\n' : static_cast<char>('a' + i % 26);
        table.replace({table.byteCount(), table.byteCount()}, bytesOf(std::string(1, c)));
        model.push_back(c);
    }
    ASSERT_EQ(table.pieces().size(), 3u);
    EXPECT_TRUE(table.pieces()[0].fromOriginal);
    EXPECT_EQ(table.pieces()[1].length, PieceTable::maximumAddedPieceLength);
    EXPECT_EQ(table.pieces()[2].length, 100);
    expectSame(table, model, false);
}

TEST(PieceTable, longInsertionsAreCutIntoShortPieces) {
    auto table = tableOver("head\ntail\n");
    std::string inserted;
    for (int i = 0; i < 40'000; ++i)
        inserted.push_back(i % 77 == 0 ? '\n' : 'k');
    table.replace({5, 5}, bytesOf(inserted));
    std::vector<std::int64_t> addedLengths;
    for (const Piece& piece : table.pieces()) {
        if (!piece.fromOriginal) addedLengths.push_back(piece.length);
    }
    EXPECT_EQ(addedLengths, (std::vector<std::int64_t>{16'384, 16'384, 40'000 - 2 * 16'384}));
    expectSame(table, "head\n" + inserted + "tail\n", false);
}

/// A table of at least 65 pieces: a single letter inserted at the start of every other line.
PieceTable fragmented(std::string& model, std::int64_t lines) {
    for (std::int64_t i = 0; i < lines; ++i)
        model += "line " + std::to_string(i) + "\n";
    auto table = tableOver(model, 3);
    for (std::int64_t n = lines - 2; n >= 0; n -= 2) {
        const std::int64_t at = table.offsetOfLine(n);
        table.replace({at, at}, bytesOf("#"));
        model.insert(static_cast<std::size_t>(at), "#");
    }
    return table;
}

TEST(PieceTable, compactionMergesNeighboursButNeverPastTheLimit) {
    std::string model;
    auto table = fragmented(model, 200);
    ASSERT_GE(table.pieces().size(), PieceTable::compactionThreshold);
    expectSame(table, model, false);

    // Two insertions back to back lie side by side in `added`: 8,192 + 8,193 bytes would make
    // 16,385 and stay apart; 8,192 + 8,192 merge into one piece.
    const auto insertPair = [&](std::int64_t line, std::int64_t second) {
        const std::int64_t at = table.offsetOfLine(line);
        table.replace({at, at}, bytesOf(std::string(8'192, 'a')));
        table.replace({at + 8'192, at + 8'192}, bytesOf(std::string(static_cast<std::size_t>(second), 'b')));
        model.insert(static_cast<std::size_t>(at),
                     std::string(8'192, 'a') + std::string(static_cast<std::size_t>(second), 'b'));
        return at;
    };
    const std::int64_t apart = insertPair(51, 8'193);
    const std::int64_t together = insertPair(151, 8'192);
    const auto pieceAt = [&](std::int64_t offset) {
        std::int64_t start = 0;
        for (const Piece& piece : table.pieces()) {
            if (offset < start + piece.length) return piece;
            start += piece.length;
        }
        return Piece{};
    };
    EXPECT_EQ(pieceAt(apart).length, 8'192);
    EXPECT_EQ(pieceAt(apart + 8'192).length, 8'193);
    EXPECT_EQ(pieceAt(together).length, 16'384);
    expectSame(table, model, false);

    // Original pieces merge whatever their size: an insertion taken out again leaves the
    // original whole around it.
    std::string big(300'000, 'o');
    for (std::size_t i = 99; i < big.size(); i += 100)
        big[i] = '\n';
    std::string bigModel = big;
    auto bigTable = tableOver(big, 5);
    for (std::int64_t i = 0; i < 70; ++i) {
        const std::int64_t at = 1'000 + i * 10;
        bigTable.replace({at, at + 1}, bytesOf("X"));
        bigModel[static_cast<std::size_t>(at)] = 'X';
    }
    bigTable.replace({200'000, 200'000}, bytesOf("inserted"));
    bigTable.replace({200'000, 200'008}, {});
    expectSame(bigTable, bigModel, false);
    const Piece& lastPiece = bigTable.pieces().back();
    EXPECT_TRUE(lastPiece.fromOriginal);
    EXPECT_EQ(lastPiece.offset + lastPiece.length, 300'000);
    EXPECT_GT(lastPiece.length, 250'000);
}

/// Random edits, seeded, against a plain string. Positions are drawn from anywhere, from the
/// piece boundaries, and from the end, where runs of typing go.
void runRandomEdits(unsigned seed, const std::string& initial, int edits, bool mapped) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed << (mapped ? " mapped" : " memory"));
    testing::TemporaryFolder folder;
    std::shared_ptr<const ByteSource> source;
    if (mapped)
        source = std::make_shared<MappedSource>(folder.write("original.txt", initial));
    else
        source = std::make_shared<MemorySource>(testing::bytes(initial));
    std::mt19937 random(seed);
    LineIndex index(source->count(), 1 + static_cast<std::int64_t>(random() % 40));
    // Part of the index known before the first edit, as when a document has just opened.
    auto head = index.plan(*source, source->count() / 3);
    index.commit(std::move(*head));
    PieceTable table(source, std::move(index));
    std::string model = initial;

    const auto randomText = [&](std::size_t length) {
        std::string text;
        for (std::size_t i = 0; i < length; ++i)
            text.push_back(random() % 6 == 0 ? '\n' : static_cast<char>('a' + random() % 26));
        return text;
    };
    for (int edit = 0; edit < edits; ++edit) {
        const auto size = static_cast<std::int64_t>(model.size());
        std::int64_t lo = 0;
        const auto where = random() % 10;
        if (where < 5 || table.pieces().empty()) {
            lo = size == 0 ? 0 : static_cast<std::int64_t>(random() % static_cast<unsigned>(size + 1));
        } else if (where < 8) {
            // A piece boundary, where splitting and merging happen.
            const auto& pieces = table.pieces();
            const auto chosen = random() % pieces.size();
            lo = 0;
            for (std::size_t i = 0; i < chosen; ++i)
                lo += pieces[i].length;
        } else {
            lo = size;
        }
        const auto kind = random() % 10;
        std::int64_t hi = lo;
        if (kind >= 6) hi = std::min(size, lo + static_cast<std::int64_t>(random() % 60));
        if (kind == 9 && random() % 8 == 0)
            hi = std::min(size, lo + static_cast<std::int64_t>(random() % 70'000));
        std::string inserted;
        if (kind < 8) {
            const auto length = random() % 40 == 0 ? 16'000 + random() % 20'000 : random() % 12;
            inserted = randomText(length);
        }
        if (where >= 8 && kind < 4) {
            // A run of typing at the end, one character at a time, sometimes across 16,384.
            const auto run = random() % 3 == 0 ? 16'500u : 1 + random() % 30;
            for (unsigned k = 0; k < run; ++k) {
                const std::string c = randomText(1);
                table.replace({table.byteCount(), table.byteCount()}, bytesOf(c));
                model += c;
            }
            continue;
        }
        const auto removed = table.replace({lo, hi}, bytesOf(inserted));
        ASSERT_EQ(std::string(removed.begin(), removed.end()),
                  model.substr(static_cast<std::size_t>(lo), static_cast<std::size_t>(hi - lo)));
        model.replace(static_cast<std::size_t>(lo), static_cast<std::size_t>(hi - lo), inserted);
        if (edit % 25 == 0 || edit == edits - 1) {
            ASSERT_NO_FATAL_FAILURE(expectSame(table, model, model.size() < 20'000));
        } else {
            ASSERT_EQ(table.byteCount(), static_cast<std::int64_t>(model.size()));
            const auto probe = model.empty() ? 0 : static_cast<std::int64_t>(random() % model.size());
            ASSERT_EQ(table.lineContainingOffset(probe),
                      std::count(model.begin(), model.begin() + probe, '\n'));
        }
    }
}

TEST(PieceTable, randomEditsAgreeWithAPlainString) {
    runRandomEdits(1, "alpha\nbeta\ngamma\ndelta\nepsilon\n", 600, false);
    runRandomEdits(2, "", 400, false);
    runRandomEdits(3, "no newline at all", 400, false);
    std::string large;
    std::mt19937 random(4);
    while (large.size() < 400'000) {
        large.append(random() % 150, static_cast<char>('a' + random() % 26));
        large.push_back('\n');
    }
    for (unsigned seed = 5; seed < 8; ++seed)
        runRandomEdits(seed, large, 500, seed == 6);
}

// Thousands of pieces, then removals that take whole runs of them at once, from the middle,
// the start and the end, and insertions that cut the survivors again.
TEST(PieceTable, manyPiecesAndWideRemovals) {
    std::string model;
    for (int i = 0; i < 3'000; ++i)
        model += "row " + std::to_string(i) + (i % 3 == 0 ? "\n" : " ");
    auto table = tableOver(model, 4);
    std::mt19937 random(11);
    for (int i = 0; i < 4'000; ++i) {
        const auto at = static_cast<std::int64_t>(random() % (model.size() + 1));
        const std::string text = i % 5 == 0 ? "\n" : std::string(1, static_cast<char>('A' + i % 26));
        table.replace({at, at}, bytesOf(text));
        model.insert(static_cast<std::size_t>(at), text);
    }
    ASSERT_GT(table.pieces().size(), 5'000u);
    expectSame(table, model, false);
    const std::pair<double, double> cuts[] = {
        {0.30, 0.55}, {0.0, 0.1}, {0.9, 1.0}, {0.2, 0.2001}, {0.4, 0.6}};
    for (const auto& [from, to] : cuts) {
        const auto size = static_cast<double>(model.size());
        const auto lo = static_cast<std::int64_t>(size * from);
        const auto hi = static_cast<std::int64_t>(size * to);
        SCOPED_TRACE(::testing::Message() << lo << ".." << hi);
        const auto removed = table.replace({lo, hi}, bytesOf("<cut>\n"));
        ASSERT_EQ(std::string(removed.begin(), removed.end()),
                  model.substr(static_cast<std::size_t>(lo), static_cast<std::size_t>(hi - lo)));
        model.replace(static_cast<std::size_t>(lo), static_cast<std::size_t>(hi - lo), "<cut>\n");
        expectSame(table, model, false);
    }
    table.replace({0, table.byteCount()}, {});
    expectSame(table, "", true);
    table.replace({0, 0}, bytesOf("again\n"));
    expectSame(table, "again\n", true);
}

TEST(PieceTable, withBytesAvoidsCopiesInsideOnePiece) {
    auto table = tableOver("0123456789abcdefghij");
    table.replace({10, 10}, bytesOf("XYZ"));
    std::vector<std::uint8_t> scratch;
    std::string seen;
    table.withBytes({2, 6}, scratch,
                    [&](std::span<const std::uint8_t> bytes) { seen.assign(bytes.begin(), bytes.end()); });
    EXPECT_EQ(seen, "2345");
    EXPECT_TRUE(scratch.empty());
    table.withBytes({8, 15}, scratch, [&](std::span<const std::uint8_t> bytes) {
        seen.assign(bytes.begin(), bytes.end());
        EXPECT_EQ(bytes.data(), scratch.data());
    });
    EXPECT_EQ(seen, "89XYZab");
    table.withBytes({20, 99}, scratch,
                    [&](std::span<const std::uint8_t> bytes) { seen.assign(bytes.begin(), bytes.end()); });
    EXPECT_EQ(seen, "hij");
}

TEST(PieceTable, streamsInBlocksAndStopsWhenAsked) {
    testing::TemporaryFolder folder;
    std::string text(100'000, 'm');
    auto source = std::make_shared<MappedSource>(folder.write("m.txt", text));
    PieceTable table(source, *LineIndex::build(*source));
    table.replace({50'000, 50'010}, bytesOf("short"));
    text.replace(50'000, 10, "short");
    std::string streamed;
    std::size_t largest = 0;
    EXPECT_TRUE(table.stream(7'000, {}, [&](std::span<const std::uint8_t> block) {
        largest = std::max(largest, block.size());
        streamed.append(block.begin(), block.end());
    }));
    EXPECT_EQ(streamed, text);
    EXPECT_EQ(largest, 7'000u);
    int blocks = 0;
    EXPECT_FALSE(table.stream(
        1'000, [&] { return blocks >= 3; }, [&](std::span<const std::uint8_t>) { ++blocks; }));
    EXPECT_EQ(blocks, 3);
    // A sink that throws ends the walk with its error.
    EXPECT_THROW(
        table.stream(1'000, {}, [](std::span<const std::uint8_t>) { throw std::runtime_error("full"); }),
        std::runtime_error);
}

TEST(PieceTable, leavingThePristineStateCompletesAPartialIndex) {
    std::string text;
    for (int i = 0; i < 50'000; ++i)
        text += "row " + std::to_string(i) + "\n";
    auto source = std::make_shared<MemorySource>(testing::bytes(text));
    LineIndex index(source->count());
    auto head = index.plan(*source, 1'000);
    index.commit(std::move(*head));
    PieceTable table(source, std::move(index));
    EXPECT_LT(table.newlineCount(), 50'000);  // only what the index has seen
    EXPECT_LT(table.lineContainingOffset(source->count() - 1), 50'000);
    EXPECT_EQ(table.nextNewline(static_cast<std::int64_t>(text.size()) - 3),
              static_cast<std::int64_t>(text.size()) - 1);
    table.replace({0, 0}, bytesOf(">"));
    text.insert(0, ">");
    EXPECT_TRUE(table.originalIndex().isComplete());
    expectSame(table, text, false);
}

}  // namespace
}  // namespace brim
