#include "shell/TextView.h"

#include "common/Localization.h"
#include "settings/Settings.h"
#include "shell/ScrollMapping.h"
#include "shell/TextNavigation.h"
#include "store/TextDocument.h"

#include <QApplication>
#include <QClipboard>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QInputMethodEvent>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QTextLayout>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace brim::shell {

namespace Nav = TextNavigation;

class TextView::Observer : public TextDocumentObserver {
public:
    explicit Observer(TextView* view) : view_(view) {}
    void documentDidChange(TextDocument&, std::int64_t changedFrom) override { view_->documentChanged(changedFrom); }

private:
    TextView* view_;
};

namespace {

// Columns laid out on either side of the visible ones in a long line's window.
inline constexpr std::int64_t windowMargin = 64;
inline constexpr std::size_t rowCacheLimit = 1'024;

QFont editorFont() {
    const Settings& settings = Settings::shared();
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    if (!settings.fontName().empty()) font.setFamily(QString::fromStdString(settings.fontName()));
    font.setStyleHint(QFont::Monospace, QFont::PreferDefault);
    font.setFixedPitch(true);
    font.setPointSizeF(settings.fontSize());
    font.setKerning(false);
    return font;
}

} // namespace

TextView::TextView(std::shared_ptr<TextDocument> document, QWidget* parent)
    : QAbstractScrollArea(parent), document_(std::move(document)), observer_(std::make_shared<Observer>(this)) {
    document_->addObserver(observer_);
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_InputMethodEnabled);
    viewport()->setCursor(Qt::IBeamCursor);
    viewport()->setAutoFillBackground(false);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    caret_ = anchor_ = document_->textStart();
    applySettings();
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this, [this](int value) {
        if (syncingBars_) return;
        const std::int64_t byte =
            ScrollMapping::byteForValue(value, verticalScrollBar()->maximum(), lastTop_);
        top_ = std::min(lastTop_, Nav::lineStartAtOrBefore(*document_, byte));
        viewport()->update();
    });
    connect(horizontalScrollBar(), &QScrollBar::valueChanged, this, [this](int value) {
        if (syncingBars_) return;
        horizontalCell_ = value;
        viewport()->update();
    });
    blink_.setInterval(530);
    connect(&blink_, &QTimer::timeout, this, [this] {
        caretShown_ = !caretShown_;
        viewport()->update();
    });
    recomputeLastTop();
    updateScrollBars();
}

TextView::~TextView() { document_->removeObserver(observer_.get()); }

void TextView::applySettings() {
    font_ = editorFont();
    const QFontMetricsF metrics(font_);
    characterWidth_ = std::max(1.0, metrics.horizontalAdvance(QLatin1Char('M')));
    lineHeight_ = std::max(1, static_cast<int>(std::ceil(metrics.lineSpacing())));
    ascent_ = static_cast<int>(std::ceil(metrics.ascent()));
    tabWidth_ = document_->tabWidth.value_or(Settings::shared().tabWidth());
    if (const auto rule = document_->editorConfig.tabWidth) tabWidth_ = *rule;
    tabWidth_ = std::clamp(tabWidth_, 1, 16);
    rowCache_.clear();
}

ByteRange TextView::selection() const { return {std::min(caret_, anchor_), std::max(caret_, anchor_)}; }

bool TextView::isReadOnly() const { return readOnly_ || document_->isReadOnly; }

int TextView::visibleRowCount() const { return std::max(1, viewport()->height() / lineHeight_); }

int TextView::visibleCells() const {
    return std::max(1, static_cast<int>((viewport()->width() - textLeft()) / characterWidth_));
}

int TextView::gutterWidth() const {
    std::int64_t lines = std::max<std::int64_t>(document_->lineCount(), 1);
    int digits = 1;
    while (lines >= 10) {
        lines /= 10;
        ++digits;
    }
    return static_cast<int>(std::ceil((std::max(digits, 3) + 2) * characterWidth_));
}

double TextView::textLeft() const { return gutterWidth() + characterWidth_ / 2; }

