#pragma once

#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"
#include "common/SerialQueue.h"

#include <QWidget>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

class QLabel;
class QProgressBar;
class QStackedLayout;

namespace brim {
class TextDocument;
}

namespace brim::shell {

class TextView;

/// One tab of the window: a panel with the opening's step and a bar while a file opens, then the text
/// view. It runs the tab's background work and hands results to the main thread: the opening, the rest
/// of the line index (planned in the background, committed here in steps) and saving.
class DocumentTab : public QWidget {
    Q_OBJECT

public:
    /// What a save writes.
    struct SaveRequest {
        std::filesystem::path dest;
        TextEncoding encoding = TextEncoding::utf8();
        LineEnding lineEnding = LineEnding::lf;
        bool writeBOM = false;
    };

    /// What the tab is busy with, for the status bar.
    struct Activity {
        QString text;
        double fraction = 0;       ///< 0 to 1
        bool cancellable = false;
    };

    /// Bytes the index grows by in one background step.
    static constexpr std::int64_t indexStep = 268'435'456;

    explicit DocumentTab(QWidget* parent = nullptr);
    ~DocumentTab() override;

    /// Starts opening `path` in the background; `opened` or `openFailed` follows.
    void open(const std::filesystem::path& path, std::optional<TextEncoding> forcedEncoding = std::nullopt);
    /// Shows a document that is already open (an untitled one, or one opened elsewhere).
    void adopt(std::shared_ptr<TextDocument> document);

    [[nodiscard]] TextView* view() const { return view_; }
    [[nodiscard]] const std::shared_ptr<TextDocument>& document() const { return document_; }
    [[nodiscard]] bool isOpening() const { return opening_; }
    [[nodiscard]] bool isSaving() const { return saving_; }
    [[nodiscard]] const std::optional<std::filesystem::path>& openingPath() const { return openingPath_; }
    /// The name shown on the tab.
    [[nodiscard]] QString displayName() const;
    [[nodiscard]] std::optional<Activity> activity() const;

    /// Writes the document on a background queue; `done` hears whether the file was saved (false after
    /// a cancel or a failure, which `failed` reports). The view takes no typing meanwhile.
    void startSave(const SaveRequest& request, std::function<void(bool saved)> done);
    /// Stops a save between blocks; the file stays as it was.
    void cancelSave();

signals:
    void opened();
    void openFailed(const QString& message);
    void openCancelled();
    void activityChanged();
    /// A failure to show in a dialog: a headline and the error's own text.
    void failed(const QString& headline, const QString& message);
    void documentStateChanged();

private:
    /// Runs `work` on the main thread unless the tab has gone by then.
    void post(std::function<void()> work);
    void scheduleIndexStep();

    std::shared_ptr<TextDocument> document_;
    TextView* view_ = nullptr;
    QStackedLayout* pages_ = nullptr;
    QLabel* openingTitle_ = nullptr;
    QLabel* openingStep_ = nullptr;
    QProgressBar* openingBar_ = nullptr;
    std::optional<std::filesystem::path> openingPath_;
    bool opening_ = false;
    bool indexing_ = false;
    bool saving_ = false;
    double indexFraction_ = 1;
    double saveFraction_ = 0;
    QString saveText_;
    std::shared_ptr<std::atomic<bool>> saveStarted_;
    std::shared_ptr<std::function<void(bool)>> saveFinished_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);   // the tab exists while this does
    // Last, so they stop (joining their running job) before anything above goes.
    SerialQueue indexQueue_{"brim.index"};
    SerialQueue saveQueue_{"brim.save"};
};

} // namespace brim::shell
