#include "persistence/DraftStore.h"
#include "common/ByteFormatter.h"
#include "common/UserResources.h"
#include "store/TextDocument.h"
#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace brim {
namespace {

namespace fs = std::filesystem;
using testing::bytes;
using testing::readFile;

std::shared_ptr<TextDocument> untitled(std::string_view text) {
    auto document = TextDocument::inMemory(bytes(text), TextEncoding::utf8(), "test");
    return document;
}

std::string textOf(const std::vector<std::uint8_t>& data) { return {data.begin(), data.end()}; }

void type(TextDocument& document, std::string_view text) {
    const auto end = document.byteCount();
    document.replace({end, end}, text, end, end + static_cast<std::int64_t>(text.size()));
}

/// Every test gets its own support folder, data folder and drafts folder.
class Drafts : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("XDG_DATA_HOME", (folder_.path() / "data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (folder_.path() / "config").c_str(), 1);
        UserResources::setOverrideRoot(folder_.path() / "support");
        DraftStore::setOverrideDirectory(drafts());
    }
    void TearDown() override {
        DraftStore::setOverrideDirectory(std::nullopt);
        UserResources::setOverrideRoot(std::nullopt);
    }
    [[nodiscard]] fs::path drafts() const { return folder_.path() / "Drafts"; }
    [[nodiscard]] fs::path text(const std::string& id) const { return drafts() / (id + ".text"); }
    [[nodiscard]] fs::path json(const std::string& id) const { return drafts() / (id + ".json"); }
    [[nodiscard]] std::size_t fileCount() const {
        std::size_t count = 0;
        if (fs::exists(drafts())) {
            for ([[maybe_unused]] const auto& entry : fs::directory_iterator(drafts())) ++count;
        }
        return count;
    }
    /// Writes a draft of `text` and rewrites its description with the given dates.
    std::string stored(std::string_view contents, std::optional<double> closedAt, double savedAt = DraftStore::now()) {
        const auto id = DraftStore::newID();
        DraftStore::write(id, *untitled(contents));
        nlohmann::json object = nlohmann::json::parse(readFile(json(id)));
        object["savedAt"] = savedAt;
        if (closedAt) object["closedAt"] = *closedAt;
        std::ofstream(json(id), std::ios::trunc) << object.dump();
        return id;
    }
    /// Sets the modification date of a draft's text, seconds before now.
    void age(const std::string& id, int seconds) {
        const timespec when[2] = {{std::time(nullptr) - seconds, 0}, {std::time(nullptr) - seconds, 0}};
        ::utimensat(AT_FDCWD, text(id).c_str(), when, 0);
    }
    testing::TemporaryFolder folder_;
};

TEST_F(Drafts, aDraftHoldsTheBufferExactlyAndDescribesIt) {
    auto document = untitled("one\rtwo\r");
    ASSERT_EQ(document->lineEnding, LineEnding::cr);
    document->indentation = IndentationStyle::spaces(4);
    const auto id = DraftStore::newID();
    EXPECT_TRUE(DraftStore::isValidID(id));
    const auto before = DraftStore::now();
    const auto draft = DraftStore::write(id, *document);

    EXPECT_EQ(readFile(text(id)), "one\rtwo\r");
    EXPECT_TRUE(DraftStore::exists(id));
    const auto object = nlohmann::json::parse(readFile(json(id)));
    EXPECT_EQ(object["id"], id);
    EXPECT_EQ(object["encodingID"], TextEncoding::utf8().id);
    EXPECT_EQ(object["lineEnding"], "cr");
    EXPECT_EQ(object["indentation"], "spaces:4");
    EXPECT_EQ(object["hasBOM"], false);
    // Unset fields are left out, as the platform's encoder does, and dates are numbers.
    EXPECT_FALSE(object.contains("path"));
    EXPECT_FALSE(object.contains("closedAt"));
    EXPECT_TRUE(object["savedAt"].is_number_float());
    EXPECT_GE(draft.savedAt, before);
    EXPECT_LT(draft.savedAt - before, 60);
    // A date near now is about 7e8 seconds after 2001.
    EXPECT_GT(draft.savedAt, 7e8);

    const auto reading = DraftStore::read(id);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->first, draft);
    EXPECT_EQ(textOf(reading->second), "one\rtwo\r");