TextView::Row TextView::rowAt(std::int64_t lineStart, std::optional<std::int64_t> number) const {
    Row row;
    row.start = lineStart;
    row.end = Nav::lineEndFrom(*document_, lineStart);
    row.contentEnd = Nav::contentEnd(*document_, lineStart, row.end);
    row.number = number;
    row.isLast = row.end >= document_->byteCount();
    return row;
}

std::vector<TextView::Row> TextView::rowsFrom(std::int64_t top, int count) const {
    std::vector<Row> rows;
    std::optional<std::int64_t> number = Nav::knownLineNumber(*document_, top);
    // A stretch inside a line too long to look back over has no line of its own to number.
    if (number && document_->table().offsetOfLine(*number) != top) number.reset();
    std::int64_t start = top;
    for (int i = 0; i < count; ++i) {
        Row row = rowAt(start, number);
        rows.push_back(row);
        if (row.isLast) break;
        start = row.end + 1;
        if (number) ++*number;
    }
    return rows;
}

const TextView::LaidRow& TextView::laidRow(const Row& row, std::int64_t focusCell) const {
    std::int64_t from = row.start;
    std::int64_t to = row.contentEnd;
    if (row.contentEnd - row.start > wholeLineLimit) {
        // About one column per byte: good enough to place a window, and it never reads the line whole.
        const std::int64_t firstCell = std::max<std::int64_t>(0, focusCell - windowMargin);
        from = std::min(row.contentEnd, row.start + firstCell);
        if (from > row.start) from = std::max(row.start, document_->characterStartAtOrBefore(from));
        to = std::min(row.contentEnd, from + (visibleCells() + 2 * windowMargin) * 4);
    }
    const auto key = std::make_pair(row.start, from);
    if (const auto found = rowCache_.find(key); found != rowCache_.end() && found->second.text.windowEnd <= to) {
        return found->second;
    }
    if (rowCache_.size() >= rowCacheLimit) rowCache_.clear();
    LaidRow laid;
    laid.text = decodeRow(*document_, from, to);
    laid.originX = static_cast<double>(from - row.start) * characterWidth_;
    laid.layout = std::make_shared<QTextLayout>(laid.text.text, font_);
    QTextOption option;
    option.setWrapMode(QTextOption::NoWrap);
    option.setTabStopDistance(characterWidth_ * tabWidth_);
    laid.layout->setTextOption(option);
    laid.layout->setCacheEnabled(true);
    laid.layout->beginLayout();
    QTextLine line = laid.layout->createLine();
    if (line.isValid()) {
        line.setLineWidth(1e7);
        line.setPosition(QPointF(0, 0));
    }
    laid.layout->endLayout();
    return rowCache_.insert_or_assign(key, std::move(laid)).first->second;
}

double TextView::xForOffset(const Row& row, std::int64_t offset) const {
    const LaidRow& laid = laidRow(row, static_cast<std::int64_t>(std::floor(
                                           static_cast<double>(offset - row.start) - visibleCells() / 2.0)));
    if (offset < laid.text.windowStart || offset > laid.text.windowEnd || laid.layout->lineCount() == 0) {
        return static_cast<double>(offset - row.start) * characterWidth_;
    }
    return laid.originX + laid.layout->lineAt(0).cursorToX(laid.text.unitForByte(offset));
}

std::int64_t TextView::offsetForX(const Row& row, double x) const {
    if (x <= 0) return row.start;
    const auto cell = static_cast<std::int64_t>(x / characterWidth_);
    const LaidRow& laid = laidRow(row, std::max<std::int64_t>(0, cell - visibleCells() / 2));
    if (laid.layout->lineCount() == 0) return row.start;
    const double local = x - laid.originX;
    if (local < 0) return laid.text.windowStart;
    const int unit = laid.layout->lineAt(0).xToCursor(local, QTextLine::CursorBetweenCharacters);
    const auto index = static_cast<std::size_t>(std::clamp(unit, 0, static_cast<int>(laid.text.text.size())));
    return std::min(row.contentEnd, laid.text.byteOfUnit[index]);
}

std::int64_t TextView::offsetAtPoint(QPoint point) const {
    const int index = std::max(0, point.y() / lineHeight_);
    const auto rows = rowsFrom(top_, index + 1);
    if (rows.empty()) return 0;
    if (index >= static_cast<int>(rows.size())) return document_->byteCount();
    const double x = point.x() - textLeft() + static_cast<double>(horizontalCell_) * characterWidth_;
    return offsetForX(rows[static_cast<std::size_t>(index)], x);
}

