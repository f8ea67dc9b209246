#include "shell/MainWindow.h"

#include "charsets/Transcoder.h"
#include "common/ByteFormatter.h"
#include "common/Localization.h"
#include "shell/TextView.h"
#include "store/TextDocument.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QEventLoop>
#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QStatusBar>
#include <QTabWidget>
#include <QToolButton>

#include <cmath>

namespace brim::shell {
namespace {

QString q(const std::string& text) { return QString::fromStdString(text); }

QString encodingLabel(const TextDocument& document) {
    QString text = q(document.fileEncoding.localisedName());
    if (document.hasBOM) text += QStringLiteral(" + BOM");
    return text;
}

bool canReadInPlace(const TextDocument& document, const TextEncoding& encoding) {
    // The same bytes can be read through another set only when the table holds the file's own bytes
    // and the new set keeps line breaks where they are.
    return !document.workingCopy() && !document.isGzipped && document.encoding == document.fileEncoding &&
           encoding.asciiCompatible && !encoding.stateful && !Transcoder::hasShiftState(encoding) &&
           !encoding.unicodeUnitWidth() && !encoding.isEBCDIC();
}

} // namespace

MainWindow::MainWindow() {
    tabs_ = new QTabWidget(this);
    tabs_->setDocumentMode(true);
    tabs_->setTabsClosable(true);
    tabs_->setMovable(true);
    setCentralWidget(tabs_);
    connect(tabs_, &QTabWidget::tabCloseRequested, this, [this](int index) { closeTab(index); });
    connect(tabs_, &QTabWidget::currentChanged, this, [this] {
        updateStatus();
        updateActivity();
        updateTitle();
    });
    buildMenus();
    buildStatusBar();
    resize(960, 720);
    updateStatus();
    updateTitle();
}

MainWindow::~MainWindow() = default;

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(q(L("&File")));
    file->addAction(q(L("New")), QKeySequence::New, this, [this] { newDocument(); });
    file->addAction(q(L("Open…")), QKeySequence::Open, this, [this] {
        const QStringList paths = QFileDialog::getOpenFileNames(this, q(L("Open")));
        for (const QString& path : paths) openFile(std::filesystem::path(path.toStdString()));
    });
    file->addSeparator();
    file->addAction(q(L("Save")), QKeySequence::Save, this, [this] { save(); });
    file->addAction(q(L("Save As…")), QKeySequence::SaveAs, this, [this] { saveAs(); });
    file->addSeparator();
    file->addAction(q(L("Close Tab")), QKeySequence::Close, this, [this] {
        if (tabs_->currentIndex() >= 0) closeTab(tabs_->currentIndex());
    });
    file->addAction(q(L("Quit")), QKeySequence::Quit, this, [this] { close(); });

    QMenu* edit = menuBar()->addMenu(q(L("&Edit")));
    const auto onView = [this](void (TextView::*command)()) {
        return [this, command] {
            if (DocumentTab* tab = currentTab(); tab != nullptr && tab->view() != nullptr) (tab->view()->*command)();
        };
    };
    edit->addAction(q(L("Undo")), QKeySequence::Undo, this, onView(&TextView::undo));
    edit->addAction(q(L("Redo")), QKeySequence::Redo, this, onView(&TextView::redo));
    edit->addSeparator();
    edit->addAction(q(L("Cut")), QKeySequence::Cut, this, onView(&TextView::cut));
    edit->addAction(q(L("Copy")), QKeySequence::Copy, this, [this] {
        if (DocumentTab* tab = currentTab(); tab != nullptr && tab->view() != nullptr) tab->view()->copy();
    });
    edit->addAction(q(L("Paste")), QKeySequence::Paste, this, onView(&TextView::paste));
    edit->addAction(q(L("Select All")), QKeySequence::SelectAll, this, onView(&TextView::selectAll));

    QMenu* text = menuBar()->addMenu(q(L("&Text")));
    QMenu* reopen = text->addMenu(q(L("Reopen with Character Set")));
    for (const TextEncoding& encoding : TextEncoding::everyday()) {
        reopen->addAction(q(encoding.localisedName()), this, [this, encoding] { reopenWithEncoding(encoding); });
    }
    QMenu* endings = text->addMenu(q(L("Line Endings")));
    for (const LineEnding ending : allLineEndings) {
        endings->addAction(q(L(std::string(displayName(ending)))), this, [this, ending] { setLineEnding(ending); });
    }
}

