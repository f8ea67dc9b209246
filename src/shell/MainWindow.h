#pragma once

#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"
#include "shell/DocumentTab.h"

#include <QMainWindow>

#include <filesystem>
#include <functional>
#include <vector>

class QLabel;
class QProgressBar;
class QPushButton;
class QTabWidget;
class QToolButton;

namespace brim::shell {

/// The editor window: documents in tabs, the menus, and a status bar that says how the current
/// document was read (character set, the detection's reasons, line endings, language, gzip) and where
/// the caret is.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    /// The answers to the question asked when a save would lose characters.
    enum class LossAnswer : std::uint8_t { saveAsUTF8, cancel, saveWithSubstitutes };
    /// The answers to the question asked when unsaved work would go.
    enum class CloseAnswer : std::uint8_t { save, discard, cancel };

    /// Asks about a save that would lose `count` characters (`examples` among them) in `encoding`.
    using LossQuestion = std::function<LossAnswer(std::int64_t count, const std::vector<std::string>& examples,
                                                  const TextEncoding& encoding)>;
    /// Asks whether to save the named document before it closes.
    using CloseQuestion = std::function<CloseAnswer(const QString& name)>;

    MainWindow();
    ~MainWindow() override;

    /// Opens `path` in a new tab, in the background.
    DocumentTab* openFile(const std::filesystem::path& path);
    /// A new untitled tab.
    DocumentTab* newDocument();
    [[nodiscard]] DocumentTab* currentTab() const;
    [[nodiscard]] QTabWidget* tabs() const { return tabs_; }

    /// Saves the current document where it lives, or asks where when it has no file.
    void save();
    void saveAs();
    /// The whole save of `tab` to `request.dest`: the loss question first, then the background write.
    /// `done` hears whether the file was written.
    void performSave(DocumentTab* tab, DocumentTab::SaveRequest request, std::function<void(bool)> done = {});
    /// Saves and waits (the event loop runs meanwhile); true when written.
    bool saveAndWait(DocumentTab* tab);
    /// Closes a tab, asking first about unsaved changes; false when the user kept it.
    bool closeTab(int index);
    /// Reads the current document again through `encoding`.
    void reopenWithEncoding(const TextEncoding& encoding);
    void setLineEnding(LineEnding ending);

    /// Replaces the dialogs, for tests.
    void setLossQuestion(LossQuestion question) { lossQuestion_ = std::move(question); }
    void setCloseQuestion(CloseQuestion question) { closeQuestion_ = std::move(question); }

    /// The status bar's texts, for tests and accessibility.
    [[nodiscard]] QString encodingText() const;
    [[nodiscard]] QString detectionText() const;
    [[nodiscard]] QString positionText() const;
    [[nodiscard]] QString noteText() const;
    [[nodiscard]] QString lineEndingText() const;
    /// The last refusal of typing shown in the status bar.
    [[nodiscard]] const QString& lastRefusal() const { return lastRefusal_; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenus();
    void buildStatusBar();
    DocumentTab* addTab(DocumentTab* tab);
    void updateStatus();
    void updateActivity();
    void updateTitle();
    void showRefusal(const QString& reason);
    void showFailure(const QString& headline, const QString& message);
    [[nodiscard]] LossAnswer askAboutLoss(std::int64_t count, const std::vector<std::string>& examples,
                                          const TextEncoding& encoding);
    [[nodiscard]] CloseAnswer askAboutClosing(const QString& name);

    QTabWidget* tabs_ = nullptr;
    QToolButton* encodingButton_ = nullptr;
    QToolButton* lineEndingButton_ = nullptr;
    QLabel* languageLabel_ = nullptr;
    QLabel* positionLabel_ = nullptr;
    QLabel* noteLabel_ = nullptr;
    QLabel* activityLabel_ = nullptr;
    QProgressBar* activityBar_ = nullptr;
    QPushButton* activityCancel_ = nullptr;
    QString lastRefusal_;
    LossQuestion lossQuestion_;
    CloseQuestion closeQuestion_;
};

} // namespace brim::shell