TextView::CaretPosition TextView::caretPosition() const {
    CaretPosition position;
    if (const auto line = Nav::knownLineNumber(*document_, caret_)) position.line = *line + 1;
    const std::int64_t start = Nav::lineStartAtOrBefore(*document_, caret_);
    if (caret_ - start > wholeLineLimit) {
        position.column = caret_ - start + 1;
    } else {
        std::int64_t column = 1;
        for (std::int64_t at = start; at < caret_; at = Nav::nextCharacter(*document_, at)) ++column;
        position.column = column;
    }
    return position;
}

// MARK: painting

void TextView::paintEvent(QPaintEvent*) {
    QPainter painter(viewport());
    const QPalette& colours = palette();
    const int width = viewport()->width();
    const int height = viewport()->height();
    painter.fillRect(QRect(0, 0, width, height), colours.color(QPalette::Base));
    const int gutter = gutterWidth();
    painter.fillRect(QRect(0, 0, gutter, height), colours.color(QPalette::AlternateBase));
    painter.setFont(font_);

    const auto rows = rowsFrom(top_, height / lineHeight_ + 1);
    const ByteRange selected = selection();
    const double scrollX = static_cast<double>(horizontalCell_) * characterWidth_;
    const double left = textLeft();
    const QColor numberColour = colours.color(QPalette::PlaceholderText);
    const QColor selectionColour = hasFocus() ? colours.color(QPalette::Highlight).lighter(160)
                                              : colours.color(QPalette::Midlight);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        const int y = static_cast<int>(i) * lineHeight_;
        painter.setClipping(false);
        if (row.number) {
            painter.setPen(row.start <= caret_ && caret_ <= row.end ? colours.color(QPalette::Text) : numberColour);
            painter.drawText(QRectF(0, y, gutter - characterWidth_, lineHeight_), Qt::AlignRight | Qt::AlignVCenter,
                             QString::number(*row.number + 1));
        }
        painter.setClipRect(QRect(gutter, 0, width - gutter, height));
        const LaidRow& laid = laidRow(row, horizontalCell_);
        const double base = left + laid.originX - scrollX;   // small even when originX is huge
        if (!selected.empty() && selected.lower <= row.end && selected.upper >= row.start) {
            const double x1 = selected.lower <= row.start ? left - characterWidth_ / 2
                                                          : left + xForOffset(row, selected.lower) - scrollX;
            const double x2 = selected.upper > row.contentEnd ? width
                                                              : left + xForOffset(row, selected.upper) - scrollX;
            if (x2 > x1) painter.fillRect(QRectF(x1, y, x2 - x1, lineHeight_), selectionColour);
        }
        painter.setPen(colours.color(QPalette::Text));
        laid.layout->draw(&painter, QPointF(base, y));
        if (caretShown_ && hasFocus() && selected.empty() && caret_ >= row.start && caret_ <= row.contentEnd) {
            const double x = left + xForOffset(row, caret_) - scrollX;
            painter.fillRect(QRectF(std::floor(x), y, 2, lineHeight_), colours.color(QPalette::Text));
        }
    }
}

void TextView::resizeEvent(QResizeEvent* event) {
    QAbstractScrollArea::resizeEvent(event);
    recomputeLastTop();
    updateScrollBars();
}

void TextView::scrollContentsBy(int, int) {
    // The bars' signals move the view; nothing is scrolled by pixels.
}

// MARK: scrolling

void TextView::recomputeLastTop() {
    const std::int64_t lastStart = Nav::lineStartAtOrBefore(*document_, document_->byteCount());
    lastTop_ = Nav::linesBack(*document_, lastStart, visibleRowCount() - 1);
    if (top_ > lastTop_) top_ = lastTop_;
}