void MainWindow::buildStatusBar() {
    QStatusBar* bar = statusBar();
    activityLabel_ = new QLabel(this);
    activityBar_ = new QProgressBar(this);
    activityBar_->setRange(0, 1000);
    activityBar_->setMaximumWidth(160);
    activityBar_->setTextVisible(false);
    activityCancel_ = new QPushButton(q(L("Cancel")), this);
    activityCancel_->setFlat(true);
    connect(activityCancel_, &QPushButton::clicked, this, [this] {
        if (DocumentTab* tab = currentTab()) tab->cancelSave();
    });
    bar->addWidget(activityLabel_);
    bar->addWidget(activityBar_);
    bar->addWidget(activityCancel_);
    noteLabel_ = new QLabel(this);
    positionLabel_ = new QLabel(this);
    languageLabel_ = new QLabel(this);
    encodingButton_ = new QToolButton(this);
    encodingButton_->setAutoRaise(true);
    encodingButton_->setPopupMode(QToolButton::InstantPopup);
    lineEndingButton_ = new QToolButton(this);
    lineEndingButton_->setAutoRaise(true);
    lineEndingButton_->setPopupMode(QToolButton::InstantPopup);
    bar->addPermanentWidget(noteLabel_);
    bar->addPermanentWidget(positionLabel_);
    bar->addPermanentWidget(languageLabel_);
    bar->addPermanentWidget(lineEndingButton_);
    bar->addPermanentWidget(encodingButton_);

    // The character set button tells how the set was chosen and offers the others.
    auto* encodingMenu = new QMenu(this);
    connect(encodingMenu, &QMenu::aboutToShow, this, [this, encodingMenu] {
        encodingMenu->clear();
        DocumentTab* tab = currentTab();
        if (tab == nullptr || !tab->document()) return;
        QAction* reason = encodingMenu->addAction(detectionText());
        reason->setEnabled(false);
        encodingMenu->addSeparator();
        QMenu* reopen = encodingMenu->addMenu(q(L("Reopen with Character Set")));
        for (const TextEncoding& encoding : TextEncoding::everyday()) {
            QAction* action = reopen->addAction(q(encoding.localisedName()), this,
                                                [this, encoding] { reopenWithEncoding(encoding); });
            action->setCheckable(true);
            action->setChecked(encoding == tab->document()->fileEncoding);
        }
    });
    encodingButton_->setMenu(encodingMenu);
    auto* endingMenu = new QMenu(this);
    connect(endingMenu, &QMenu::aboutToShow, this, [this, endingMenu] {
        endingMenu->clear();
        DocumentTab* tab = currentTab();
        if (tab == nullptr || !tab->document()) return;
        for (const LineEnding ending : allLineEndings) {
            QAction* action = endingMenu->addAction(q(L(std::string(displayName(ending)))), this,
                                                    [this, ending] { setLineEnding(ending); });
            action->setCheckable(true);
            action->setChecked(ending == tab->document()->lineEnding);
        }
    });
    lineEndingButton_->setMenu(endingMenu);
    updateActivity();
}

DocumentTab* MainWindow::currentTab() const { return qobject_cast<DocumentTab*>(tabs_->currentWidget()); }

DocumentTab* MainWindow::addTab(DocumentTab* tab) {
    const int index = tabs_->addTab(tab, tab->displayName());
    tabs_->setCurrentIndex(index);
    connect(tab, &DocumentTab::documentStateChanged, this, [this, tab] {
        const int at = tabs_->indexOf(tab);
        if (at < 0) return;
        const bool dirty = tab->document() && tab->document()->isDirty();
        tabs_->setTabText(at, tab->displayName() + (dirty ? QStringLiteral(" •") : QString()));
        if (tab->view() != nullptr) {
            connect(tab->view(), &TextView::caretMoved, this, &MainWindow::updateStatus, Qt::UniqueConnection);
            connect(tab->view(), &TextView::refused, this, &MainWindow::showRefusal, Qt::UniqueConnection);
        }
        if (tab == currentTab()) {
            updateStatus();
            updateTitle();
        }
    });
    connect(tab, &DocumentTab::activityChanged, this, [this, tab] {
        if (tab == currentTab()) updateActivity();
    });
    connect(tab, &DocumentTab::failed, this, &MainWindow::showFailure);
    connect(tab, &DocumentTab::openFailed, this, [this, tab](const QString& message) {
        const int at = tabs_->indexOf(tab);
        if (at >= 0) tabs_->removeTab(at);
        tab->deleteLater();
        showFailure(message, {});
    });
    connect(tab, &DocumentTab::openCancelled, this, [this, tab] {
        const int at = tabs_->indexOf(tab);
        if (at >= 0) tabs_->removeTab(at);
        tab->deleteLater();
    });
    return tab;
}

