#include "store/TextDocument.h"

#include "charsets/LossyUTF8.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

namespace brim {
namespace {

using testing::bytes;

std::string contents(const TextDocument& document) {
    const auto all = document.table().bytes({0, document.byteCount()});
    return {all.begin(), all.end()};
}

/// A document over `text` whose clock the test moves by hand.
struct Fixture {
    explicit Fixture(std::string_view text = {}) {
        document = TextDocument::inMemory(bytes(text), TextEncoding::utf8(), "test");
        document->setClock([this] { return clock; });
    }

    /// Types `text` one byte at a time at the end, a tenth of a second apart.
    void type(std::string_view text, double interval = 0.1) {
        for (const char c : text) {
            const std::int64_t end = document->byteCount();
            const std::uint8_t b = static_cast<std::uint8_t>(c);
            document->replaceBytes({end, end}, std::span(&b, 1), end, end + 1, true);
            clock += interval;
        }
    }

    std::shared_ptr<TextDocument> document;
    double clock = 1000;
};

TEST(TextDocumentEditing, undoTakesBackWordsNotLettersNorParagraphs) {
    Fixture f;
    f.type("hello world\nnext");
    EXPECT_EQ(contents(*f.document), "hello world\nnext");
    EXPECT_EQ(f.document->undoStack().size(), 3U);

    const std::vector<std::string> steps = {"hello world", "hello ", ""};
    for (const auto& expected : steps) {
        SCOPED_TRACE(expected);
        ASSERT_TRUE(f.document->undo());
        EXPECT_EQ(contents(*f.document), expected);
    }
    EXPECT_FALSE(f.document->canUndo());
    for (const auto* expected : {"hello ", "hello world", "hello world\nnext"}) {
        ASSERT_TRUE(f.document->redo());
        EXPECT_EQ(contents(*f.document), expected);
    }
}

TEST(TextDocumentEditing, whatStartsANewUndoStep) {
    struct Case {
        const char* typed;
        std::optional<std::uint8_t> previous;
        bool startsStep;
    };
    const std::vector<Case> cases = {
        {"a", std::nullopt, false}, {"a", 'x', false}, {"a", ' ', true},   {"a", '\t', true},
        {" ", 'x', false},          {" ", ' ', false}, {"\n", 'x', true},  {"\r", std::nullopt, true},
        {"", ' ', false},           {"\t", ' ', false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.typed) + " after " + (c.previous ? std::string(1, char(*c.previous)) : "nothing"));
        EXPECT_EQ(TextDocument::startsNewUndoStep(bytes(c.typed), c.previous), c.startsStep);
    }
}

TEST(TextDocumentEditing, slowTypingGivesAStepPerKey) {
    Fixture f;
    f.type("abc", 1.5);
    EXPECT_EQ(f.document->undoStack().size(), 3U);
    f.document->undo();
    EXPECT_EQ(contents(*f.document), "ab");
}

TEST(TextDocumentEditing, replacingASelectionIsNeverMergedAndNewEditsEmptyRedo) {
    Fixture f;
    f.type("one two");
    const std::size_t before = f.document->undoStack().size();
    f.document->replaceBytes({4, 7}, bytes("six"), 7, 7, true);
    EXPECT_EQ(f.document->undoStack().size(), before + 1);
    EXPECT_EQ(contents(*f.document), "one six");
    f.document->undo();
    EXPECT_EQ(contents(*f.document), "one two");
    EXPECT_TRUE(f.document->canRedo());
    f.type("!");
    EXPECT_FALSE(f.document->canRedo());
}

TEST(TextDocumentEditing, theBudgetDropsOldGroupsButKeepsTheNewest) {
    Fixture f(std::string(100, 'x'));
    f.document->setUndoByteBudget(30);
    f.document->replaceBytes({0, 10}, {}, 0, 0);
    f.document->replaceBytes({0, 10}, {}, 0, 0);
    f.document->replaceBytes({0, 10}, {}, 0, 0);
    EXPECT_EQ(f.document->undoStack().size(), 3U);
    EXPECT_EQ(f.document->undoBytes(), 30);
    f.document->replaceBytes({0, 5}, {}, 0, 0);
    EXPECT_EQ(f.document->undoStack().size(), 3U);
    EXPECT_EQ(f.document->undoBytes(), 25);

    // One edit larger than the whole budget stays on its own.
    f.document->replaceBytes({0, 60}, {}, 0, 0);
    EXPECT_EQ(f.document->undoStack().size(), 1U);
    EXPECT_EQ(f.document->undoBytes(), 60);
    f.document->undo();
    EXPECT_EQ(f.document->byteCount(), 65);
}

TEST(TextDocumentEditing, aNewDocumentCannotUndoAndUndoingToTheSavedTextStaysDirty) {
    Fixture f("saved");
    EXPECT_FALSE(f.document->canUndo());
    EXPECT_FALSE(f.document->isDirty());
    f.type("!");
    EXPECT_TRUE(f.document->isDirty());
    f.document->undo();
    EXPECT_EQ(contents(*f.document), "saved");
    EXPECT_TRUE(f.document->isDirty());
}

TEST(TextDocumentEditing, replaceManyIsOneStepWithOneChange) {
    Fixture f("a1\nb1\nc1\nd1\n");
    const auto generation = f.document->editGeneration();
    const auto caret = f.document->replaceMany({{{1, 2}, bytes("ONE")}, {{7, 8}, bytes("X\nY")}, {{4, 5}, {}}}, 0);
    EXPECT_EQ(contents(*f.document), "aONE\nb\ncX\nY\nd1\n");
    EXPECT_EQ(caret, 11);   // after "X\nY", which moved by the two edits before it
    EXPECT_EQ(f.document->editGeneration(), generation + 1);
    ASSERT_TRUE(f.document->lastChange());
    EXPECT_EQ(f.document->lastChange()->oldLines, (LineSpan{0, 2}));
    EXPECT_EQ(f.document->lastChange()->lineDelta, 1);
    EXPECT_EQ(f.document->undoStack().size(), 1U);
    const auto replay = f.document->undo();
    ASSERT_TRUE(replay);
    EXPECT_EQ(replay->caret, 0);
    EXPECT_EQ(contents(*f.document), "a1\nb1\nc1\nd1\n");
    EXPECT_EQ(replay->change.lineDelta, -1);
    EXPECT_EQ(replay->change.oldBytes, (ByteRange{1, 11}));
    f.document->redo();
    EXPECT_EQ(contents(*f.document), "aONE\nb\ncX\nY\nd1\n");
    EXPECT_EQ(f.document->replaceMany({}, 42), 42);
}

TEST(TextDocumentEditing, amendingKeepsOneUndoForTheWholeSeries) {
    Fixture f("color: #000000;");
    f.document->replace({7, 14}, "#111111", 7, 14);
    f.document->replaceAmendingUndo({7, 14}, "#222222", 7, 14);
    f.document->replaceAmendingUndo({7, 14}, "red", 7, 10);
    EXPECT_EQ(contents(*f.document), "color: red;");
    EXPECT_EQ(f.document->undoStack().size(), 1U);
    EXPECT_EQ(f.document->undoBytes(), 7);
    f.document->undo();
    EXPECT_EQ(contents(*f.document), "color: #000000;");
}

TEST(TextDocumentEditing, nibblesRewriteTheByteJustTyped) {
    Fixture f("AB");
    f.document->replaceBytes({1, 1}, bytes("\x10"), 1, 2);
    EXPECT_TRUE(f.document->replaceBytesWithinLastEdit({1, 2}, bytes("\x1F"), 2));
    EXPECT_EQ(contents(*f.document), "A\x1F" "B");
    EXPECT_FALSE(f.document->replaceBytesWithinLastEdit({2, 3}, bytes("Z"), 3));
    EXPECT_TRUE(f.document->lastChange()->linesPreserved);
    f.document->undo();
    EXPECT_EQ(contents(*f.document), "AB");
}

TEST(TextDocumentEditing, theLineCacheKeepsLinesAboveAnEditAndAtMostItsLimit) {
    std::string text;
    for (int i = 0; i < 5000; ++i) text += "line " + std::to_string(i) + "\n";
    Fixture f(text);
    for (std::int64_t n = 0; n < 5000; ++n) (void)f.document->lineText(n);
    EXPECT_EQ(f.document->cachedLineCount(), TextDocument::lineCacheLimit);
    EXPECT_FALSE(f.document->isLineCached(0));   // first in, first out
    EXPECT_TRUE(f.document->isLineCached(4999));

    const auto start = f.document->lineRange(4500).lower;
    f.document->replace({start, start}, "new ", start, start + 4);
    EXPECT_TRUE(f.document->isLineCached(4499));
    for (std::int64_t n = 4500; n < 5000; ++n) EXPECT_FALSE(f.document->isLineCached(n));
    EXPECT_EQ(f.document->lineText(4500), "new line 4500");
    EXPECT_EQ(f.document->lineText(4499), "line 4499");
    f.document->undo();
    EXPECT_EQ(f.document->cachedLineCount(), 0U);
}

struct Recorder : TextDocumentObserver {
    void documentDidChange(TextDocument& document, std::int64_t changedFrom) override {
        lines.push_back(changedFrom);
        changes.push_back(*document.lastChange());
    }
    std::vector<std::int64_t> lines;
    std::vector<DocumentChange> changes;
};

TEST(TextDocumentEditing, observersAreHeldWeaklyAndToldWhatMoved) {
    Fixture f("one\ntwo\nthree\n");
    auto kept = std::make_shared<Recorder>();
    auto gone = std::make_shared<Recorder>();
    f.document->addObserver(kept);
    f.document->addObserver(gone);
    gone.reset();
    f.document->replace({4, 7}, "2\n2b", 4, 8);
    EXPECT_EQ(f.document->observerCount(), 1U);
    ASSERT_EQ(kept->changes.size(), 1U);
    EXPECT_EQ(kept->lines, std::vector<std::int64_t>{1});
    const DocumentChange expected{{1, 1}, {4, 7}, 1, 1, false, false};
    EXPECT_EQ(kept->changes.front(), expected);

    f.document->reinterpret(TextEncoding::latin1());
    EXPECT_TRUE(kept->changes.back().isWholesale);
    EXPECT_EQ(f.document->detection.reason, "chosen by user");
    f.document->removeObserver(kept.get());
    f.document->replace({0, 0}, "x", 0, 1);
    EXPECT_EQ(kept->changes.size(), 2U);
}

TEST(TextDocumentEditing, changesFromAnotherThreadAreDeliveredOnTheMainQueue) {
    Fixture f("text");
    auto recorder = std::make_shared<Recorder>();
    f.document->addObserver(recorder);
    std::thread([&] { f.document->notifyChanged(0, DocumentChange::wholesale()); }).join();
    EXPECT_TRUE(recorder->changes.empty());
    MainQueue::pump();
    ASSERT_EQ(recorder->changes.size(), 1U);
    EXPECT_TRUE(recorder->changes.front().isWholesale);
}

TEST(TextDocumentEditing, randomEditsUndoAndRedoMatchAModel) {
    std::mt19937 random(20240611);
    std::string model = "alpha\nbeta\ngamma\ndelta\nepsilon\n";
    Fixture f(model);
    std::vector<std::string> undoModels;
    std::vector<std::string> redoModels;
    const auto pick = [&](std::int64_t limit) {
        return std::uniform_int_distribution<std::int64_t>(0, std::max<std::int64_t>(limit, 0))(random);
    };
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        const int action = std::uniform_int_distribution<int>(0, 9)(random);
        if (action < 6) {
            const std::int64_t lo = pick(static_cast<std::int64_t>(model.size()));
            const std::int64_t hi = lo + pick(std::min<std::int64_t>(6, static_cast<std::int64_t>(model.size()) - lo));
            static const char* const inserts[] = {"", "x", "\n", "yz\n", " ", "long text\nwith lines\n", "\xC3\xA9"};
            const std::string inserted = inserts[pick(6)];
            const std::string before = model;
            model.replace(static_cast<std::size_t>(lo), static_cast<std::size_t>(hi - lo), inserted);
            if (before == model && hi == lo && inserted.empty()) continue;
            // Coalescing may merge this edit into the previous step: the model follows the document.
            const auto depth = f.document->undoStack().size();
            f.document->replaceBytes({lo, hi}, bytes(inserted), lo, lo, (step % 3) != 0);
            f.clock += 0.2 + (step % 7 == 0 ? 2.0 : 0.0);
            if (f.document->undoStack().size() > depth) undoModels.push_back(before);
            redoModels.clear();
        } else if (action < 8) {
            const bool could = f.document->canUndo();
            ASSERT_EQ(could, !undoModels.empty());
            if (!could) continue;
            redoModels.push_back(model);
            model = undoModels.back();
            undoModels.pop_back();
            ASSERT_TRUE(f.document->undo());
        } else {
            const bool could = f.document->canRedo();
            ASSERT_EQ(could, !redoModels.empty());
            if (!could) continue;
            undoModels.push_back(model);
            model = redoModels.back();
            redoModels.pop_back();
            ASSERT_TRUE(f.document->redo());
        }
        ASSERT_EQ(contents(*f.document), model);
        ASSERT_EQ(f.document->byteCount(), static_cast<std::int64_t>(model.size()));
        const auto newlines = std::count(model.begin(), model.end(), '\n');
        ASSERT_EQ(f.document->lineCount(), newlines + 1);
        const std::int64_t line = pick(newlines);
        std::size_t start = 0;
        for (std::int64_t n = 0; n < line; ++n) start = model.find('\n', start) + 1;
        const std::size_t end = std::min(model.find('\n', start), model.size());
        // Edits may cut a two-byte character: the line then reads with U+FFFD for the stray byte.
        ASSERT_EQ(f.document->lineText(line), LossyUTF8::repaired(bytes(model.substr(start, end - start))));
    }
}

} // namespace
} // namespace brim
