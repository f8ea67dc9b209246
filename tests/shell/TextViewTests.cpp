#include "shell/TextView.h"

#include "shell/TextNavigation.h"
#include "store/TextDocument.h"
#include "support/TemporaryFolder.h"

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QScrollBar>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace brim::shell {
namespace {

using brim::testing::bytes;

std::string contents(const TextDocument& document) {
    const auto all = document.table().bytes({0, document.byteCount()});
    return {all.begin(), all.end()};
}

struct ShownView {
    explicit ShownView(std::shared_ptr<TextDocument> document) : view(std::move(document)) {
        view.resize(640, 400);
        view.show();
        view.setFocus();
    }
    TextView view;
};

TEST(TextView, arrowsAndBackspaceWorkInWholeCharacters) {
    ShownView shown(TextDocument::inMemory(bytes("a\xC3\xA9\xE2\x82\xAC" "b\n"), TextEncoding::utf8(), "test"));
    TextView& view = shown.view;
    QTest::keyClick(&view, Qt::Key_End);
    EXPECT_EQ(view.caret(), 7);
    QTest::keyClick(&view, Qt::Key_Left);
    QTest::keyClick(&view, Qt::Key_Left);
    EXPECT_EQ(view.caret(), 3);   // before €, never inside it
    QTest::keyClick(&view, Qt::Key_Backspace);
    EXPECT_EQ(contents(view.document()), "a\xE2\x82\xAC" "b\n");
    EXPECT_EQ(view.caret(), 1);
    QTest::keyClick(&view, Qt::Key_Delete);
    EXPECT_EQ(contents(view.document()), "ab\n");
    // A key that types a character outside ASCII, as a keyboard layout delivers it.
    QKeyEvent umlaut(QEvent::KeyPress, Qt::Key_unknown, Qt::NoModifier, QString::fromUtf8("ü"));
    QApplication::sendEvent(&view, &umlaut);
    QTest::keyClicks(&view, "!");
    EXPECT_EQ(contents(view.document()), "a\xC3\xBC!b\n");
    EXPECT_EQ(view.caretPosition().line, 1);
    EXPECT_EQ(view.caretPosition().column, 4);
    QTest::keyClick(&view, Qt::Key_Z, Qt::ControlModifier);
    EXPECT_EQ(contents(view.document()), "ab\n");
    QTest::keyClick(&view, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(contents(view.document()), "a\xC3\xBC!b\n");
}

TEST(TextView, shiftExtendsTheSelectionAndTypingReplacesIt) {
    ShownView shown(TextDocument::inMemory(bytes("hello world\nsecond line\n"), TextEncoding::utf8(), "test"));
    TextView& view = shown.view;
    QTest::keyClick(&view, Qt::Key_Right, Qt::ShiftModifier | Qt::ControlModifier);
    EXPECT_EQ(view.selection(), (ByteRange{0, 5}));
    QTest::keyClick(&view, Qt::Key_Down, Qt::ShiftModifier);
    EXPECT_EQ(view.selection(), (ByteRange{0, 17}));   // column 5 of the second line
    QTest::keyClick(&view, Qt::Key_Left);              // collapses to the start
    EXPECT_EQ(view.caret(), 0);
    EXPECT_TRUE(view.selection().empty());
    QTest::keyClick(&view, Qt::Key_End, Qt::ShiftModifier);
    QTest::keyClicks(&view, "bye");
    EXPECT_EQ(contents(view.document()), "bye\nsecond line\n");
    QTest::keyClick(&view, Qt::Key_Return);
    QTest::keyClick(&view, Qt::Key_End, Qt::ControlModifier);
    EXPECT_EQ(view.caret(), view.document().byteCount());
    EXPECT_EQ(view.caretPosition().line, 4);
    QTest::keyClick(&view, Qt::Key_Home, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(view.selection(), (ByteRange{0, view.document().byteCount()}));
}

TEST(TextView, upAndDownKeepTheColumnAcrossShortLines) {
    ShownView shown(TextDocument::inMemory(bytes("abcdef\nxy\n\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\n"),
                                           TextEncoding::utf8(), "test"));
    TextView& view = shown.view;
    view.setCaret(4);
    QTest::keyClick(&view, Qt::Key_Down);
    EXPECT_EQ(view.caret(), 9);    // the end of "xy"
    QTest::keyClick(&view, Qt::Key_Down);
    EXPECT_EQ(view.caret(), 18);   // four é in: the column came back, counted in characters
    QTest::keyClick(&view, Qt::Key_Up);
    QTest::keyClick(&view, Qt::Key_Up);
    EXPECT_EQ(view.caret(), 4);
}

TEST(TextView, cutCopyAndPasteGoThroughTheClipboardAndUndo) {
    ShownView shown(TextDocument::inMemory(bytes("one two\r\nthree\r\n"), TextEncoding::utf8(), "test"));
    TextView& view = shown.view;
    ASSERT_EQ(view.document().lineEnding, LineEnding::crlf);
    view.setCaret(4);
    view.setCaret(7, true);
    view.cut();
    EXPECT_EQ(QApplication::clipboard()->text(), QStringLiteral("two"));
    EXPECT_EQ(contents(view.document()), "one \r\nthree\r\n");
    QApplication::clipboard()->setText(QStringLiteral("a\nb"));
    view.paste();
    // Pasted breaks take the document's own line ending.
    EXPECT_EQ(contents(view.document()), "one a\r\nb\r\nthree\r\n");
    view.undo();
    view.undo();
    EXPECT_EQ(contents(view.document()), "one two\r\nthree\r\n");
    QTest::keyClick(&view, Qt::Key_End);
    QTest::keyClick(&view, Qt::Key_Backspace);   // CR LF goes as one
    EXPECT_EQ(contents(view.document()), "one tw\r\nthree\r\n");
}

TEST(TextView, theVerticalBarMapsToBytesOfALargeFile) {
    const brim::testing::TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 200'000; ++i) text += "row " + std::to_string(i) + " of the file\n";
    const auto document = TextDocument::open(folder.write("large.txt", text));
    ShownView shown(document);
    TextView& view = shown.view;
    QScrollBar* bar = view.verticalScrollBar();
    bar->setValue(bar->maximum());
    EXPECT_EQ(view.topOffset(), view.lastTopOffset());
    const auto rows = view.rowsFrom(view.topOffset(), view.visibleRowCount() + 1);
    EXPECT_TRUE(rows.back().isLast);
    bar->setValue(bar->maximum() / 2);
    // The middle of the bar is the line holding the middle byte.
    const std::int64_t middle = TextNavigation::lineStartAtOrBefore(
        *document, static_cast<std::int64_t>(static_cast<double>(view.lastTopOffset()) / 2));
    EXPECT_NEAR(static_cast<double>(view.topOffset()), static_cast<double>(middle), 30);
    EXPECT_EQ(TextNavigation::lineStartAtOrBefore(*document, view.topOffset()), view.topOffset());
    // Rows keep whole lines and, where the index reaches, their numbers.
    view.scrollToOffset(0);
    view.scrollRows(3);
    const auto top = view.rowsFrom(view.topOffset(), 2);
    ASSERT_TRUE(top.front().number.has_value());
    EXPECT_EQ(*top.front().number, 3);
    view.scrollRows(-10);
    EXPECT_EQ(view.topOffset(), 0);
    // Ctrl+End then paints the end; the caret sits on the last line.
    QTest::keyClick(&view, Qt::Key_End, Qt::ControlModifier);
    EXPECT_EQ(view.topOffset(), view.lastTopOffset());
    EXPECT_FALSE(view.grab().isNull());
}

TEST(TextView, aVeryLongLineIsShownInAWindowAroundTheColumns) {
    const brim::testing::TemporaryFolder folder;
    std::string text(8'000'000, 'a');
    for (std::size_t i = 0; i < text.size(); i += 1'000) text[i] = 'Z';
    text += "\nshort\n";
    const auto document = TextDocument::open(folder.write("long.txt", text));
    ShownView shown(document);
    TextView& view = shown.view;
    view.horizontalScrollBar()->setValue(5'000'000);
    EXPECT_GE(view.horizontalScrollBar()->maximum(), 7'000'000);
    // A click lands near the byte under it, far into the line, without laying the line out whole.
    const std::int64_t at = view.offsetAtPoint(QPoint(view.gutterWidth() + 50, view.lineHeight() / 2));
    EXPECT_NEAR(static_cast<double>(at), 5'000'000 + 50 / view.characterWidth(), 3);
    QTest::keyClick(&view, Qt::Key_End);
    QTest::keyClick(&view, Qt::Key_End, Qt::ControlModifier);
    EXPECT_EQ(view.caret(), document->byteCount());
    view.setCaret(4'000'000);
    EXPECT_GE(view.horizontalScrollBar()->value(), 4'000'000 - 100);
    EXPECT_FALSE(view.grab().isNull());
}

TEST(TextView, editsElsewhereMoveTheViewWithTheText) {
    std::string text;
    for (int i = 0; i < 200; ++i) text += "line " + std::to_string(i) + "\n";
    auto document = TextDocument::inMemory(bytes(text), TextEncoding::utf8(), "test");
    ShownView shown(document);
    TextView& view = shown.view;
    view.scrollToOffset(document->table().offsetOfLine(100));
    const std::int64_t top = view.topOffset();
    document->replaceBytes({0, 0}, bytes("new\n"), 0, 4);
    EXPECT_EQ(view.topOffset(), top + 4);
    view.setReadOnly(true);
    QTest::keyClicks(&view, "x");
    EXPECT_EQ(document->byteCount(), static_cast<std::int64_t>(text.size()) + 4);
}

} // namespace
} // namespace brim::shell