void TextView::updateScrollBars() {
    syncingBars_ = true;
    QScrollBar* vertical = verticalScrollBar();
    const int range = ScrollMapping::rangeFor(lastTop_);
    vertical->setRange(0, range);
    const std::int64_t screenBytes = lastTop_ > 0 ? std::max<std::int64_t>(1, document_->byteCount() - lastTop_) : 1;
    vertical->setPageStep(ScrollMapping::pageStepFor(screenBytes, range, lastTop_));
    vertical->setSingleStep(std::max(1, vertical->pageStep() / std::max(1, visibleRowCount())));
    vertical->setValue(ScrollMapping::valueForByte(top_, range, lastTop_));

    std::int64_t widest = 0;
    for (const Row& row : rowsFrom(top_, visibleRowCount() + 1)) {
        if (row.contentEnd - row.start > wholeLineLimit) {
            widest = std::max(widest, row.contentEnd - row.start);
        } else {
            const LaidRow& laid = laidRow(row, 0);
            const double natural = laid.layout->lineCount() > 0 ? laid.layout->lineAt(0).naturalTextWidth() : 0;
            widest = std::max(widest, static_cast<std::int64_t>(std::ceil(natural / characterWidth_)));
        }
    }
    widest = std::max(widest, horizontalCell_ + visibleCells() - 2);
    QScrollBar* horizontal = horizontalScrollBar();
    const std::int64_t maximum = std::clamp<std::int64_t>(widest + 2 - visibleCells(), 0, INT32_MAX - 1);
    horizontal->setRange(0, static_cast<int>(maximum));
    horizontal->setPageStep(visibleCells());
    horizontal->setSingleStep(1);
    horizontalCell_ = std::min(horizontalCell_, maximum);
    horizontal->setValue(static_cast<int>(horizontalCell_));
    syncingBars_ = false;
}

void TextView::scrollToOffset(std::int64_t offset) {
    top_ = std::min(lastTop_, Nav::lineStartAtOrBefore(*document_, offset));
    updateScrollBars();
    viewport()->update();
}

void TextView::scrollRows(std::int64_t count) {
    for (std::int64_t i = 0; i < count && top_ < lastTop_; ++i) {
        const std::int64_t end = Nav::lineEndFrom(*document_, top_);
        if (end >= document_->byteCount()) break;
        top_ = std::min(lastTop_, end + 1);
    }
    for (std::int64_t i = 0; i > count && top_ > 0; --i) top_ = Nav::lineStartAtOrBefore(*document_, top_ - 1);
    updateScrollBars();
    viewport()->update();
}

void TextView::wheelEvent(QWheelEvent* event) {
    const QPoint steps = event->angleDelta() / 40;   // three rows a notch
    if (event->modifiers() & Qt::ShiftModifier || steps.x() != 0) {
        const int delta = steps.x() != 0 ? steps.x() : steps.y();
        horizontalScrollBar()->setValue(horizontalScrollBar()->value() - delta * 2);
    } else if (steps.y() != 0) {
        scrollRows(-steps.y());
    }
    event->accept();
}

void TextView::ensureCaretVisible() {
    const int fits = visibleRowCount();
    const auto holdsCaret = [this](const Row& row) { return row.start <= caret_ && caret_ <= row.end; };
    auto rows = rowsFrom(top_, fits);
    auto found = std::find_if(rows.begin(), rows.end(), holdsCaret);
    if (caret_ < top_ || found == rows.end()) {
        const std::int64_t caretLine = Nav::lineStartAtOrBefore(*document_, caret_);
        top_ = caret_ < top_ ? caretLine : std::min(lastTop_, Nav::linesBack(*document_, caretLine, fits - 1));
        rows = rowsFrom(top_, fits);
        found = std::find_if(rows.begin(), rows.end(), holdsCaret);
    }
    // The caret's column is counted from the start of the row that shows it.
    const Row row = found != rows.end() ? *found : rowAt(Nav::lineStartAtOrBefore(*document_, caret_), std::nullopt);
    const auto cell = static_cast<std::int64_t>(xForOffset(row, caret_) / characterWidth_);
    const int cells = visibleCells();
    if (cell < horizontalCell_) horizontalCell_ = std::max<std::int64_t>(0, cell - cells / 4);
    else if (cell >= horizontalCell_ + cells - 1) horizontalCell_ = cell - cells + cells / 4 + 1;
    updateScrollBars();
}

// MARK: the caret