    // Back into a window: dirty, with the draft's facts, the line breaks its own.
    DraftStore::WindowDraft window;
    auto restored = DraftStore::adoptDraft(window, reading->first, reading->second);
    EXPECT_TRUE(restored->isDirty());
    EXPECT_EQ(restored->lineEnding, LineEnding::cr);
    EXPECT_EQ(restored->indentation, IndentationStyle::spaces(4));
    EXPECT_EQ(window.draftID, id);
    // The first session save after adopting finds the disk up to date.
    const auto savedAt = DraftStore::read(id)->first.savedAt;
    EXPECT_EQ(DraftStore::writeDraft(window, *restored), id);
    EXPECT_EQ(DraftStore::read(id)->first.savedAt, savedAt);

    // Names that are unknown keep what detection gives.
    auto odd = reading->first;
    odd.encodingID = "no-such-set";
    odd.lineEnding = "sideways";
    odd.languageID = "no-such-language";
    odd.indentation = "wobbly";
    auto guessed = DraftStore::documentFromDraft(odd, bytes("a\r\nb\r\n"));
    EXPECT_EQ(guessed->encoding.id, TextEncoding::utf8().id);
    EXPECT_EQ(guessed->lineEnding, LineEnding::crlf);
    EXPECT_FALSE(guessed->indentation.has_value());
    EXPECT_EQ(guessed->language.id, Language::plain().id);

    // Ids that are not ids never name a file.
    EXPECT_FALSE(DraftStore::isValidID("../../etc/passwd"));
    EXPECT_FALSE(DraftStore::exists("../x"));
    EXPECT_THROW(DraftStore::write("../x", *document), BrimError);
}