DocumentTab* MainWindow::openFile(const std::filesystem::path& path) {
    auto* tab = new DocumentTab(tabs_);
    tab->open(path);
    return addTab(tab);
}

DocumentTab* MainWindow::newDocument() {
    auto* tab = addTab(new DocumentTab(tabs_));
    tab->adopt(TextDocument::empty());
    return tab;
}

// MARK: the status bar

QString MainWindow::encodingText() const { return encodingButton_->text(); }
QString MainWindow::positionText() const { return positionLabel_->text(); }
QString MainWindow::noteText() const { return noteLabel_->text(); }
QString MainWindow::lineEndingText() const { return lineEndingButton_->text(); }

QString MainWindow::detectionText() const {
    DocumentTab* tab = currentTab();
    if (tab == nullptr || !tab->document()) return {};
    const EncodingDetection& detection = tab->document()->detection;
    const auto percent = static_cast<std::int64_t>(std::lround(detection.confidence * 100));
    return q(L("Read as %@, %@%% sure: %@", detection.encoding.localisedName(), percent, detection.reason));
}

void MainWindow::updateStatus() {
    DocumentTab* tab = currentTab();
    const bool shown = tab != nullptr && tab->document() && tab->view() != nullptr;
    for (QWidget* widget : std::initializer_list<QWidget*>{encodingButton_, lineEndingButton_, languageLabel_,
                                                            positionLabel_, noteLabel_}) {
        widget->setVisible(shown);
    }
    if (!shown) return;
    const TextDocument& document = *tab->document();
    encodingButton_->setText(encodingLabel(document));
    encodingButton_->setToolTip(detectionText());
    lineEndingButton_->setText(q(L(std::string(shortName(document.lineEnding)))));
    lineEndingButton_->setToolTip(q(L("New lines are written as %@. The file has %@.",
                                      L(std::string(displayName(document.lineEnding))),
                                      document.lineEndingReport.summary())));
    languageLabel_->setText(q(document.language.displayName));
    const TextView::CaretPosition position = tab->view()->caretPosition();
    positionLabel_->setText(position.line ? q(L("Line %@, Column %@", *position.line, position.column))
                                          : q(L("Column %@", position.column)));
    QString note;
    if (document.isGzipped) {
        note = q(L("Unpacked from %@ of gzip, and packed again when saved",
                   ByteFormatter::string(document.compressedSize)));
    } else if (!(document.encoding == document.fileEncoding)) {
        note = q(L("UTF-8 copy of a %@ file", document.fileEncoding.localisedName()));
    } else if (document.normalisedToLF) {
        note = q(L("Copy with LF line breaks; the file has %@", std::string(shortName(document.lineEnding))));
    }
    noteLabel_->setText(note);
    noteLabel_->setVisible(!note.isEmpty());
}

void MainWindow::updateActivity() {
    DocumentTab* tab = currentTab();
    const auto activity = tab != nullptr ? tab->activity() : std::nullopt;
    activityLabel_->setVisible(activity.has_value());
    activityBar_->setVisible(activity.has_value());
    activityCancel_->setVisible(activity && activity->cancellable);
    if (!activity) return;
    activityLabel_->setText(activity->text);
    activityBar_->setValue(static_cast<int>(activity->fraction * 1000));
    if (tab->view() != nullptr) updateStatus();   // line numbers become known as the index grows
}

void MainWindow::updateTitle() {
    DocumentTab* tab = currentTab();
    if (tab == nullptr) {
        setWindowTitle(QStringLiteral("Brim"));
        setWindowModified(false);
        return;
    }
    if (!tab->document()) {
        setWindowTitle(q(L("Opening %@…", tab->displayName().toStdString())) + QStringLiteral(" — Brim"));
        setWindowModified(false);
        return;
    }
    setWindowTitle(tab->displayName() + QStringLiteral("[*] — Brim"));
    setWindowModified(tab->document() && tab->document()->isDirty());
}

