#include "store/TextDocument.h"

#include "bytes/Gzip.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace brim {
namespace {

using testing::bytes;
using testing::TemporaryFolder;

TextDocument::OpenOptions quiet() {
    TextDocument::OpenOptions options;
    options.fallbackEncoding = TextEncoding::cp1252();
    options.readProjectRules = false;
    return options;
}

std::vector<std::uint8_t> utf16le(std::u16string_view text) {
    std::vector<std::uint8_t> out;
    for (const char16_t unit : text) {
        out.push_back(static_cast<std::uint8_t>(unit & 0xFF));
        out.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    return out;
}

TEST(TextDocumentOpening, smallFilesAreReadAndLargeOnesMapped) {
    TemporaryFolder folder;
    auto options = quiet();
    options.mmapThreshold = 64;
    struct Case {
        std::size_t size;
        LoadMode mode;
    };
    for (const auto& c : {Case{0, LoadMode::memory}, Case{63, LoadMode::memory}, Case{64, LoadMode::mapped},
                          Case{200, LoadMode::mapped}}) {
        SCOPED_TRACE(c.size);
        const auto path = folder.write("f" + std::to_string(c.size) + ".txt", std::string(c.size, 'a'));
        const auto document = TextDocument::open(path, options);
        EXPECT_EQ(document->loadMode(), c.mode);
        EXPECT_EQ(document->byteCount(), static_cast<std::int64_t>(c.size));
        EXPECT_EQ(document->lineCount(), 1);
        EXPECT_EQ(document->lineText(0), std::string(c.size, 'a'));
    }
}

TEST(TextDocumentOpening, reportsItsStepsInOrder) {
    TemporaryFolder folder;
    const auto path = folder.write("a.txt", "hello\n");
    std::vector<std::pair<std::string, double>> steps;
    (void)TextDocument::open(path, quiet(), [&](std::string_view text, double fraction) {
        steps.emplace_back(text, fraction);
    });
    const std::vector<std::pair<std::string, double>> expected = {
        {"Detecting character set…", 0.05}, {"Preparing…", 0.9}, {"Ready", 1.0}};
    EXPECT_EQ(steps, expected);
}

TEST(TextDocumentOpening, aLargeFileIsIndexedOnlyThroughItsFirstMegabyte) {
    TemporaryFolder folder;
    std::string text;
    for (int i = 0; text.size() < 6'000'000; ++i) text += "line number " + std::to_string(i) + "\n";
    const auto total = std::count(text.begin(), text.end(), '\n');
    const auto path = folder.write("big.log", text);
    const auto document = TextDocument::open(path, quiet());

    EXPECT_EQ(document->loadMode(), LoadMode::mapped);
    EXPECT_EQ(document->table().originalIndex().indexedBytes(), TextDocument::initialIndexBytes);
    EXPECT_NEAR(static_cast<double>(document->lineCount()), static_cast<double>(total + 1), 0.05 * static_cast<double>(total));
    EXPECT_EQ(document->lineText(10), "line number 10");
    EXPECT_EQ(document->table().originalIndex().indexedBytes(), TextDocument::initialIndexBytes);

    // A far line reads correctly and extends the index as far as it needs, not to the end.
    EXPECT_EQ(document->lineText(100'000), "line number 100000");
    EXPECT_GT(document->table().originalIndex().indexedBytes(), TextDocument::initialIndexBytes);
    EXPECT_FALSE(document->table().originalIndex().isComplete());
    EXPECT_FALSE(document->ensureIndexedThroughLine(total, 1'000));
    EXPECT_TRUE(document->ensureIndexedThroughLine(100'010, 1'000'000));

    // The first edit completes the index, telling how far it has come; the count is then exact.
    double told = 0;
    document->editIndexingProgress = [&](double fraction) { told = std::max(told, fraction); };
    document->replace({0, 0}, "x", 0, 1);
    EXPECT_DOUBLE_EQ(told, 1.0);
    EXPECT_TRUE(document->table().originalIndex().isComplete());
    EXPECT_EQ(document->lineCount(), total + 1);
    EXPECT_EQ(document->lineText(0), "xline number 0");
}

TEST(TextDocumentOpening, backgroundPlansReportProgressAndStaleOnesAreDropped) {
    TemporaryFolder folder;
    std::string text;
    while (text.size() < 3'000'000) text += "0123456789abcdef\n";
    auto options = quiet();
    const auto document = TextDocument::open(folder.write("plan.txt", text), options);
    double last = 0;
    auto plan = document->planIndexExtension(2'000'000, [&](double fraction) { last = fraction; });
    ASSERT_TRUE(plan);
    EXPECT_NEAR(last, 2'000'000.0 / 3'000'000.0, 0.01);
    auto stale = *plan;
    EXPECT_TRUE(document->commitIndexExtension(std::move(*plan)));
    EXPECT_FALSE(document->commitIndexExtension(std::move(stale)));
    EXPECT_FALSE(document->planIndexExtension(3'000'000, {}, [] { return true; }));
    document->completeIndex();
    EXPECT_EQ(document->lineCount(), static_cast<std::int64_t>(text.size() / 17) + 1);
}

TEST(TextDocumentOpening, utf16IsEditedAsUTF8InAWorkingCopy) {
    TemporaryFolder folder;
    auto content = std::vector<std::uint8_t>{0xFF, 0xFE};
    const auto body = utf16le(u"caf\u00E9\r\nna\u00EFve\r\nlast");
    content.insert(content.end(), body.begin(), body.end());
    const auto path = folder.write("u16.txt", content);
    const auto document = TextDocument::open(path, quiet());

    EXPECT_EQ(document->fileEncoding, TextEncoding::utf16le());
    EXPECT_EQ(document->encoding, TextEncoding::utf8());
    EXPECT_TRUE(document->hasBOM);
    ASSERT_TRUE(document->workingCopy());
    EXPECT_TRUE(std::filesystem::exists(*document->workingCopy()));
    EXPECT_EQ(document->lineCount(), 3);
    EXPECT_EQ(document->lineText(0), "café");
    EXPECT_EQ(document->lineText(1), "naïve");
    EXPECT_EQ(document->lineEnding, LineEnding::crlf);
    document->replace(document->lineContentRange(2), "end", 0, 0);
    EXPECT_EQ(document->lineText(2), "end");

    const auto copy = *document->workingCopy();
    const std::weak_ptr<TextDocument> weak = document;
    const_cast<std::shared_ptr<TextDocument>&>(document).reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_FALSE(std::filesystem::exists(copy));
}

TEST(TextDocumentOpening, rareLineEndingsAreTurnedIntoLineFeedsInACopy) {
    TemporaryFolder folder;
    struct Case {
        const char* name;
        std::string text;
        LineEnding ending;
        std::int64_t lines;
        bool normalised;
    };
    const std::vector<Case> cases = {
        {"cr", "one\rtwo\rthree\r", LineEnding::cr, 4, true},
        {"ls", "one\xE2\x80\xA8two\xE2\x80\xA8three", LineEnding::ls, 3, true},
        {"lfcr", "one\n\rtwo\n\rthree", LineEnding::lfcr, 3, true},
        {"crlf stays", "one\r\ntwo\r\n", LineEnding::crlf, 3, false},
        {"a page mark in an lf file", "one\n\ftwo\nthree\n", LineEnding::lf, 4, false},
        {"only form feeds", "one\ftwo\fthree", LineEnding::ff, 3, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto document = TextDocument::open(folder.write(std::string(c.name) + ".txt", c.text), quiet());
        EXPECT_EQ(document->normalisedToLF, c.normalised);
        EXPECT_EQ(document->workingCopy().has_value(), c.normalised);
        EXPECT_EQ(document->lineEnding, c.ending);
        EXPECT_EQ(document->lineCount(), c.lines);
        EXPECT_NE(document->lineText(1).find("two"), std::string::npos);
    }
}

TEST(TextDocumentOpening, emptyFilesGzipAndFilesThatAreNotThere) {
    TemporaryFolder folder;
    const auto empty = TextDocument::open(folder.write("empty.txt", ""), quiet());
    EXPECT_EQ(empty->loadMode(), LoadMode::memory);
    EXPECT_EQ(empty->lineCount(), 1);
    EXPECT_EQ(empty->lineText(0), "");
    EXPECT_EQ(empty->detection.reason, "empty file");

    Gzip::Encoder encoder(std::string("dump.sql"), 9);
    auto packed = encoder.header();
    for (const auto& part : {encoder.process(bytes("select 1;\nselect 2;\n")), encoder.finish()}) {
        packed.insert(packed.end(), part.begin(), part.end());
    }
    const auto gz = TextDocument::open(folder.write("dump.sql.gz", packed), quiet());
    EXPECT_TRUE(gz->isGzipped);
    EXPECT_EQ(gz->gzipLevel, 9);
    EXPECT_EQ(gz->compressedSize, static_cast<std::int64_t>(packed.size()));
    EXPECT_EQ(gz->lineText(1), "select 2;");
    EXPECT_EQ(gz->language.id, "sql");

    // A gzip file too large to unpack in memory is refused before anything is read.
    const auto huge = folder / "huge.gz";
    folder.write("huge.gz", std::vector<std::uint8_t>{0x1F, 0x8B, 0x08});
    ASSERT_EQ(::truncate(huge.c_str(), TextDocument::gzipLimit + 1), 0);
    try {
        (void)TextDocument::open(huge, quiet());
        ADD_FAILURE() << "a gzip file over the limit opened";
    } catch (const Gzip::Failure& failure) {
        EXPECT_EQ(failure.kind(), Gzip::Failure::Kind::tooLarge);
    }

    try {
        (void)TextDocument::open(folder / "missing.txt", quiet());
        ADD_FAILURE() << "a missing file opened";
    } catch (const BrimError& error) {
        EXPECT_EQ(std::string(error.what()), (folder / "missing.txt").string() + ": No such file or directory");
    }
    try {
        (void)TextDocument::open(folder.path(), quiet());
        ADD_FAILURE() << "a folder opened";
    } catch (const BrimError& error) {
        EXPECT_EQ(std::string(error.what()), folder.path().string() + ": Is a directory");
    }
}

TEST(TextDocumentOpening, aNamedSetAndAForcedOneAreTakenAtTheirWord) {
    TemporaryFolder folder;
    const auto latin = TextDocument::open(folder.write("notes.latin1.txt", "caf\xE9\n"), quiet());
    EXPECT_EQ(latin->encoding, TextEncoding::latin1());
    EXPECT_EQ(latin->detection.confidence, 1.0);
    EXPECT_EQ(latin->lineText(0), "café");

    auto options = quiet();
    options.forcedEncoding = TextEncoding::koi8r();
    const auto forced = TextDocument::open(folder.write("plain.txt", "abc\n"), options);
    EXPECT_EQ(forced->encoding, TextEncoding::koi8r());
    EXPECT_EQ(forced->detection.reason, "chosen by user");
}

TEST(TextDocumentOpening, indentationFieldsLanguageAndProjectRules) {
    TemporaryFolder folder;
    folder.write("project/.git/HEAD", "ref: refs/heads/main\n");
    folder.write("project/.gitattributes", "*.txt eol=crlf\n*.bin binary\n");
    folder.write("project/.editorconfig", "root = true\n[*.py]\nindent_style = space\nindent_size = 2\n");
    const auto script = folder.write("project/tool.py", "def f():\n    if x:\n        return 1\n    return 2\n");
    auto options = quiet();
    options.readProjectRules = true;
    const auto python = TextDocument::open(script, options);
    ASSERT_TRUE(python->indentationReport);
    EXPECT_EQ(python->indentationReport->width, 4);
    EXPECT_EQ(python->indentation, IndentationStyle::spaces(2));   // the project's rules win
    EXPECT_EQ(python->language.id, "python");

    const auto notes = TextDocument::open(folder.write("project/notes.txt", "a\nb\n"), options);
    EXPECT_EQ(notes->lineEnding, LineEnding::crlf);
    EXPECT_EQ(notes->gitAttributes.lineEnding, LineEnding::crlf);

    const std::string records = "0001  SMITH      LONDON    0042\n"
                                "0002  JONES      PARIS     0007\n"
                                "0003  BROWN      ROME      0100\n"
                                "0004  TAYLOR     MADRID    0003\n";
    const auto fixed = TextDocument::open(folder.write("people.dat", records), quiet());
    EXPECT_EQ(fixed->fieldWidths(), (std::vector<std::int64_t>{6, 11, 10, 4}));

    auto layouts = quiet();
    layouts.fieldLayouts = {{"*.dat", {4, 26}, {"id", "rest"}}};
    const auto laidOut = TextDocument::open(folder / "people.dat", layouts);
    EXPECT_EQ(laidOut->fieldWidths(), (std::vector<std::int64_t>{4, 26}));
    EXPECT_EQ(laidOut->fieldNames, (std::vector<std::string>{"id", "rest"}));
}

TEST(TextDocumentOpening, aFileTruncatedUnderItsMapIsReportedAndNothingFaults) {
    TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 20'000; ++i) text += "record " + std::to_string(i) + "\n";
    const auto path = folder.write("shrinking.log", text);
    auto options = quiet();
    options.mmapThreshold = 1'024;
    const auto document = TextDocument::open(path, options);
    std::optional<ExternalChange> told;
    document->onExternalChange = [&](const ExternalChange& change) { told = change; };
    ASSERT_EQ(::truncate(path.c_str(), 1'000), 0);

    EXPECT_EQ(document->refreshReadableSize(), 1'000);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->kind, ExternalChange::Kind::truncated);
    EXPECT_EQ(told->to, 1'000);
    EXPECT_EQ(document->lineText(1), "record 1");
    EXPECT_EQ(document->lineText(19'000), std::string());   // gone: zeros stop at no newline
    document->completeIndex();
    EXPECT_GE(document->lineCount(), 100);
}

TEST(TextDocumentOpening, sampleLineDensityLooksAtHeadMiddleAndTail) {
    EXPECT_EQ(TextDocument::sampleLineDensity(MemorySource()), 0.0);
    EXPECT_EQ(TextDocument::sampleLineDensity(MemorySource(bytes("no newline"))), 0.0);
    EXPECT_EQ(TextDocument::sampleLineDensity(MemorySource(bytes("abc\nabc\n"))), 4.0);
    // A head of short lines and a body of long ones: the body counts too.
    std::string text(1'000'000, 'x');
    for (std::size_t i = 0; i < 262'144; i += 2) text[i + 1] = '\n';
    for (std::size_t i = 262'144; i < text.size(); i += 100) text[i] = '\n';
    const double density = TextDocument::sampleLineDensity(MemorySource(bytes(text)));
    EXPECT_GT(density, 2.5);
    EXPECT_LT(density, 10.0);
}

TEST(TextDocumentOpening, fixedRecordFilesOpenAsRecords) {
#if BRIM_HAS_RECORD_FORMAT
    TemporaryFolder folder;
    std::string records;
    for (int i = 0; i < 10; ++i) {
        std::string record = "CARD" + std::to_string(i);
        record.resize(80, ' ');
        records += record;
    }
    const auto document = TextDocument::open(folder.write("deck.dat", records), quiet());
    ASSERT_TRUE(document->recordFormat);
    EXPECT_EQ(document->lineCount(), 11);
    EXPECT_EQ(document->lineText(3), "CARD3");
#else
    GTEST_SKIP() << "RecordFormat has not landed: files of fixed records open as one long line. This test "
                    "runs, and must pass, as soon as charsets/RecordFormat.h exists.";
#endif
}

// A deck named by the file as Fieldata opens with a card to a line. Until the six-bit codes are part
// of the build there is no such set and the test says so; once the set exists, the deck must open as
// cards, so a codec that lands without the opening step fails here.
TEST(TextDocumentOpening, aSixBitDeckOpensWithACardToALine) {
    const TextEncoding* fieldata = TextEncoding::byId("fieldata");
    if (fieldata == nullptr) GTEST_SKIP() << "The six-bit codes have not landed: there is no Fieldata set to open a deck in.";
    TemporaryFolder folder;
    const auto card = [&](const std::string& text) {
        auto bytes = fieldata->encode(text + std::string(80 - text.size(), ' ')).bytes;
        return std::string(bytes.begin(), bytes.end());
    };
    const std::string deck = card("HELLO") + card("") + card("WORLD");
    ASSERT_EQ(deck.size(), 240u);
    const auto document = TextDocument::open(folder.write("deck.fieldata", deck), quiet());
    EXPECT_EQ(document->fileEncoding, *fieldata);
    EXPECT_TRUE(document->workingCopy().has_value());
    EXPECT_EQ(document->sixBitRecordWidth, 80);
    EXPECT_EQ(document->lineText(0), "HELLO");
    EXPECT_EQ(document->lineText(1), "");
    EXPECT_EQ(document->lineText(2), "WORLD");
}

} // namespace
} // namespace brim
