#include "shell/DocumentTab.h"

#include "common/BrimError.h"
#include "common/Localization.h"
#include "settings/Settings.h"
#include "shell/TextView.h"
#include "store/TextDocument.h"

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedLayout>
#include <QVBoxLayout>

#include <atomic>
#include <cmath>
#include <thread>

namespace brim::shell {
namespace {

QString q(const std::string& text) { return QString::fromStdString(text); }

// A fraction worth telling the main thread about: a percent more than the last one told.
bool worthTelling(std::atomic<int>& lastPercent, double fraction) {
    const int percent = static_cast<int>(std::floor(std::clamp(fraction, 0.0, 1.0) * 100));
    int previous = lastPercent.load();
    while (percent > previous) {
        if (lastPercent.compare_exchange_weak(previous, percent)) return true;
    }
    return false;
}

} // namespace

DocumentTab::DocumentTab(QWidget* parent) : QWidget(parent) {
    pages_ = new QStackedLayout(this);
    auto* panel = new QWidget(this);
    auto* column = new QVBoxLayout(panel);
    column->addStretch(2);
    openingTitle_ = new QLabel(panel);
    openingTitle_->setAlignment(Qt::AlignCenter);
    QFont bold = openingTitle_->font();
    bold.setBold(true);
    openingTitle_->setFont(bold);
    openingStep_ = new QLabel(panel);
    openingStep_->setAlignment(Qt::AlignCenter);
    openingBar_ = new QProgressBar(panel);
    openingBar_->setRange(0, 1000);
    openingBar_->setTextVisible(false);
    openingBar_->setMaximumWidth(420);
    auto* cancel = new QPushButton(q(L("Cancel")), panel);
    cancel->setObjectName(QStringLiteral("cancelOpening"));
    connect(cancel, &QPushButton::clicked, this, [this] {
        if (!opening_) return;
        opening_ = false;
        alive_ = std::make_shared<int>(0);   // whatever the opening still hands back is dropped
        emit openCancelled();
    });
    column->addWidget(openingTitle_);
    column->addWidget(openingStep_);
    column->addWidget(openingBar_, 0, Qt::AlignHCenter);
    column->addWidget(cancel, 0, Qt::AlignHCenter);
    column->addStretch(3);
    pages_->addWidget(panel);
}

DocumentTab::~DocumentTab() {
    indexQueue_.cancelAll();
    saveQueue_.cancelAll();
}

void DocumentTab::post(std::function<void()> work) {
    QMetaObject::invokeMethod(
        qApp, [alive = std::weak_ptr<int>(alive_), work = std::move(work)] {
            if (alive.lock()) work();
        },
        Qt::QueuedConnection);
}

QString DocumentTab::displayName() const {
    if (document_) return q(document_->displayName());
    if (openingPath_) return q(openingPath_->filename().string());
    return q(L("Untitled"));
}

void DocumentTab::open(const std::filesystem::path& path, std::optional<TextEncoding> forcedEncoding) {
    opening_ = true;
    openingPath_ = path;
    openingTitle_->setText(q(L("Opening “%@”", path.filename().string())));
    openingStep_->setText({});
    openingBar_->setValue(0);
    pages_->setCurrentIndex(0);
    TextDocument::OpenOptions options;
    options.forcedEncoding = std::move(forcedEncoding);
    options.tabWidth = Settings::shared().tabWidth();
    // Opening reads a bounded amount whatever the size, but a working copy of a huge file takes a
    // while and cannot be interrupted: it runs on a thread of its own, and a tab closed meanwhile
    // simply drops what it hands back.
    auto lastPercent = std::make_shared<std::atomic<int>>(-1);
    std::thread([this, path, options, lastPercent, alive = std::weak_ptr<int>(alive_)] {
        const auto tell = [&](std::function<void()> work) {
            QMetaObject::invokeMethod(
                qApp, [alive, work = std::move(work)] {
                    if (alive.lock()) work();
                },
                Qt::QueuedConnection);
        };
        try {
            auto document = TextDocument::open(path, options, [&](std::string_view text, double fraction) {
                if (!worthTelling(*lastPercent, fraction)) return;
                tell([this, text = q(std::string(text)), fraction] {
                    openingStep_->setText(text);
                    openingBar_->setValue(static_cast<int>(fraction * 1000));
                });
            });
            tell([this, document] {
                opening_ = false;
                adopt(document);
                emit opened();
            });
        } catch (const std::exception& error) {
            tell([this, message = q(error.what())] {
                opening_ = false;
                emit openFailed(message);
            });
        }
    }).detach();
}

void DocumentTab::adopt(std::shared_ptr<TextDocument> document) {
    document_ = std::move(document);
    openingPath_.reset();
    if (view_ != nullptr) {
        pages_->removeWidget(view_);
        view_->deleteLater();
    }
    view_ = new TextView(document_, this);
    pages_->addWidget(view_);
    pages_->setCurrentWidget(view_);
    view_->setFocus();
    connect(view_, &TextView::edited, this, &DocumentTab::documentStateChanged);
    scheduleIndexStep();
    emit documentStateChanged();
}

void DocumentTab::scheduleIndexStep() {
    const PieceTable& table = document_->table();
    if (!table.isPristine() || table.originalIndex().isComplete()) {
        if (indexing_) {
            indexing_ = false;
            indexFraction_ = 1;
            emit activityChanged();
        }
        return;
    }
    indexing_ = true;
    const std::int64_t total = std::max<std::int64_t>(1, table.originalIndex().byteCount());
    const std::int64_t indexed = table.originalIndex().indexedBytes();
    indexFraction_ = static_cast<double>(indexed) / static_cast<double>(total);
    emit activityChanged();
    indexQueue_.async([this, document = document_, through = indexed + indexStep](const IsCancelled& isCancelled) {
        auto plan = document->planIndexExtension(through, {}, isCancelled);
        if (!plan) return;
        auto shared = std::make_shared<LineIndex::Extension>(std::move(*plan));
        post([this, document, shared] {
            if (document != document_) return;   // the tab shows another document now
            document_->commitIndexExtension(std::move(*shared));
            if (view_ != nullptr) view_->indexAdvanced();
            scheduleIndexStep();
        });
    });
}

std::optional<DocumentTab::Activity> DocumentTab::activity() const {
    if (saving_) return Activity{saveText_, saveFraction_, true};
    if (indexing_) return Activity{q(L("Indexing lines…")), indexFraction_, false};
    return std::nullopt;
}

void DocumentTab::startSave(const SaveRequest& request, std::function<void(bool saved)> done) {
    if (!document_ || saving_) {
        if (done) done(false);
        return;
    }
    saving_ = true;
    saveFraction_ = 0;
    saveText_ = q(L("Saving %@", request.dest.filename().string()));
    view_->setReadOnly(true);
    emit activityChanged();
    TextDocument::WriteOptions options;
    options.encoding = request.encoding;
    options.lineEnding = request.lineEnding;
    options.writeBOM = request.writeBOM;
    auto finished = std::make_shared<std::function<void(bool)>>(std::move(done));
    auto lastPercent = std::make_shared<std::atomic<int>>(-1);
    saveStarted_ = std::make_shared<std::atomic<bool>>(false);
    saveFinished_ = finished;
    saveQueue_.async([this, document = document_, dest = request.dest, options, finished, lastPercent,
                      started = saveStarted_](const IsCancelled& isCancelled) {
        started->store(true);
        const auto end = [this, finished](bool saved) {
            saving_ = false;
            if (view_ != nullptr) view_->setReadOnly(false);
            emit activityChanged();
            emit documentStateChanged();
            if (*finished) (*finished)(saved);
        };
        try {
            auto outcome = std::make_shared<TextDocument::SaveOutcome>(document->writeOut(
                dest, options,
                [this, lastPercent](double fraction) {
                    if (!worthTelling(*lastPercent, fraction)) return;
                    post([this, fraction] {
                        saveFraction_ = fraction;
                        emit activityChanged();
                    });
                },
                isCancelled));
            post([this, document, outcome, end] {
                if (outcome->cancelled) return end(false);
                try {
                    document->adoptSaved(std::move(*outcome));
                } catch (const std::exception& error) {
                    emit failed(q(L("Could not save the file")), q(error.what()));
                    return end(false);
                }
                end(true);
            });
        } catch (const std::exception& error) {
            post([this, end, message = q(error.what())] {
                emit failed(q(L("Could not save the file")), message);
                end(false);
            });
        }
    });
}

void DocumentTab::cancelSave() {
    if (!saving_) return;
    saveQueue_.cancelAll();
    saveQueue_.drain();
    // A job dropped before it started hands nothing back: end the save here.
    if (saveStarted_ && !saveStarted_->load()) {
        saving_ = false;
        if (view_ != nullptr) view_->setReadOnly(false);
        emit activityChanged();
        if (saveFinished_ && *saveFinished_) (*saveFinished_)(false);
    }
}

} // namespace brim::shell