void MainWindow::showRefusal(const QString& reason) {
    lastRefusal_ = reason;
    statusBar()->showMessage(reason, 6'000);
}

void MainWindow::showFailure(const QString& headline, const QString& message) {
    auto* box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Brim"), headline, QMessageBox::Ok, this);
    box->setObjectName(QStringLiteral("failure"));
    if (!message.isEmpty()) box->setInformativeText(message);
    box->setWindowModality(Qt::WindowModal);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

// MARK: saving

MainWindow::LossAnswer MainWindow::askAboutLoss(std::int64_t count, const std::vector<std::string>& examples,
                                                const TextEncoding& encoding) {
    if (lossQuestion_) return lossQuestion_(count, examples, encoding);
    const std::string name = encoding.localisedName();
    QMessageBox box(this);
    box.setWindowModality(Qt::WindowModal);
    box.setIcon(QMessageBox::Warning);
    box.setText(count == 1 ? q(L("One character has no place in %@", name))
                           : q(L("%@ characters have no place in %@", count, name)));
    std::string shown;
    for (const std::string& example : examples) shown += (shown.empty() ? "" : ", ") + example;
    box.setInformativeText(
        q(L("Saved as %@, %@ would become “?” and be lost. UTF-8 holds every character.", name, shown)));
    QPushButton* utf8 = box.addButton(q(L("Save as UTF-8")), QMessageBox::AcceptRole);
    QPushButton* cancel = box.addButton(q(L("Cancel")), QMessageBox::RejectRole);
    QPushButton* lossy = box.addButton(q(L("Save with “?”")), QMessageBox::DestructiveRole);
    box.setDefaultButton(utf8);
    box.setEscapeButton(cancel);
    box.exec();
    if (box.clickedButton() == utf8) return LossAnswer::saveAsUTF8;
    if (box.clickedButton() == lossy) return LossAnswer::saveWithSubstitutes;
    return LossAnswer::cancel;
}

void MainWindow::performSave(DocumentTab* tab, DocumentTab::SaveRequest request, std::function<void(bool)> done) {
    const auto fail = [&done] {
        if (done) done(false);
    };
    if (tab == nullptr || !tab->document() || tab->isSaving()) return fail();
    TextDocument& document = *tab->document();
    if (!document.acceptsSubstitutes || !(request.encoding == document.fileEncoding)) {
        const TextDocument::Unwritable lost = document.unwritableCharacters(request.encoding, 3);
        if (lost.count > 0) {
            switch (askAboutLoss(lost.count, lost.examples, request.encoding)) {
            case LossAnswer::cancel: return fail();
            case LossAnswer::saveAsUTF8:
                request.encoding = TextEncoding::utf8();
                request.lineEnding = spelledIn(request.lineEnding, request.encoding);
                break;
            case LossAnswer::saveWithSubstitutes: document.acceptsSubstitutes = true; break;
            }
        }
    }
    tab->startSave(request, [this, tab, done = std::move(done)](bool saved) {
        if (saved && tab == currentTab()) {
            updateStatus();
            updateTitle();
        }
        if (done) done(saved);
    });
}

void MainWindow::save() {
    DocumentTab* tab = currentTab();
    if (tab == nullptr || !tab->document()) return;
    const TextDocument& document = *tab->document();
    if (!document.url) return saveAs();
    performSave(tab, {*document.url, document.fileEncoding, document.lineEnding, document.hasBOM});
}

void MainWindow::saveAs() {
    DocumentTab* tab = currentTab();
    if (tab == nullptr || !tab->document()) return;
    const TextDocument& document = *tab->document();
    QFileDialog dialog(this, q(L("Save As")));
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setWindowModality(Qt::WindowModal);
    if (document.url) dialog.selectFile(q(document.url->string()));
    // The character set and the line ending go under the file list.
    auto* encodings = new QComboBox(&dialog);
    std::vector<TextEncoding> choices = TextEncoding::everyday();
    if (std::find(choices.begin(), choices.end(), document.fileEncoding) == choices.end()) {
        choices.insert(choices.begin(), document.fileEncoding);
    }
    for (const TextEncoding& encoding : choices) encodings->addItem(q(encoding.localisedName()));
    encodings->setCurrentIndex(static_cast<int>(
        std::find(choices.begin(), choices.end(), document.fileEncoding) - choices.begin()));
    auto* endings = new QComboBox(&dialog);
    for (const LineEnding ending : allLineEndings) endings->addItem(q(L(std::string(displayName(ending)))));
    endings->setCurrentIndex(static_cast<int>(document.lineEnding));
    auto* bom = new QCheckBox(q(L("Byte order mark")), &dialog);
    bom->setChecked(document.hasBOM);
    if (auto* grid = qobject_cast<QGridLayout*>(dialog.layout())) {
        const int row = grid->rowCount();
        grid->addWidget(new QLabel(q(L("Character set:")), &dialog), row, 0);
        grid->addWidget(encodings, row, 1);
        grid->addWidget(new QLabel(q(L("Line endings:")), &dialog), row + 1, 0);
        grid->addWidget(endings, row + 1, 1);
        grid->addWidget(bom, row + 2, 1);
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return;
    const TextEncoding& encoding = choices[static_cast<std::size_t>(encodings->currentIndex())];
    const auto ending = allLineEndings[static_cast<std::size_t>(endings->currentIndex())];
    performSave(tab, {std::filesystem::path(dialog.selectedFiles().front().toStdString()), encoding,
                      spelledIn(ending, encoding), bom->isChecked() && !encoding.bom().empty()});
}

bool MainWindow::saveAndWait(DocumentTab* tab) {
    const TextDocument& document = *tab->document();
    if (!document.url) {
        tabs_->setCurrentWidget(tab);
        saveAs();
        QEventLoop loop;
        while (tab->isSaving()) loop.processEvents(QEventLoop::WaitForMoreEvents);
        return !tab->document()->isDirty();
    }
    bool finished = false;
    bool saved = false;
    QEventLoop loop;
    performSave(tab, {*document.url, document.fileEncoding, document.lineEnding, document.hasBOM},
                [&](bool result) {
                    saved = result;
                    finished = true;
                    loop.quit();
                });
    if (!finished) loop.exec();
    return saved;
}

// MARK: closing

MainWindow::CloseAnswer MainWindow::askAboutClosing(const QString& name) {
    if (closeQuestion_) return closeQuestion_(name);
    QMessageBox box(this);
    box.setWindowModality(Qt::WindowModal);
    box.setIcon(QMessageBox::Warning);
    box.setText(q(L("Do you want to save the changes made to “%@”?", name.toStdString())));
    box.setInformativeText(q(L("Your changes will be lost if you don’t save them.")));
    QPushButton* saveButton = box.addButton(q(L("Save")), QMessageBox::AcceptRole);
    QPushButton* discard = box.addButton(q(L("Don’t Save")), QMessageBox::DestructiveRole);
    QPushButton* cancel = box.addButton(q(L("Cancel")), QMessageBox::RejectRole);
    box.setDefaultButton(saveButton);
    box.setEscapeButton(cancel);
    box.exec();
    if (box.clickedButton() == saveButton) return CloseAnswer::save;
    if (box.clickedButton() == discard) return CloseAnswer::discard;
    return CloseAnswer::cancel;
}

bool MainWindow::closeTab(int index) {
    auto* tab = qobject_cast<DocumentTab*>(tabs_->widget(index));
    if (tab == nullptr) return true;
    if (tab->isSaving()) return false;
    if (tab->document() && tab->document()->isDirty()) {
        tabs_->setCurrentIndex(index);
        switch (askAboutClosing(tab->displayName())) {
        case CloseAnswer::cancel: return false;
        case CloseAnswer::save:
            if (!saveAndWait(tab)) return false;
            break;
        case CloseAnswer::discard: break;
        }
    }
    tabs_->removeTab(tabs_->indexOf(tab));
    tab->deleteLater();
    return true;
}

void MainWindow::closeEvent(QCloseEvent* event) {
    while (tabs_->count() > 0) {
        if (!closeTab(tabs_->count() - 1)) {
            event->ignore();
            return;
        }
    }
    event->accept();
}

// MARK: what the document is

void MainWindow::reopenWithEncoding(const TextEncoding& encoding) {
    DocumentTab* tab = currentTab();
    if (tab == nullptr || !tab->document() || tab->isSaving()) return;
    TextDocument& document = *tab->document();
    if (canReadInPlace(document, encoding)) {
        document.reinterpret(encoding);
        updateStatus();
        return;
    }
    if (!document.url) {
        showFailure(q(L("%@ can only be read again from its file.", document.displayName())), {});
        return;
    }
    if (document.isDirty()) {
        showFailure(q(L("Save or undo the changes to %@ before reading it in another character set.",
                        document.displayName())),
                    {});
        return;
    }
    tab->open(*document.url, encoding);
}

void MainWindow::setLineEnding(LineEnding ending) {
    DocumentTab* tab = currentTab();
    if (tab == nullptr || !tab->document() || tab->isSaving()) return;
    TextDocument& document = *tab->document();
    if (document.lineEnding == ending) return;
    document.lineEnding = spelledIn(ending, document.fileEncoding);
    document.setDirty(true);
    emit tab->documentStateChanged();
}

} // namespace brim::shell