TEST_F(Drafts, whatAWindowKeepsAndWhen) {
    DraftStore::WindowDraft window;
    // An empty untitled window has nothing to keep.
    auto empty = TextDocument::empty();
    EXPECT_FALSE(DraftStore::writeDraft(window, *empty));
    EXPECT_EQ(fileCount(), 0u);

    // Typed into, it gets a draft with no path.
    type(*empty, "first thoughts\n");
    const auto id = DraftStore::writeDraft(window, *empty);
    ASSERT_TRUE(id);
    EXPECT_FALSE(DraftStore::read(*id)->first.path);
    const auto firstSave = DraftStore::read(*id)->first.savedAt;

    // Saved twice with nothing changed: no rewrite, and one pair of files.
    ::usleep(2'000);
    EXPECT_EQ(DraftStore::writeDraft(window, *empty), id);
    EXPECT_EQ(DraftStore::read(*id)->first.savedAt, firstSave);
    EXPECT_EQ(fileCount(), 2u);
    // A change of line ending alone is noticed; so is an edit; the id stays.
    empty->lineEnding = LineEnding::crlf;
    EXPECT_EQ(DraftStore::writeDraft(window, *empty), id);
    EXPECT_EQ(DraftStore::read(*id)->first.lineEnding, "crlf");
    type(*empty, "more\n");
    EXPECT_EQ(DraftStore::writeDraft(window, *empty), id);
    EXPECT_EQ(textOf(DraftStore::read(*id)->second), "first thoughts\nmore\n");
    EXPECT_EQ(fileCount(), 2u);
    // Written behind the window's back (gone from disk), the draft is written again.
    DraftStore::remove(*id);
    EXPECT_EQ(DraftStore::writeDraft(window, *empty), id);
    EXPECT_TRUE(DraftStore::exists(*id));

    // A file nobody has edited gets no draft; once edited it has one, with path and size.
    const auto file = folder_.write("notes.txt", "on disk\n");
    DraftStore::WindowDraft fileWindow;
    auto opened = TextDocument::open(file);
    EXPECT_FALSE(DraftStore::writeDraft(fileWindow, *opened));
    type(*opened, "typed\n");
    const auto fileDraftID = DraftStore::writeDraft(fileWindow, *opened);
    ASSERT_TRUE(fileDraftID);
    const auto draft = DraftStore::read(*fileDraftID)->first;
    EXPECT_EQ(draft.path, file.string());
    EXPECT_EQ(draft.fileSize, 8);
    EXPECT_EQ(draft.label(), "notes.txt");
    EXPECT_EQ(readFile(file), "on disk\n");
    EXPECT_FALSE(draft.fileChangedSince());

    // After a save the draft goes.
    DraftStore::savedSuccessfully(fileWindow);
    EXPECT_FALSE(DraftStore::exists(*fileDraftID));
    EXPECT_FALSE(fileWindow.draftID);

    // A window with nothing unsaved removes the draft it held.
    opened->setDirty(false);
    fileWindow.draftID = DraftStore::writeDraft(window, *empty);
    EXPECT_FALSE(DraftStore::writeDraft(fileWindow, *opened));
    EXPECT_FALSE(DraftStore::exists(*id));
}

TEST_F(Drafts, fileChangedSinceComparesSizeAndDate) {
    const auto file = folder_.write("a.txt", "same\n");
    auto document = TextDocument::open(file);
    type(*document, "x");
    const auto id = DraftStore::newID();
    auto draft = DraftStore::write(id, *document);
    EXPECT_FALSE(draft.fileChangedSince());
    // The stored date survives the JSON round trip to the microsecond.
    EXPECT_FALSE(DraftStore::read(id)->first.fileChangedSince());

    // Same size, new date.
    const timespec later[2] = {{std::time(nullptr) + 5, 0}, {std::time(nullptr) + 5, 0}};
    ::utimensat(AT_FDCWD, file.c_str(), later, 0);
    EXPECT_TRUE(draft.fileChangedSince());
    // New size.
    draft = DraftStore::write(id, *document);
    EXPECT_FALSE(draft.fileChangedSince());
    folder_.write("a.txt", "rewritten by someone else\n");
    EXPECT_TRUE(draft.fileChangedSince());
    // Gone.
    fs::remove(file);
    EXPECT_TRUE(draft.fileChangedSince());
    // No file at all: nothing can have changed under it.
    EXPECT_FALSE(DraftStore::write(id, *untitled("loose")).fileChangedSince());
}

TEST_F(Drafts, closingOrphansRecoveringAdoptsAndDiscardingIsForGood) {
    DraftStore::WindowDraft closing;
    auto document = TextDocument::empty();
    type(*document, "\n   \n  Shopping list  \nmilk\n");
    const auto id = DraftStore::closeWindow(closing, *document);
    ASSERT_TRUE(id);
    EXPECT_FALSE(closing.draftID);
    const auto orphaned = DraftStore::read(*id)->first;
    EXPECT_TRUE(orphaned.isOrphaned());
    EXPECT_EQ(orphaned.label(), "Shopping list");

    // A held draft that the session does not name goes at the next prune; the orphan stays.
    DraftStore::WindowDraft open;
    auto other = untitled("still open");
    const auto heldID = DraftStore::writeDraft(open, *other);
    const auto namedID = stored("named by the session", std::nullopt);
    const auto gone = DraftStore::prune({namedID}, 7, DraftStore::now());
    EXPECT_EQ(gone, std::vector<std::string>{*heldID});
    EXPECT_TRUE(DraftStore::exists(*id));
    EXPECT_TRUE(DraftStore::exists(namedID));
    // An orphan past the lifetime goes; with a lifetime of 0 it never ages.
    EXPECT_TRUE(DraftStore::prune({namedID}, 0, DraftStore::now() + 1e9).empty());
    EXPECT_EQ(DraftStore::prune({namedID}, 7, DraftStore::now() + 8 * 86'400.0), std::vector<std::string>{*id});

    // Recovered, a draft is held again and no longer waits to be recovered.
    DraftStore::WindowDraft again;
    type(*document, "more");
    const auto second = DraftStore::closeWindow(again, *document);
    std::vector<std::string> opened;
    const auto damage = DraftStore::recoverAll([&](const DraftStore::Draft& draft, std::vector<std::uint8_t> text) {
        DraftStore::WindowDraft window;
        auto recovered = DraftStore::adoptDraft(window, draft, std::move(text));
        EXPECT_TRUE(recovered->isDirty());
        opened.push_back(draft.id);
    });
    EXPECT_TRUE(damage.empty());
    EXPECT_EQ(opened, std::vector<std::string>{*second});
    EXPECT_FALSE(DraftStore::read(*second)->first.isOrphaned());
    EXPECT_TRUE(DraftStore::recoverAll([](const DraftStore::Draft&, std::vector<std::uint8_t>) { FAIL(); }).empty());

    // "Don't Save": the work is gone, not orphaned.
    DraftStore::WindowDraft discarding;
    auto thrownAway = untitled("not wanted");
    const auto thrownID = DraftStore::writeDraft(discarding, *thrownAway);
    discarding.discardedByUser = true;
    EXPECT_FALSE(DraftStore::closeWindow(discarding, *thrownAway));
    EXPECT_FALSE(DraftStore::exists(*thrownID));
}

TEST_F(Drafts, pruneClearsHalvesButNeverWhatItCannotRead) {
    const auto kept = stored("kept", std::nullopt);
    // A crash between the two files: bytes that nothing lists.
    const auto half = DraftStore::newID();
    std::ofstream(text(half)) << "half";
    // A description nobody can read.
    const auto corrupt = DraftStore::newID();
    std::ofstream(json(corrupt)) << "{\"id\": \"" << corrupt << "\", \"savedAt\": ";
    std::ofstream(text(corrupt)) << "precious";
    // A temporary file of a writer that died.
    std::ofstream(drafts() / ("." + kept + ".text.999999999.0.tmp")) << "partial";

    const auto gone = DraftStore::prune({kept}, 0, DraftStore::now());
    EXPECT_EQ(gone, std::vector<std::string>{half});
    EXPECT_FALSE(fs::exists(text(half)));
    EXPECT_EQ(readFile(text(corrupt)), "precious");
    EXPECT_TRUE(fs::exists(json(corrupt)));
    EXPECT_FALSE(fs::exists(drafts() / ("." + kept + ".text.999999999.0.tmp")));
    EXPECT_TRUE(DraftStore::exists(kept));
}

TEST_F(Drafts, limitsByLifetimeAndSize) {
    const double now = DraftStore::now();
    const double day = 86'400;
    const auto old = stored("old", now - 10 * day);
    const auto recent = stored("recent", now - 1 * day);
    const auto held = stored("held but not in the session", std::nullopt, now - 100 * day);

    // 0 days and 0 MB: nothing goes.
    EXPECT_TRUE(DraftStore::enforceLimits(now, {}, {0, 0, true}).empty());
    // A draft older than the lifetime goes; one inside it stays; one not orphaned does not age.
    EXPECT_EQ(DraftStore::enforceLimits(now, {}, {7, 0, true}), std::vector<std::string>{old});
    EXPECT_TRUE(DraftStore::exists(recent));
    EXPECT_TRUE(DraftStore::exists(held));
    DraftStore::remove(recent);
    DraftStore::remove(held);

    // Over the total with smart delete: the big one goes, the small ones stay.
    const std::string megabyte(1 << 20, 'x');
    const auto big = stored(megabyte + megabyte, now - day);
    std::vector<std::string> small;
    for (int i = 0; i < 3; ++i) small.push_back(stored(std::string(300'000, 'y'), now - day));
    EXPECT_EQ(DraftStore::enforceLimits(now, {}, {0, 2, true}), std::vector<std::string>{big});
    for (const auto& id : small) EXPECT_TRUE(DraftStore::exists(id));

    // Oldest first, by the text's date: the two oldest go until the rest fit.
    age(small[0], 300);
    age(small[1], 100);
    age(small[2], 200);
    const auto bigAgain = stored(std::string(600'000, 'b'), now - day);
    EXPECT_EQ(DraftStore::enforceLimits(now, {}, {0, 1, false}), (std::vector<std::string>{small[0], small[2]}));
    EXPECT_TRUE(DraftStore::exists(small[1]));
    EXPECT_TRUE(DraftStore::exists(bigAgain));

    // Work in an open window survives any limit and does not count in the sum.
    const auto huge = stored(megabyte + megabyte + megabyte, now - 30 * day);
    EXPECT_TRUE(DraftStore::enforceLimits(now, {huge}, {7, 1, true}).empty());
    EXPECT_TRUE(DraftStore::exists(huge));
    EXPECT_TRUE(DraftStore::exists(small[1]));

    // Stored facts come from the file system: sizes, and created no later than edited.
    for (const auto& entry : DraftStore::stored()) {
        EXPECT_EQ(entry.bytes, static_cast<std::int64_t>(fs::file_size(text(entry.draft.id))));
        EXPECT_LE(entry.created, entry.edited);
    }
}

TEST_F(Drafts, searchFirstLineAndLabel) {
    const auto recipe = stored("Pancakes\n\nFlour and EGGS\nmore eggs, eggs\n", std::nullopt);
    const auto other = stored("nothing here\n", std::nullopt);
    auto latin = TextDocument::inMemory({'c', 'a', 'f', 0xE9, ' ', 'E', 'g', 'g', 's', '\n'}, TextEncoding::latin1(), "t");
    const auto latinID = DraftStore::newID();
    DraftStore::write(latinID, *latin);

    const auto matches = DraftStore::search("eggs", false);
    ASSERT_EQ(matches.size(), 2u);
    EXPECT_EQ(matches[0].id, recipe);
    EXPECT_EQ(matches[0].count, 3);
    EXPECT_EQ(matches[0].line, "Flour and EGGS");
    EXPECT_EQ(matches[0].lineNumber, 3);
    EXPECT_EQ(matches[1].id, latinID);
    EXPECT_EQ(matches[1].line, "caf\xC3\xA9 Eggs");
    EXPECT_EQ(DraftStore::search("CAFÉ", false).size(), 1u);
    const auto exact = DraftStore::search("EGGS", true);
    ASSERT_EQ(exact.size(), 1u);
    EXPECT_EQ(exact[0].count, 1);
    EXPECT_TRUE(DraftStore::search("truffles", false).empty());
    EXPECT_TRUE(DraftStore::search("", false).empty());

    EXPECT_EQ(DraftStore::firstLine(recipe), "Pancakes");
    EXPECT_EQ(DraftStore::firstLine(latinID), "caf\xC3\xA9 Eggs");
    EXPECT_EQ(DraftStore::read(other)->first.label(), "nothing here");
    // Only the head is read: a first line beyond 4096 bytes is not found, and the label says so.
    const auto blank = stored(std::string(5'000, '\n') + "late\n", std::nullopt);
    EXPECT_FALSE(DraftStore::firstLine(blank));
    EXPECT_EQ(DraftStore::read(blank)->first.label(), "Untitled");
}

TEST_F(Drafts, discardPutsFilesInTheTrashWithTheirOrigin) {
    const auto trash = folder_.path() / "Trash";
    const auto file = folder_.write("draft one.text", "kept in the bin");
    DraftStore::moveToTrash(file, trash);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(readFile(trash / "files" / "draft one.text"), "kept in the bin");
    const auto info = readFile(trash / "info" / "draft one.text.trashinfo");
    EXPECT_THAT(info, ::testing::StartsWith("[Trash Info]\nPath=" + folder_.path().string() + "/draft%20one.text\n"));
    EXPECT_THAT(info, ::testing::ContainsRegex("DeletionDate=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\n"));
    // A second file of the same name does not replace the first.
    folder_.write("draft one.text", "second");
    DraftStore::moveToTrash(file, trash);
    EXPECT_EQ(readFile(trash / "files" / "draft one.text.1"), "second");
    EXPECT_EQ(readFile(trash / "files" / "draft one.text"), "kept in the bin");

    // The real store (no override folder) puts a removed draft in the user's Trash, here a temporary one.
    DraftStore::setOverrideDirectory(std::nullopt);
    const auto id = DraftStore::newID();
    DraftStore::write(id, *untitled("into the bin"));
    EXPECT_TRUE(fs::exists(folder_.path() / "support" / "Drafts" / (id + ".json")));
    DraftStore::remove(id);
    EXPECT_FALSE(DraftStore::exists(id));
    EXPECT_EQ(readFile(folder_.path() / "data" / "Trash" / "files" / (id + ".text")), "into the bin");
    // With an override folder it is deleted outright.
    DraftStore::setOverrideDirectory(drafts());
    const auto gone = stored("deleted", std::nullopt);
    DraftStore::remove(gone);
    EXPECT_FALSE(fs::exists(folder_.path() / "data" / "Trash" / "files" / (gone + ".text")));
    EXPECT_EQ(fileCount(), 0u);
}

TEST_F(Drafts, damagedDraftsAreReportedSkippedAndKept) {
    const auto good = stored("good work\n", DraftStore::now());
    const auto truncated = stored("this text will be cut short\n", DraftStore::now());
    ::truncate(text(truncated).c_str(), 4);
    const auto corrupt = stored("corrupt description\n", DraftStore::now());
    std::ofstream(json(corrupt), std::ios::trunc) << "{ not json";
    const auto missingJSON = stored("no description\n", DraftStore::now());
    fs::remove(json(missingJSON));
    const auto missingText = stored("no text\n", DraftStore::now());
    fs::remove(text(missingText));
    const auto unreadable = stored("unreadable\n", DraftStore::now());
    fs::remove(text(unreadable));
    fs::create_directory(text(unreadable));
    const auto unreadableJSON = stored("unreadable description\n", DraftStore::now());
    fs::remove(json(unreadableJSON));
    fs::create_directory(json(unreadableJSON));

    const auto found = DraftStore::survey();
    ASSERT_EQ(found.stored.size(), 1u);
    EXPECT_EQ(found.stored[0].draft.id, good);
    std::map<std::string, std::string> reasons;
    for (const auto& damage : found.damaged) reasons[damage.id] = damage.reason;
    EXPECT_EQ(reasons.size(), 6u);
    EXPECT_EQ(reasons[truncated], "draft " + truncated + " cannot be read: its text is not the size that was written.");
    EXPECT_EQ(reasons[corrupt], "draft " + corrupt + " cannot be read: its description is damaged.");
    EXPECT_EQ(reasons[missingJSON], "draft " + missingJSON + " cannot be read: its description is missing.");
    EXPECT_EQ(reasons[missingText], "draft " + missingText + " cannot be read: its text is missing.");
    EXPECT_EQ(reasons[unreadable], "draft " + unreadable + " cannot be read: Is a directory");
    EXPECT_EQ(reasons[unreadableJSON], "draft " + unreadableJSON + " cannot be read: Is a directory");
    for (const auto& id : {truncated, corrupt, missingJSON, missingText, unreadable, unreadableJSON}) {
        EXPECT_FALSE(DraftStore::read(id)) << id;
    }

    // Restoring takes the good one and leaves every damaged file where it was.
    std::vector<std::string> opened;
    const auto damage = DraftStore::recoverAll(
        [&](const DraftStore::Draft& draft, std::vector<std::uint8_t>) { opened.push_back(draft.id); });
    EXPECT_EQ(opened, std::vector<std::string>{good});
    EXPECT_EQ(damage.size(), 6u);
    EXPECT_EQ(readFile(text(truncated)), "this");
    EXPECT_EQ(readFile(text(corrupt)), "corrupt description\n");
    EXPECT_TRUE(fs::exists(text(missingJSON)));
    EXPECT_TRUE(fs::is_directory(text(unreadable)));

    // Limits don't throw away what can't be read either.
    DraftStore::enforceLimits(DraftStore::now() + 1e9, {}, {1, 1, true});
    EXPECT_EQ(readFile(text(corrupt)), "corrupt description\n");
    EXPECT_EQ(readFile(text(truncated)), "this");
}

TEST_F(Drafts, aTidyPassOnTheQueueNeverTakesADraftJustWritten) {
    // Session saves write drafts and then name them; tidy passes protect what the session names.
    // Both run on the drafts queue, so a tidy pass sees either no draft or a named one.
    std::mutex sessionLock;
    std::set<std::string> session;   // guarded by sessionLock
    std::atomic<int> lost{0};
    const DraftStore::Limits tight{1, 1, true};
    for (int round = 0; round < 40; ++round) {
        DraftStore::queue().async([&](const IsCancelled&) {
            const auto id = DraftStore::newID();
            DraftStore::write(id, *untitled(std::string(1'500'000, 'w')));
            const std::lock_guard guard(sessionLock);
            session = {id};
        });
        DraftStore::tidyDrafts(
            [&] {
                const std::lock_guard guard(sessionLock);
                return session;
            },
            tight);
        DraftStore::queue().async([&](const IsCancelled&) {
            const std::lock_guard guard(sessionLock);
            for (const auto& id : session) {
                if (!DraftStore::exists(id)) ++lost;
            }
        });
    }
    DraftStore::queue().drain();
    EXPECT_EQ(lost.load(), 0);
}

std::string localMinute(double date) {
    const auto clock = static_cast<std::time_t>(date + 978'307'200);
    std::tm local{};
    ::localtime_r(&clock, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

TEST_F(Drafts, theDraftsCommandListsTheStoreAndReportsDamage) {
    const auto support = folder_.path() / "support";
    DraftStore::setOverrideDirectory(support / "Drafts");
    auto empty = testing::runBrim({"--drafts", "--support-dir", support.string()});
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.out, "No unsaved work is being held.\n");
    EXPECT_EQ(empty.err, "");
    EXPECT_FALSE(fs::exists(support / "Drafts"));   // nothing is written

    const auto open = DraftStore::newID();
    DraftStore::write(open, *untitled("  Meeting notes\nsecond line\n"));
    const auto file = folder_.write("report.md", "# Report\n");
    auto edited = TextDocument::open(file);
    type(*edited, std::string(2'400, 'z'));
    const auto closed = DraftStore::newID();
    DraftStore::write(closed, *edited);
    ASSERT_TRUE(DraftStore::orphan(closed));
    const auto closedAt = *DraftStore::read(closed)->first.closedAt;
    const auto broken = DraftStore::newID();
    DraftStore::write(broken, *untitled("broken"));
    std::ofstream(support / "Drafts" / (broken + ".json"), std::ios::trunc) << "[]";

    const auto listing = testing::runBrim({"--drafts", "--support-dir", support.string()});
    EXPECT_EQ(listing.status, 0);
    EXPECT_EQ(listing.out, open + "  28 bytes  open  Meeting notes\n" + closed + "  " + ByteFormatter::string(2'409) +
                               "  closed " + localMinute(closedAt) + "  report.md\n");
    EXPECT_EQ(listing.err, "brim: draft " + broken + " cannot be read: its description is damaged.\n");
    // Listing is reading: the damaged draft is still there.
    EXPECT_TRUE(fs::exists(support / "Drafts" / (broken + ".text")));
}

} // namespace
} // namespace brim
