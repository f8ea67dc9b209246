#pragma once

#include "bytes/ByteSource.h"
#include "shell/RowLayout.h"

#include <QAbstractScrollArea>
#include <QFont>
#include <QTimer>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class QTextLayout;

namespace brim {
class TextDocument;
}

namespace brim::shell {

/// The editing surface: shows a `TextDocument` a screen at a time and edits it through the document's
/// own operations.
///
/// Only the visible lines are read, decoded and laid out, and a line longer than `wholeLineLimit` is
/// laid out in a window around the visible columns, so a line of a gigabyte costs what a short one
/// does. The position is a byte offset: the vertical bar shows the first visible byte as a fraction of
/// the document (Qt's ranges are 32-bit), never a line or a pixel count.
class TextView : public QAbstractScrollArea {
    Q_OBJECT

public:
    /// One line on screen: where it starts, where its break is, and its number when the index knows it.
    struct Row {
        std::int64_t start = 0;
        std::int64_t end = 0;          ///< the 0x0A that ends it, or the document's end
        std::int64_t contentEnd = 0;   ///< `end`, or the CR of a CR LF pair before it
        std::optional<std::int64_t> number;
        bool isLast = false;
    };

    /// Caret movements; `extend` in `move` keeps the anchor, making or growing a selection.
    enum class Move : std::uint8_t {
        left, right, wordLeft, wordRight, up, down, lineStart, lineEnd, pageUp, pageDown, documentStart, documentEnd
    };

    /// The caret's place for the status bar: line and column from 1; no line beyond the index.
    struct CaretPosition {
        std::optional<std::int64_t> line;
        std::int64_t column = 1;
    };

    /// Lines up to this length are laid out whole; longer ones in windows.
    static constexpr std::int64_t wholeLineLimit = 16'384;

    explicit TextView(std::shared_ptr<TextDocument> document, QWidget* parent = nullptr);
    ~TextView() override;

    [[nodiscard]] TextDocument& document() const { return *document_; }
    [[nodiscard]] std::int64_t caret() const { return caret_; }
    [[nodiscard]] std::int64_t anchor() const { return anchor_; }
    [[nodiscard]] ByteRange selection() const;
    [[nodiscard]] std::int64_t topOffset() const { return top_; }
    [[nodiscard]] std::int64_t lastTopOffset() const { return lastTop_; }
    [[nodiscard]] CaretPosition caretPosition() const;
    /// Rows that fit whole on screen (at least one).
    [[nodiscard]] int visibleRowCount() const;
    /// The rows from the first visible one on, at most `count`.
    [[nodiscard]] std::vector<Row> rowsFrom(std::int64_t top, int count) const;

    /// Puts the caret at `offset` (snapped to a character), keeping the anchor with `extend`, and
    /// scrolls it into view.
    void setCaret(std::int64_t offset, bool extend = false);
    void move(Move movement, bool extend);
    /// Shows the line holding `offset` at the top (or as near as the end allows).
    void scrollToOffset(std::int64_t offset);
    /// Scrolls by whole rows, up for negative counts; stops at either end.
    void scrollRows(std::int64_t count);

    /// Refuses typing while true (a save is reading the document).
    void setReadOnly(bool readOnly) { readOnly_ = readOnly; }
    [[nodiscard]] bool isReadOnly() const;

    // Editing, each through the document's operations and its undo.
    void insertText(const QString& text);
    void insertLineBreak();
    void deleteBackward();
    void deleteForward();
    void cut();
    void copy() const;
    void paste();
    void undo();
    void redo();
    void selectAll();

    /// The index has grown: line numbers may now be known.
    void indexAdvanced();
    /// Called by the document's observer.
    void documentChanged(std::int64_t changedFrom);

    [[nodiscard]] const QFont& textFont() const { return font_; }
    [[nodiscard]] double characterWidth() const { return characterWidth_; }
    [[nodiscard]] int lineHeight() const { return lineHeight_; }
    [[nodiscard]] int gutterWidth() const;
    /// Where in the document a point of the viewport falls.
    [[nodiscard]] std::int64_t offsetAtPoint(QPoint point) const;

signals:
    void caretMoved();
    void edited();
    /// Typing was refused; the text says why.
    void refused(const QString& reason);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void inputMethodEvent(QInputMethodEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    bool focusNextPrevChild(bool next) override;
    void scrollContentsBy(int dx, int dy) override;

private:
    class Observer;

    /// A row decoded and laid out, for a window of it when it is long.
    struct LaidRow {
        RowText text;
        double originX = 0;        ///< x of `text.windowStart` from the line's start, in pixels
        std::shared_ptr<QTextLayout> layout;
    };

    [[nodiscard]] const LaidRow& laidRow(const Row& row, std::int64_t focusCell) const;
    [[nodiscard]] Row rowAt(std::int64_t lineStart, std::optional<std::int64_t> number) const;
    /// x from the line's start for `offset` in `row`.
    [[nodiscard]] double xForOffset(const Row& row, std::int64_t offset) const;
    [[nodiscard]] std::int64_t offsetForX(const Row& row, double x) const;
    [[nodiscard]] int visibleCells() const;
    [[nodiscard]] double textLeft() const;
    void replaceSelection(std::span<const std::uint8_t> bytes, bool coalesce);
    [[nodiscard]] std::vector<std::uint8_t> encodeForDocument(const QString& text) const;
    void ensureCaretVisible();
    void updateScrollBars();
    void recomputeLastTop();
    void caretChanged();
    void applySettings();

    std::shared_ptr<TextDocument> document_;
    std::shared_ptr<Observer> observer_;
    QFont font_;
    double characterWidth_ = 8;
    int lineHeight_ = 16;
    int ascent_ = 12;
    int tabWidth_ = 4;
    std::int64_t top_ = 0;
    std::int64_t lastTop_ = 0;
    std::int64_t horizontalCell_ = 0;
    std::int64_t caret_ = 0;
    std::int64_t anchor_ = 0;
    std::optional<double> desiredX_;   // kept across up and down moves
    std::optional<std::int64_t> typingEnd_;   // where the last typing ended, for undo steps
    std::int64_t typingGeneration_ = -1;
    bool readOnly_ = false;
    bool editing_ = false;             // our own edit is under way: the caret is ours to place
    bool syncingBars_ = false;
    bool caretShown_ = true;
    bool selectingByMouse_ = false;
    QTimer blink_;
    mutable std::map<std::pair<std::int64_t, std::int64_t>, LaidRow> rowCache_;
};

} // namespace brim::shell
