#include "shell/MainWindow.h"

#include "shell/TextView.h"
#include "store/TextDocument.h"
#include "support/TemporaryFolder.h"

#include <QMessageBox>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>

#include <gtest/gtest.h>

#include <zlib.h>

#include <filesystem>

namespace brim::shell {
namespace {

using brim::testing::readFile;
using brim::testing::TemporaryFolder;

DocumentTab* openAndWait(MainWindow& window, const std::filesystem::path& path) {
    DocumentTab* tab = window.openFile(path);
    QSignalSpy opened(tab, &DocumentTab::opened);
    if (tab->document() == nullptr) {
        EXPECT_TRUE(opened.wait(10'000));
    }
    return tab;
}

bool saveAndWait(MainWindow& window, DocumentTab* tab, DocumentTab::SaveRequest request) {
    bool finished = false;
    bool saved = false;
    window.performSave(tab, std::move(request), [&](bool result) {
        finished = true;
        saved = result;
    });
    EXPECT_TRUE(QTest::qWaitFor([&] { return finished; }, 10'000));
    return saved;
}

TEST(MainWindow, opensTypesAndSavesTheBytes) {
    const TemporaryFolder folder;
    const auto path = folder.write("notes.txt", "first\r\nsecond\r\n");
    MainWindow window;
    window.show();
    DocumentTab* tab = openAndWait(window, path);
    ASSERT_NE(tab->view(), nullptr);
    EXPECT_EQ(window.lineEndingText(), QStringLiteral("CRLF"));
    EXPECT_EQ(window.positionText(), QStringLiteral("Line 1, Column 1"));
    QTest::keyClicks(tab->view(), "A ");
    QTest::keyClick(tab->view(), Qt::Key_Return);
    EXPECT_TRUE(tab->document()->isDirty());
    EXPECT_EQ(window.positionText(), QStringLiteral("Line 2, Column 1"));
    const TextDocument& document = *tab->document();
    ASSERT_TRUE(saveAndWait(window, tab, {path, document.fileEncoding, document.lineEnding, false}));
    EXPECT_EQ(readFile(path), "A \r\nfirst\r\nsecond\r\n");
    EXPECT_FALSE(tab->document()->isDirty());
    EXPECT_FALSE(tab->view()->isReadOnly());
    // Nothing but the file is left in the folder: no temporary file outlives a save.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

TEST(MainWindow, theLossQuestionDecidesWhatAnUnwritableSaveDoes) {
    const TemporaryFolder folder;
    const auto path = folder.write("mixed.txt", "caf\xC3\xA9 \xE2\x82\xAC \xC5\x91 \xE2\x82\xAC\n");
    const auto latin = folder / "latin.txt";
    MainWindow window;
    DocumentTab* tab = openAndWait(window, path);
    ASSERT_NE(tab->document(), nullptr);
    std::int64_t asked = 0;
    std::vector<std::string> examples;
    MainWindow::LossAnswer answer = MainWindow::LossAnswer::cancel;
    window.setLossQuestion([&](std::int64_t count, const std::vector<std::string>& shown, const TextEncoding&) {
        asked = count;
        examples = shown;
        return answer;
    });
    // "café € ő €" in ISO 8859-1 loses three characters. Cancel: nothing written.
    EXPECT_FALSE(saveAndWait(window, tab, {latin, TextEncoding::latin1(), LineEnding::lf, false}));
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(examples, (std::vector<std::string>{"\xE2\x82\xAC", "\xC5\x91"}));
    EXPECT_FALSE(std::filesystem::exists(latin));
    // Save as UTF-8: every character kept.
    answer = MainWindow::LossAnswer::saveAsUTF8;
    ASSERT_TRUE(saveAndWait(window, tab, {latin, TextEncoding::latin1(), LineEnding::lf, false}));
    EXPECT_EQ(readFile(latin), readFile(path));
    EXPECT_EQ(tab->document()->fileEncoding, TextEncoding::utf8());
    // Save with "?": the substitutes are accepted, and only the unwritable characters change.
    answer = MainWindow::LossAnswer::saveWithSubstitutes;
    const auto lossy = folder / "lossy.txt";
    ASSERT_TRUE(saveAndWait(window, tab, {lossy, TextEncoding::cp1252(), LineEnding::lf, false}));
    EXPECT_EQ(readFile(lossy), "caf\xE9 \x80 ? \x80\n");   // Windows-1252 has the euro, not ő
    EXPECT_EQ(window.encodingText(), QString::fromStdString(TextEncoding::cp1252().localisedName()));
}

TEST(MainWindow, typingACharacterTheSetCannotHoldIsRefusedNotLost) {
    const TemporaryFolder folder;
    const auto path = folder.write("latin.txt", "caf\xE9\n");
    MainWindow window;
    DocumentTab* tab = openAndWait(window, path);
    ASSERT_EQ(tab->document()->fileEncoding, TextEncoding::cp1252());
    tab->view()->insertText(QString::fromUtf8("ő"));
    EXPECT_FALSE(tab->document()->isDirty());
    EXPECT_EQ(window.lastRefusal().toStdString(),
              TextEncoding::cp1252().localisedName() + " has no place for “ő”: save the file as UTF-8 to type it.");
    tab->view()->insertText(QString::fromUtf8("€"));
    EXPECT_EQ(tab->document()->lineText(0), "\xE2\x82\xAC" "caf\xC3\xA9");
}

TEST(MainWindow, aFailedSaveSaysWhyAndKeepsTheDocument) {
    const TemporaryFolder folder;
    const auto path = folder.write("kept.txt", "text\n");
    MainWindow window;
    window.show();
    DocumentTab* tab = openAndWait(window, path);
    QTest::keyClicks(tab->view(), "more ");
    QSignalSpy failed(tab, &DocumentTab::failed);
    EXPECT_FALSE(saveAndWait(window, tab, {folder / "no such folder" / "kept.txt", TextEncoding::utf8(), LineEnding::lf,
                                           false}));
    ASSERT_EQ(failed.count(), 1);
    EXPECT_EQ(failed.front().at(0).toString(), QStringLiteral("Could not save the file"));
    EXPECT_FALSE(failed.front().at(1).toString().isEmpty());
    EXPECT_TRUE(tab->document()->isDirty());
    EXPECT_EQ(readFile(path), "text\n");
    // The failure is shown in a dialog of the window.
    auto* box = window.findChild<QMessageBox*>(QStringLiteral("failure"));
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->windowModality(), Qt::WindowModal);
    box->close();
}

TEST(MainWindow, aFileThatCannotBeOpenedIsReportedAndNoTabStays) {
    const TemporaryFolder folder;
    MainWindow window;
    window.show();
    DocumentTab* tab = window.openFile(folder / "missing.txt");
    QSignalSpy failed(tab, &DocumentTab::openFailed);
    ASSERT_TRUE(failed.wait(10'000));
    EXPECT_FALSE(failed.front().at(0).toString().isEmpty());
    QTest::qWait(10);
    EXPECT_EQ(window.tabs()->count(), 0);
}

TEST(MainWindow, closingADirtyTabAsksFirst) {
    const TemporaryFolder folder;
    const auto path = folder.write("draft.txt", "draft\n");
    MainWindow window;
    DocumentTab* tab = openAndWait(window, path);
    tab->view()->insertText(QStringLiteral("x"));
    QString askedAbout;
    MainWindow::CloseAnswer answer = MainWindow::CloseAnswer::cancel;
    window.setCloseQuestion([&](const QString& name) {
        askedAbout = name;
        return answer;
    });
    EXPECT_FALSE(window.closeTab(0));
    EXPECT_EQ(askedAbout, QStringLiteral("draft.txt"));
    EXPECT_EQ(window.tabs()->count(), 1);
    answer = MainWindow::CloseAnswer::save;
    EXPECT_TRUE(window.closeTab(0));
    EXPECT_EQ(readFile(path), "xdraft\n");
    EXPECT_EQ(window.tabs()->count(), 0);
    // A clean tab closes without a question.
    askedAbout.clear();
    openAndWait(window, path);
    EXPECT_TRUE(window.closeTab(0));
    EXPECT_TRUE(askedAbout.isEmpty());
}

TEST(MainWindow, theStatusBarSaysHowTheFileWasRead) {
    const TemporaryFolder folder;
    MainWindow window;
    openAndWait(window, folder.write("bom.txt", "\xEF\xBB\xBFhello\n"));
    const QString utf8 = QString::fromStdString(TextEncoding::utf8().localisedName());
    EXPECT_EQ(window.encodingText(), utf8 + QStringLiteral(" + BOM"));
    EXPECT_TRUE(window.detectionText().startsWith(QStringLiteral("Read as ") + utf8 + QStringLiteral(", ")));

    // A gzip file says what it was unpacked from.
    const std::string plain = "packed text\n";
    std::vector<std::uint8_t> packed(256);
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    DocumentTab* gzip = openAndWait(window, folder.write("log.txt.gz", packed));
    ASSERT_TRUE(gzip->document()->isGzipped);
    EXPECT_TRUE(window.noteText().startsWith(QStringLiteral("Unpacked from ")));
    EXPECT_TRUE(window.noteText().endsWith(QStringLiteral(" of gzip, and packed again when saved")));

    // Reading the same bytes in another set changes what the bar says and what the text is.
    DocumentTab* latin = openAndWait(window, folder.write("latin.txt", "na\xEFve\n"));
    window.reopenWithEncoding(TextEncoding::latin2());
    EXPECT_EQ(latin->document()->fileEncoding, TextEncoding::latin2());
    EXPECT_EQ(latin->document()->detection.confidence, 1.0);
    EXPECT_EQ(latin->document()->lineText(0), "na\xC4\x8Fve");   // byte EF is ď in Latin 2
    window.setLineEnding(LineEnding::crlf);
    EXPECT_EQ(window.lineEndingText(), QStringLiteral("CRLF"));
    EXPECT_TRUE(latin->document()->isDirty());
}

} // namespace
} // namespace brim::shell
