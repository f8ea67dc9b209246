#include "store/TextDocument.h"

#include "bytes/MemorySource.h"
#include "store/FilePermissions.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

extern char** environ;

namespace brim {
namespace {

using testing::bytes;
using testing::readFile;
using testing::TemporaryFolder;

TextDocument::OpenOptions quiet() {
    TextDocument::OpenOptions options;
    options.fallbackEncoding = TextEncoding::cp1252();
    options.readProjectRules = false;
    return options;
}

std::vector<std::uint8_t> utf16(std::u16string_view text, bool bigEndian) {
    std::vector<std::uint8_t> out;
    for (const char16_t unit : text) {
        const auto high = static_cast<std::uint8_t>(unit >> 8);
        const auto low = static_cast<std::uint8_t>(unit & 0xFF);
        out.push_back(bigEndian ? high : low);
        out.push_back(bigEndian ? low : high);
    }
    return out;
}

std::string text(const std::vector<std::uint8_t>& data) { return {data.begin(), data.end()}; }

/// Saves the document where it is, as it is, and takes the result in.
void saveInPlace(TextDocument& document, const std::optional<TextEncoding>& encoding = std::nullopt,
                 std::optional<LineEnding> ending = std::nullopt, bool inPlace = false) {
    TextDocument::WriteOptions options;
    options.encoding = encoding.value_or(document.fileEncoding);
    options.lineEnding = ending.value_or(document.lineEnding);
    options.writeBOM = document.hasBOM && !options.encoding.bom().empty();
    options.inPlace = inPlace;
    document.adoptSaved(document.writeOut(*document.url, options));
}

std::vector<std::string> temporaryFiles(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto name = entry.path().filename().string();
        if (name.starts_with(".brim-")) names.push_back(name);
    }
    return names;
}

TEST(TextDocumentSaving, roundTripsKeepTheSetAndTheLineEnding) {
    TemporaryFolder folder;
    struct Case {
        const char* name;
        std::vector<std::uint8_t> file;
        std::optional<TextEncoding> forced;
        std::string appended;       // typed at the end, in UTF-8
        std::vector<std::uint8_t> expected;
        std::int64_t lines;
    };
    const auto bom16 = std::vector<std::uint8_t>{0xFF, 0xFE};
    auto u16file = bom16;
    for (const auto& part : {utf16(u"one\rtwo\rthree", false)}) u16file.insert(u16file.end(), part.begin(), part.end());
    auto u16expected = bom16;
    for (const auto& part : {utf16(u"one\rtwo\rthree!", false)}) {
        u16expected.insert(u16expected.end(), part.begin(), part.end());
    }
    const std::vector<Case> cases = {
        {"cp1252 with crlf", bytes("Le caf\xE9 \xE9tait tr\xE8s bon.\r\n\xC0 bient\xF4t, Ren\xE9!\r\n"),
         std::nullopt, "\xE2\x82\xAC", bytes("Le caf\xE9 \xE9tait tr\xE8s bon.\r\n\xC0 bient\xF4t, Ren\xE9!\r\n\x80"), 3},
        {"utf-16 le with cr", u16file, std::nullopt, "!", u16expected, 3},
        {"mac roman with cr", bytes("Caf\x8E\rdeux\r"), TextEncoding::macRoman(), "x", bytes("Caf\x8E\rdeux\rx"), 3},
        {"line separators", bytes("one\xE2\x80\xA8two\xE2\x80\xA8three"), std::nullopt, ".",
         bytes("one\xE2\x80\xA8two\xE2\x80\xA8three."), 3},
        {"utf-8 with its mark", bytes("\xEF\xBB\xBFmark\n"), std::nullopt, "ed", bytes("\xEF\xBB\xBFmark\ned"), 2},
        {"ebcdic 037", bytes("\xC1\xC2\x25\xC3\x25"), TextEncoding::ebcdic037(), "D", bytes("\xC1\xC2\x25\xC3\x25\xC4"), 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = folder.write(std::string(c.name) + ".txt", c.file);
        auto options = quiet();
        options.forcedEncoding = c.forced;
        const auto document = TextDocument::open(path, options);
        const auto end = document->byteCount();
        document->replace({end, end}, c.appended, end, end);
        saveInPlace(*document);
        EXPECT_EQ(text(c.expected), readFile(path));
        EXPECT_FALSE(document->isDirty());
        EXPECT_EQ(document->lineCount(), c.lines);

        const auto again = TextDocument::open(path, options);
        EXPECT_EQ(again->lineCount(), c.lines);
        EXPECT_EQ(again->lineEnding, document->lineEnding);
        EXPECT_EQ(again->fileEncoding, document->fileEncoding);
        EXPECT_EQ(again->text({0, again->byteCount()}), document->text({0, document->byteCount()}));
        EXPECT_TRUE(temporaryFiles(folder.path()).empty());
    }
}

// A mapped file saved as it is goes from file to file in the kernel while the new file's index is
// built on another thread; both must agree with the text, across pieces, with a small stride so that
// checkpoints fall everywhere, and also when the file was cut short under the document.
TEST(TextDocumentSaving, aMappedFileSavedAsItIsKeepsEveryByteAndItsIndex) {
    TemporaryFolder folder;
    std::string model;
    for (int i = 0; i < 120'000; ++i) model += "line " + std::to_string(i) + (i % 7 == 0 ? " with more words" : "") + "\n";
    const auto path = folder.write("mapped.log", model);
    auto options = quiet();
    options.mmapThreshold = 4'096;
    options.indexStride = 3;
    const auto document = TextDocument::open(path, options);
    ASSERT_EQ(document->loadMode(), LoadMode::mapped);

    // Untouched, the document is indexed only through its first megabyte; a save needs the rest.
    ASSERT_LT(document->indexedLineCount(), std::count(model.begin(), model.end(), '\n'));
    const auto untouched = folder.path() / "untouched.log";
    const auto plain = document->writeOut(untouched, {document->encoding, document->lineEnding, false, false});
    EXPECT_EQ(readFile(untouched), model);
    EXPECT_EQ(plain.index.knownNewlines(), std::count(model.begin(), model.end(), '\n'));

    std::mt19937 random(11);
    for (int edit = 0; edit < 60; ++edit) {
        const auto size = static_cast<std::int64_t>(model.size());
        const std::int64_t at = static_cast<std::int64_t>(random() % static_cast<unsigned>(size + 1));
        const std::int64_t cut = std::min<std::int64_t>(size - at, random() % 3 == 0 ? static_cast<std::int64_t>(random() % 5'000) : 0);
        const std::string typed = edit % 4 == 0 ? "new\nlines\n" : "x";
        document->replace({at, at + cut}, typed, at, at + static_cast<std::int64_t>(typed.size()));
        model.replace(static_cast<std::size_t>(at), static_cast<std::size_t>(cut), typed);
    }
    const auto saved = folder.path() / "saved.log";
    auto outcome = document->writeOut(saved, {document->encoding, document->lineEnding, false, false});
    ASSERT_EQ(readFile(saved), model);
    const LineIndex& index = outcome.index;
    ASSERT_TRUE(index.isComplete());
    EXPECT_EQ(index.knownNewlines(), std::count(model.begin(), model.end(), '\n'));
    const MemorySource written(bytes(model));
    std::int64_t line = 0;
    for (std::size_t at = 0; at <= model.size(); at = model.find('\n', at) + 1, ++line) {
        if (line % 97 == 0) {
            EXPECT_EQ(index.startOffsetOfLine(line, written), static_cast<std::int64_t>(at));
        }
        if (model.find('\n', at) == std::string::npos) break;
    }
    document->adoptSaved(std::move(outcome));
    EXPECT_EQ(document->text({0, document->byteCount()}), model);

    // Cut short under a fresh document: what it shows (zeros past the end) is written, whole.
    const auto cut = TextDocument::open(saved, options);
    cut->replace({0, 0}, "A", 0, 1);
    ASSERT_EQ(::truncate(saved.c_str(), 10'000), 0);
    const auto again = folder.path() / "again.log";
    static_cast<void>(cut->writeOut(again, {cut->encoding, cut->lineEnding, false, false}));
    const std::string result = readFile(again);
    ASSERT_EQ(static_cast<std::int64_t>(result.size()), cut->byteCount());
    EXPECT_EQ(result.substr(0, 10'001), "A" + model.substr(0, 10'000));
    EXPECT_EQ(result.find_first_not_of('\0', 10'001), std::string::npos);
    EXPECT_TRUE(temporaryFiles(folder.path()).empty());
}

TEST(TextDocumentSaving, convertingSetsAndEndingsIsAdoptedByTheDocument) {
    TemporaryFolder folder;
    const auto path = folder.write("notes.txt", "Le caf\xE9 \xE9tait tr\xE8s bon.\r\nsecond\r\n");
    const auto document = TextDocument::open(path, quiet());
    ASSERT_EQ(document->fileEncoding, TextEncoding::cp1252());
    document->replace({0, 0}, "\xC3\xA0 ", 0, 2);   // à, typed as Windows-1252
    saveInPlace(*document, TextEncoding::utf8(), LineEnding::lf);
    EXPECT_EQ(readFile(path), "\xC3\xA0 Le caf\xC3\xA9 \xC3\xA9tait tr\xC3\xA8s bon.\nsecond\n");
    EXPECT_EQ(document->encoding, TextEncoding::utf8());
    EXPECT_EQ(document->lineEnding, LineEnding::lf);
    EXPECT_FALSE(document->canUndo());   // a save that converted starts the history again

    // U+2028 in a Windows-1252 file is a line break written as LF, not a question mark.
    const auto separated = TextDocument::open(folder.write("sep.txt", "one\xE2\x80\xA8two"), quiet());
    separated->adoptSaved(separated->writeOut(folder / "sep-1252.txt", {TextEncoding::cp1252(), LineEnding::ls, false, false}));
    EXPECT_EQ(readFile(folder / "sep-1252.txt"), "one\ntwo");
    EXPECT_EQ(separated->lineEnding, LineEnding::lf);
    EXPECT_EQ(separated->lineCount(), 2);

    // EBCDIC has no line separator either: its own line feed goes between the records.
    const auto records = TextDocument::open(folder.write("rec.txt", "A\xE2\x80\xA8" "B"), quiet());
    records->adoptSaved(records->writeOut(folder / "rec.ebcdic", {TextEncoding::ebcdic037(), LineEnding::ls, false, false}));
    EXPECT_EQ(readFile(folder / "rec.ebcdic"), "\xC1\x25\xC2");
}

TEST(TextDocumentSaving, aCancelledSaveChangesNothing) {
    TemporaryFolder folder;
    const auto path = folder.write("c.txt", "old\n");
    const auto document = TextDocument::open(path, quiet());
    document->replace({0, 3}, "new", 0, 3);
    const auto outcome = document->writeOut(path, {TextEncoding::utf8(), LineEnding::lf, false, false}, {},
                                            [] { return true; });
    EXPECT_TRUE(outcome.cancelled);
    document->adoptSaved(outcome);
    EXPECT_EQ(readFile(path), "old\n");
    EXPECT_TRUE(document->isDirty());
    EXPECT_TRUE(temporaryFiles(folder.path()).empty());
    try {
        (void)document->writeOut("", {});
        ADD_FAILURE() << "saved to nowhere";
    } catch (const BrimError& error) {
        EXPECT_EQ(std::string(error.what()), "no destination");
    }
}

TEST(TextDocumentSaving, undoReachesAcrossAnOrdinarySave) {
    TemporaryFolder folder;
    const auto path = folder.write("a.txt", "before\n");
    const auto document = TextDocument::open(path, quiet());
    document->replace({6, 6}, " after", 6, 12);
    saveInPlace(*document);
    EXPECT_FALSE(document->isDirty());
    ASSERT_TRUE(document->undo());
    EXPECT_EQ(document->lineText(0), "before");
    EXPECT_TRUE(document->isDirty());
}

TEST(TextDocumentSaving, permissionsCarryOverAndTheSwapReplacesOrRewrites) {
    TemporaryFolder folder;
    const auto path = folder.write("script.sh", "#!/bin/sh\necho old\n");
    ASSERT_EQ(::chmod(path.c_str(), 0750), 0);
    struct stat before {};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    const auto link = folder / "hard-link.sh";
    std::filesystem::create_hard_link(path, link);

    const auto document = TextDocument::open(path, quiet());
    document->replace(document->lineContentRange(1), "echo new", 0, 0);
    saveInPlace(*document);
    struct stat replaced {};
    ASSERT_EQ(::stat(path.c_str(), &replaced), 0);
    EXPECT_EQ(replaced.st_mode & 07777, 0750U);
    EXPECT_NE(replaced.st_ino, before.st_ino);
    EXPECT_EQ(readFile(link), "#!/bin/sh\necho old\n");   // the link still names the old file

    // In place: the same file, truncated to what the document holds.
    const auto inPlace = TextDocument::open(link, quiet());
    inPlace->replace({0, inPlace->byteCount()}, "short\n", 0, 0);
    saveInPlace(*inPlace, std::nullopt, std::nullopt, true);
    struct stat same {};
    ASSERT_EQ(::stat(link.c_str(), &same), 0);
    EXPECT_EQ(same.st_ino, before.st_ino);
    EXPECT_EQ(readFile(link), "short\n");
    EXPECT_TRUE(temporaryFiles(folder.path()).empty());
}

// A disk that fills, for typed bytes written from memory and for a mapped file's bytes copied by the
// kernel: the file size limit stands in for it.
TEST(TextDocumentSaving, aSaveThatFailsLeavesTheOldFileWholeAndNoTemporaryFile) {
    for (const bool mapped : {false, true}) {
        SCOPED_TRACE(mapped ? "mapped" : "in memory");
        TemporaryFolder folder;
        const std::string old = mapped ? std::string(300'000, 'o') + "\n" : "the old text\n";
        const auto path = folder.write("kept.txt", old);
        auto options = quiet();
        if (mapped) options.mmapThreshold = 4'096;
        const auto document = TextDocument::open(path, options);
        ASSERT_EQ(document->loadMode(), mapped ? LoadMode::mapped : LoadMode::memory);
        document->replace({0, 0}, mapped ? std::string("x") : std::string(300'000, 'x'), 0, 0);

        struct rlimit saved {};
        ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
        const auto previous = ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = saved;
        small.rlim_cur = 100'000;
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
        std::string message;
        try {
            (void)document->writeOut(path, {TextEncoding::utf8(), LineEnding::lf, false, false});
        } catch (const BrimError& error) {
            message = error.what();
        }
        ::setrlimit(RLIMIT_FSIZE, &saved);
        ::signal(SIGXFSZ, previous);

        EXPECT_TRUE(message.starts_with("Could not write ")) << message;
        EXPECT_NE(message.find("File too large"), std::string::npos) << message;
        EXPECT_EQ(readFile(path), old);
        EXPECT_TRUE(document->isDirty());
        EXPECT_TRUE(temporaryFiles(folder.path()).empty());
    }
}

TEST(TextDocumentSaving, aFolderThatCannotBeWrittenSaysWhy) {
    TemporaryFolder folder;
    const auto locked = folder / "locked";
    std::filesystem::create_directories(locked);
    const auto path = folder.write("locked/a.txt", "text\n");
    const auto document = TextDocument::open(path, quiet());
    document->replace({0, 0}, "more ", 0, 5);

    // The superuser passes permission checks, so lock the folder with the immutable flag instead.
    std::string reason = "Permission denied";
    if (::geteuid() == 0) {
        const int fd = ::open(locked.c_str(), O_RDONLY | O_DIRECTORY);
        long flags = 0;
        if (fd < 0 || ::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) GTEST_SKIP() << "no inode flags here";
        flags |= FS_IMMUTABLE_FL;
        if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) GTEST_SKIP() << "cannot lock a folder here";
        ::close(fd);
        reason = "Operation not permitted";
    } else {
        ASSERT_EQ(::chmod(locked.c_str(), 0555), 0);
    }
    std::string message;
    try {
        (void)document->writeOut(path, {TextEncoding::utf8(), LineEnding::lf, false, false});
    } catch (const BrimError& error) {
        message = error.what();
    }
    EXPECT_EQ(FilePermissions::state(locked / "new.txt"), FilePermissions::State::noPermission);
    if (::geteuid() == 0) {
        const int fd = ::open(locked.c_str(), O_RDONLY | O_DIRECTORY);
        long flags = 0;
        ::ioctl(fd, FS_IOC_GETFLAGS, &flags);
        flags &= ~static_cast<long>(FS_IMMUTABLE_FL);
        ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
        ::close(fd);
    }
    EXPECT_EQ(message, "cannot create temporary file next to " + path.string() + ": " + reason);
    EXPECT_EQ(readFile(path), "text\n");
    EXPECT_TRUE(document->isDirty());
}

TEST(TextDocumentSaving, gzipIsPackedAgain) {
    TemporaryFolder folder;
    const auto plain = folder.write("log.txt", "first\nsecond\n");
    const auto document = TextDocument::open(plain, quiet());
    document->isGzipped = true;
    document->gzipLevel = 1;
    const auto packed = folder / "log.txt.gz";
    document->adoptSaved(document->writeOut(packed, {TextEncoding::utf8(), LineEnding::lf, false, false}));
    EXPECT_TRUE(document->isGzipped);
    const auto again = TextDocument::open(packed, quiet());
    EXPECT_TRUE(again->isGzipped);
    EXPECT_EQ(again->gzipLevel, 1);
    EXPECT_EQ(again->lineText(1), "second");
}

TEST(TextDocumentSaving, unwritableCharactersAreCountedForTheTarget) {
    const auto document = TextDocument::inMemory(bytes("caf\xC3\xA9 \xE2\x82\xAC \xC5\x91 \xE2\x82\xAC"),
                                                 TextEncoding::utf8(), "test");
    const auto latin1 = document->unwritableCharacters(TextEncoding::latin1(), 5);
    EXPECT_EQ(latin1.count, 3);
    EXPECT_EQ(latin1.examples, (std::vector<std::string>{"\xE2\x82\xAC", "\xC5\x91"}));
    const auto cp1252 = document->unwritableCharacters(TextEncoding::cp1252(), 5);
    EXPECT_EQ(cp1252.count, 1);
    EXPECT_EQ(document->unwritableCharacters(TextEncoding::utf16be(), 5).count, 0);
}

TEST(TextDocumentSaving, aWorkingCopyWithFewEditsSavesBackExactly) {
    // Over two blocks of conversion, so that untouched stretches come from the old file by checkpoint.
    TemporaryFolder folder;
    std::u16string body;
    for (int i = 0; body.size() < 5'000'000; ++i) body += u"r\u00E9cord " + std::u16string(1, char16_t(u'A' + i % 26)) + u"\n";
    auto file = std::vector<std::uint8_t>{0xFE, 0xFF};
    const auto encoded = utf16(body, true);
    file.insert(file.end(), encoded.begin(), encoded.end());
    const auto path = folder.write("big16.txt", file);
    const auto document = TextDocument::open(path, quiet());
    ASSERT_EQ(document->fileEncoding, TextEncoding::utf16be());
    ASSERT_TRUE(document->checkpoints);
    const auto middle = document->lineRange(300'000).lower;
    document->replace({middle, middle}, "\xE2\x9C\x93", middle, middle + 3);   // ✓
    saveInPlace(*document);

    std::u16string expected = body;
    std::size_t at = 0;
    for (int n = 0; n < 300'000; ++n) at = expected.find(u'\n', at) + 1;
    expected.insert(at, u"\u2713");
    auto want = std::vector<std::uint8_t>{0xFE, 0xFF};
    const auto wantBody = utf16(expected, true);
    want.insert(want.end(), wantBody.begin(), wantBody.end());
    EXPECT_TRUE(readFile(path) == text(want));
    EXPECT_EQ(document->lineText(300'000).substr(0, 3), "\xE2\x9C\x93");
    EXPECT_TRUE(document->checkpoints);
    // The new copy's index came from the old one's: every line is where a fresh read puts it.
    const auto fresh = TextDocument::open(path, quiet());
    fresh->completeIndex();
    ASSERT_EQ(document->lineCount(), fresh->lineCount());
    for (std::int64_t n = 0; n < fresh->lineCount(); n += 9'973) {
        ASSERT_EQ(document->lineRange(n), fresh->lineRange(n)) << "line " << n;
    }
    ASSERT_EQ(document->lineRange(300'001), fresh->lineRange(300'001));

    // The checkpoints of that save serve the next one.
    const auto early = document->lineRange(1'000).lower;
    document->replace({early, early + 1}, "R", early, early + 1);
    saveInPlace(*document);
    std::size_t line1000 = 0;
    for (int n = 0; n < 1'000; ++n) line1000 = expected.find(u'\n', line1000) + 1;
    expected[line1000] = u'R';
    want = std::vector<std::uint8_t>{0xFE, 0xFF};
    const auto wantAgain = utf16(expected, true);
    want.insert(want.end(), wantAgain.begin(), wantAgain.end());
    EXPECT_TRUE(readFile(path) == text(want));
}

// The helper that the crash test below runs in a child process: saves two texts in turn, for ever.
// Disabled so that it never runs on its own; the child asks for it by name.
TEST(TextDocumentSavingHelper, DISABLED_saveForever) {
    const char* folder = std::getenv("BRIM_SAVE_LOOP_FOLDER");
    if (folder == nullptr) GTEST_SKIP() << "runs only as the child of the crash test";
    const auto path = std::filesystem::path(folder) / "target.txt";
    const auto document = TextDocument::open(path, quiet());
    for (int round = 0;; ++round) {
        const std::string next(round % 2 == 0 ? 80'000 : 50'000, round % 2 == 0 ? 'b' : 'a');
        document->replace({0, document->byteCount()}, next, 0, 0);
        saveInPlace(*document);
    }
}

TEST(TextDocumentSaving, aSaveKilledAtAnyMomentLeavesTheOldFileOrTheNewOne) {
    TemporaryFolder folder;
    const std::string a(50'000, 'a');
    const std::string b(80'000, 'b');
    const auto path = folder.write("target.txt", a);
    const std::string variable = "BRIM_SAVE_LOOP_FOLDER=" + folder.path().string();
    std::vector<std::string> environment = {variable};
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string filter = "--gtest_filter=TextDocumentSavingHelper.DISABLED_saveForever";
    std::string disabled = "--gtest_also_run_disabled_tests";
    char* argv[] = {self.data(), filter.data(), disabled.data(), nullptr};

    std::mt19937 random(7);
    for (int trial = 0; trial < 100; ++trial) {
        SCOPED_TRACE(trial);
        pid_t child = 0;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        const int spawned = ::posix_spawn(&child, self.c_str(), &actions, nullptr, argv, envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ASSERT_EQ(spawned, 0);
        // The moment of the kill is what is random here; nothing waits on it.
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(2'000, 40'000)(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        const std::string now = readFile(path);
        ASSERT_TRUE(now == a || now == b) << "a file of " << now.size() << " bytes";
        (void)TextDocument::open(path, quiet());
        ASSERT_TRUE(temporaryFiles(folder.path()).empty());
    }
}

} // namespace
} // namespace brim