void TextView::caretChanged() {
    caretShown_ = true;
    if (hasFocus()) blink_.start();
    viewport()->update();
    emit caretMoved();
}

void TextView::setCaret(std::int64_t offset, bool extend) {
    offset = std::clamp<std::int64_t>(offset, document_->textStart(), document_->byteCount());
    offset = std::max(document_->textStart(), document_->characterStartAtOrBefore(offset));
    caret_ = offset;
    if (!extend) anchor_ = offset;
    ensureCaretVisible();
    caretChanged();
}

void TextView::move(Move movement, bool extend) {
    const TextDocument& document = *document_;
    const ByteRange selected = selection();
    std::int64_t target = caret_;
    bool keepsColumn = false;
    switch (movement) {
    case Move::left:
        target = !extend && !selected.empty() ? selected.lower : Nav::previousCharacter(document, caret_);
        break;
    case Move::right:
        target = !extend && !selected.empty() ? selected.upper : Nav::nextCharacter(document, caret_);
        break;
    case Move::wordLeft: target = Nav::previousWordStart(document, caret_); break;
    case Move::wordRight: target = Nav::nextWordEnd(document, caret_); break;
    case Move::lineStart: {
        const std::int64_t start = std::max(document.textStart(), Nav::lineStartAtOrBefore(document, caret_));
        // Home goes to the first non-blank first, then to the very start.
        const auto head = document.table().bytes({start, std::min(start + 4'096, document.byteCount())});
        std::int64_t firstText = start;
        for (const auto byte : head) {
            if (byte != ' ' && byte != '\t') break;
            ++firstText;
        }
        if (firstText >= Nav::contentEnd(document, start, Nav::lineEndFrom(document, start))) firstText = start;
        target = caret_ == firstText ? start : firstText;
        break;
    }
    case Move::lineEnd: {
        const std::int64_t start = Nav::lineStartAtOrBefore(document, caret_);
        target = Nav::contentEnd(document, start, Nav::lineEndFrom(document, caret_));
        break;
    }
    case Move::up:
    case Move::down:
    case Move::pageUp:
    case Move::pageDown: {
        keepsColumn = true;
        const std::int64_t start = Nav::lineStartAtOrBefore(document, caret_);
        if (!desiredX_) desiredX_ = xForOffset(rowAt(start, std::nullopt), caret_);
        const bool down = movement == Move::down || movement == Move::pageDown;
        const std::int64_t steps =
            movement == Move::up || movement == Move::down ? 1 : std::max(1, visibleRowCount() - 1);
        std::int64_t line = start;
        std::int64_t moved = 0;
        for (; moved < steps; ++moved) {
            if (down) {
                const std::int64_t end = Nav::lineEndFrom(document, line);
                if (end >= document.byteCount()) break;
                line = end + 1;
            } else {
                if (line <= 0) break;
                line = Nav::lineStartAtOrBefore(document, line - 1);
            }
        }
        if (moved == 0) {
            target = down ? document.byteCount() : document.textStart();
        } else {
            target = offsetForX(rowAt(line, std::nullopt), *desiredX_);
        }
        if (movement == Move::pageUp || movement == Move::pageDown) scrollRows(down ? moved : -moved);
        break;
    }
    case Move::documentStart: target = document.textStart(); break;
    case Move::documentEnd: target = document.byteCount(); break;
    }
    const std::optional<double> kept = desiredX_;
    setCaret(target, extend);
    desiredX_ = keepsColumn ? kept : std::nullopt;
}

// MARK: editing

std::vector<std::uint8_t> TextView::encodeForDocument(const QString& text) const {
    const QByteArray utf8 = text.toUtf8();
    const std::string_view view(utf8.constData(), static_cast<std::size_t>(utf8.size()));
    if (document_->encoding.id == "utf8") return {view.begin(), view.end()};
    return document_->encoding.encode(view).bytes;
}

void TextView::replaceSelection(std::span<const std::uint8_t> bytes, bool coalesce) {
    if (isReadOnly()) {
        QApplication::beep();
        return;
    }
    const ByteRange range = selection();
    if (range.empty() && bytes.empty()) return;
    // Typing runs on into the last undo step only when it follows typing at the same place.
    const bool joins = coalesce && range.empty() && typingEnd_ == range.lower &&
                       typingGeneration_ == document_->editGeneration();
    editing_ = true;
    const std::int64_t after = document_->replaceBytes(range, bytes, caret_,
                                                       range.lower + static_cast<std::int64_t>(bytes.size()), joins);
    editing_ = false;
    typingEnd_ = coalesce ? std::optional<std::int64_t>(after) : std::nullopt;
    typingGeneration_ = document_->editGeneration();
    desiredX_.reset();
    caret_ = anchor_ = after;
    recomputeLastTop();
    ensureCaretVisible();
    caretChanged();
    emit edited();
}

void TextView::insertText(const QString& text) {
    if (isReadOnly()) {
        QApplication::beep();
        return;
    }
    // A character the document's set cannot hold would be written as "?": refuse it rather than lose it.
    const QByteArray utf8 = text.toUtf8();
    const auto lost = document_->encoding.unwritable(std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())), 1);
    if (lost.count > 0) {
        QApplication::beep();
        emit refused(QString::fromStdString(L("%@ has no place for “%@”: save the file as UTF-8 to type it.",
                                              document_->encoding.localisedName(),
                                              lost.examples.empty() ? std::string("?") : lost.examples.front())));
        return;
    }
    QString normalised = text;
    normalised.replace(QStringLiteral("\r\n"), QStringLiteral("\n")).replace(QLatin1Char('\r'), QLatin1Char('\n'));
    if (document_->lineEnding == LineEnding::crlf && !document_->normalisedToLF) {
        normalised.replace(QLatin1Char('\n'), QStringLiteral("\r\n"));
    }
    const auto bytes = encodeForDocument(normalised);
    replaceSelection(bytes, text.size() <= 2);
}

void TextView::insertLineBreak() { insertText(QStringLiteral("\n")); }

void TextView::deleteBackward() {
    if (selection().empty()) {
        if (caret_ <= document_->textStart()) return;
        anchor_ = Nav::previousCharacter(*document_, caret_);
    }
    replaceSelection({}, false);
}

void TextView::deleteForward() {
    if (selection().empty()) {
        if (caret_ >= document_->byteCount()) return;
        anchor_ = Nav::nextCharacter(*document_, caret_);
    }
    replaceSelection({}, false);
}

void TextView::copy() const {
    const ByteRange range = selection();
    if (range.empty()) return;
    QApplication::clipboard()->setText(QString::fromStdString(document_->text(range)));
}

void TextView::cut() {
    if (selection().empty() || isReadOnly()) return;
    copy();
    replaceSelection({}, false);
}

void TextView::paste() {
    const QString text = QApplication::clipboard()->text();
    if (text.isEmpty()) return;
    QString normalised = text;
    normalised.replace(QStringLiteral("\r\n"), QStringLiteral("\n")).replace(QLatin1Char('\r'), QLatin1Char('\n'));
    if (document_->lineEnding == LineEnding::crlf && !document_->normalisedToLF) {
        normalised.replace(QLatin1Char('\n'), QStringLiteral("\r\n"));
    }
    replaceSelection(encodeForDocument(normalised), false);
}

void TextView::undo() {
    if (isReadOnly()) return;
    editing_ = true;
    const auto replay = document_->undo();
    editing_ = false;
    if (!replay) return;
    recomputeLastTop();
    setCaret(replay->caret);
    emit edited();
}

void TextView::redo() {
    if (isReadOnly()) return;
    editing_ = true;
    const auto replay = document_->redo();
    editing_ = false;
    if (!replay) return;
    recomputeLastTop();
    setCaret(replay->caret);
    emit edited();
}

void TextView::selectAll() {
    anchor_ = document_->textStart();
    caret_ = document_->byteCount();
    caretChanged();
}

void TextView::indexAdvanced() { viewport()->update(); }

void TextView::documentChanged(std::int64_t) {
    rowCache_.clear();
    const std::int64_t size = document_->byteCount();
    const auto& change = document_->lastChange();
    const auto follow = [&](std::int64_t offset) {
        if (!change || change->isWholesale) return std::min(offset, size);
        if (offset >= change->oldBytes.upper) return offset + change->byteDelta;
        if (offset > change->oldBytes.lower) return change->oldBytes.lower;
        return offset;
    };
    top_ = Nav::lineStartAtOrBefore(*document_, follow(top_));
    if (!editing_) {
        caret_ = std::max(document_->textStart(), document_->characterStartAtOrBefore(follow(caret_)));
        anchor_ = std::max(document_->textStart(), document_->characterStartAtOrBefore(follow(anchor_)));
    }
    if (change && change->isWholesale) applySettings();
    recomputeLastTop();
    updateScrollBars();
    viewport()->update();
    if (!editing_) emit caretMoved();
}

// MARK: events

void TextView::keyPressEvent(QKeyEvent* event) {
    const bool shift = event->modifiers() & Qt::ShiftModifier;
    const bool control = event->modifiers() & Qt::ControlModifier;
    if (event == QKeySequence::Undo) return undo();
    if (event == QKeySequence::Redo) return redo();
    if (event == QKeySequence::Cut) return cut();
    if (event == QKeySequence::Copy) return copy();
    if (event == QKeySequence::Paste) return paste();
    if (event == QKeySequence::SelectAll) return selectAll();
    switch (event->key()) {
    case Qt::Key_Left: return move(control ? Move::wordLeft : Move::left, shift);
    case Qt::Key_Right: return move(control ? Move::wordRight : Move::right, shift);
    case Qt::Key_Up:
        if (control) return scrollRows(-1);
        return move(Move::up, shift);
    case Qt::Key_Down:
        if (control) return scrollRows(1);
        return move(Move::down, shift);
    case Qt::Key_Home: return move(control ? Move::documentStart : Move::lineStart, shift);
    case Qt::Key_End: return move(control ? Move::documentEnd : Move::lineEnd, shift);
    case Qt::Key_PageUp: return move(Move::pageUp, shift);
    case Qt::Key_PageDown: return move(Move::pageDown, shift);
    case Qt::Key_Return:
    case Qt::Key_Enter: return insertLineBreak();
    case Qt::Key_Backspace: return deleteBackward();
    case Qt::Key_Delete: return deleteForward();
    case Qt::Key_Tab: return insertText(QStringLiteral("\t"));
    default: break;
    }
    const QString text = event->text();
    if (!text.isEmpty() && !control && !(event->modifiers() & Qt::MetaModifier) && text.front().isPrint()) {
        insertText(text);
        return;
    }
    QAbstractScrollArea::keyPressEvent(event);
}

bool TextView::focusNextPrevChild(bool) { return false; }   // Tab is text here

void TextView::inputMethodEvent(QInputMethodEvent* event) {
    if (!event->commitString().isEmpty()) insertText(event->commitString());
    event->accept();
}

void TextView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return QAbstractScrollArea::mousePressEvent(event);
    desiredX_.reset();
    selectingByMouse_ = true;
    setCaret(offsetAtPoint(event->position().toPoint()), event->modifiers() & Qt::ShiftModifier);
}

void TextView::mouseMoveEvent(QMouseEvent* event) {
    if (!selectingByMouse_ || !(event->buttons() & Qt::LeftButton)) return;
    const QPoint point = event->position().toPoint();
    if (point.y() < 0) scrollRows(-1);
    else if (point.y() > viewport()->height()) scrollRows(1);
    setCaret(offsetAtPoint(point), true);
}

void TextView::mouseReleaseEvent(QMouseEvent*) { selectingByMouse_ = false; }

void TextView::mouseDoubleClickEvent(QMouseEvent* event) {
    const std::int64_t at = offsetAtPoint(event->position().toPoint());
    const std::int64_t end = Nav::nextWordEnd(*document_, at);
    anchor_ = Nav::previousWordStart(*document_, std::min(end, document_->byteCount()));
    caret_ = end;
    caretChanged();
}

void TextView::focusInEvent(QFocusEvent* event) {
    QAbstractScrollArea::focusInEvent(event);
    blink_.start();
    viewport()->update();
}

void TextView::focusOutEvent(QFocusEvent* event) {
    QAbstractScrollArea::focusOutEvent(event);
    blink_.stop();
    viewport()->update();
}

} // namespace brim::shell
