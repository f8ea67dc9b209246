#include "charsets/Transcoder.h"

#include "bytes/MemorySource.h"
#include "charsets/Charsets.h"
#include "charsets/TextEncoding.h"
#include "common/UserResources.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include <chrono>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;
using testing::TemporaryFolder;

/// Points the support folder at a temporary folder for the test's life.
class SupportFolder {
public:
    SupportFolder() { UserResources::setOverrideRoot(folder_.path() / "support"); }
    ~SupportFolder() { UserResources::setOverrideRoot(std::nullopt); }
    SupportFolder(const SupportFolder&) = delete;
    SupportFolder& operator=(const SupportFolder&) = delete;
    [[nodiscard]] const TemporaryFolder& folder() const { return folder_; }

private:
    TemporaryFolder folder_;
};

Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }
std::string textOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

Bytes readAll(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::size_t filesIn(const std::filesystem::path& directory) {
    std::error_code error;
    std::size_t count = 0;
    for (auto it = std::filesystem::directory_iterator(directory, error); it != std::filesystem::directory_iterator();
         it.increment(error)) {
        ++count;
    }
    return count;
}

const TextEncoding& named(const std::string& id) {
    const TextEncoding* encoding = TextEncoding::byId(id);
    if (encoding == nullptr) {
        ADD_FAILURE() << "no encoding " << id;
        return TextEncoding::utf8();
    }
    return *encoding;
}

/// Whole-buffer conversion, for building test files and expectations.
Bytes convertWhole(const TextEncoding& from, const TextEncoding& to, const Bytes& bytes) {
    Transcoder::BlockConverter converter(from, to);
    Bytes out;
    converter.convert(bytes, out);
    converter.finish(out);
    return out;
}

/// Text that `encoding` holds whole: the sample's characters that survive a round trip.
std::string holdableText(const TextEncoding& encoding) {
    static const std::string sample =
        "Plain ASCII line, digits 0123456789 and ~!@#$%^&*()_+{}|:\"<>?\n"
        "Latin: àâäãåæçèéêëìîïñòôöõøùûüÿß ÀÉÎÕÜ ąćęłńśźż čďěňřšťůž ğışĞİŞ āēģīķļņū őű\n"
        "Greek: Ελληνικά αβγδε, Cyrillic: Русский язык ґєії ўЎ қңүһ, Armenian: Հայերեն, Georgian: ქართული\n"
        "Hebrew: עברית, Arabic: العربية پچژگ, Thai: ภาษาไทย, Devanagari: हिन्दी, Tamil: தமிழ்\n"
        "Vietnamese: Tiếng Việt ơư ầ ẫ ộ, CJK: 日本語の文章、かなカナ ｶﾅ 中文简体 繁體中文 한국어 漢字\n"
        "Symbols: €£¥©®™•…–—‘’“”±×÷≠≤≥∞√∑∫ ♠♣♥♦ ①② ─│┌┐ ░▒▓█\n"
        "Supplementary: 𠀋 𝄞 😀 and the end.\n";
    std::string kept;
    std::size_t i = 0;
    while (i < sample.size()) {
        const auto lead = static_cast<std::uint8_t>(sample[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
        const std::string character = sample.substr(i, length);
        i += length;
        Transcoder::BlockConverter encoder(TextEncoding::utf8(), encoding);
        Bytes encoded;
        encoder.convert(bytesOf(character), encoded);
        encoder.finish(encoded);
        if (encoder.report().unwritable == 0 && textOf(convertWhole(encoding, TextEncoding::utf8(), encoded)) == character) {
            kept += character;
        }
    }
    return kept;
}

std::vector<const TextEncoding*> setsToRoundTrip() {
    std::vector<const TextEncoding*> sets;
    for (const TextEncoding& encoding : TextEncoding::everyday()) {
        sets.push_back(&encoding);
    }
    for (const TextEncoding& encoding : TextEncoding::catalogue()) {
        sets.push_back(&encoding);
    }
    return sets;
}

// MARK: round trips through a working copy

TEST(Transcoder, everySetRoundTripsThroughAWorkingCopyWhereverTheBlocksAreCut) {
    SupportFolder support;
    std::size_t checkedSets = 0;
    for (const TextEncoding* encoding : setsToRoundTrip()) {
        SCOPED_TRACE(encoding->id);
        const std::string text = holdableText(*encoding);
        ASSERT_GT(text.size(), 60u);
        const Bytes file = convertWhole(TextEncoding::utf8(), *encoding, bytesOf(text));
        const Bytes expectedCopy = convertWhole(*encoding, TextEncoding::utf8(), file);
        ASSERT_EQ(textOf(expectedCopy), text);
        MemorySource source(file);
        // Blocks of 1 to 5 bytes put an edge at every position of every character; 4 KiB is the whole.
        for (std::int64_t blockSize : {1, 2, 3, 4, 5, 4096}) {
            SCOPED_TRACE("block size " + std::to_string(blockSize));
            Transcoder::Checkpoints checkpoints;
            const auto outcome = Transcoder::transcodeToWorkingCopy(
                source, *encoding, {.checkpoints = &checkpoints, .blockSize = blockSize});
            ASSERT_TRUE(outcome.workingCopy);
            const Bytes copy = readAll(*outcome.workingCopy);
            EXPECT_EQ(textOf(copy), text);
            EXPECT_EQ(outcome.report.invalid, 0);
            // Each checkpoint pairs a place in the copy with the same place in the file.
            if (checkpoints.isUsable) {
                for (std::size_t k = 0; k < checkpoints.count(); ++k) {
                    const Bytes head(file.begin(), file.begin() + checkpoints.file[k]);
                    const Bytes copyHead(copy.begin(), copy.begin() + checkpoints.copy[k]);
                    ASSERT_EQ(textOf(convertWhole(*encoding, TextEncoding::utf8(), head)), textOf(copyHead))
                        << "checkpoint " << k;
                }
            }
            // Saved back through the streaming converter in pieces of another size: the same bytes.
            Transcoder::StreamingConverter saver(TextEncoding::utf8(), *encoding, std::nullopt);
            Bytes saved;
            const std::size_t piece = static_cast<std::size_t>(blockSize == 4096 ? 7 : blockSize + 2);
            for (std::size_t at = 0; at < copy.size(); at += piece) {
                const Bytes part(copy.begin() + static_cast<std::ptrdiff_t>(at),
                                 copy.begin() + static_cast<std::ptrdiff_t>(std::min(copy.size(), at + piece)));
                const Bytes out = saver.convert(part);
                saved.insert(saved.end(), out.begin(), out.end());
            }
            const Bytes tail = saver.flush();
            saved.insert(saved.end(), tail.begin(), tail.end());
            EXPECT_EQ(saved, file);
            std::filesystem::remove(*outcome.workingCopy);
        }
        ++checkedSets;
    }
    EXPECT_GE(checkedSets, 25u + Charsets::entries().size());
    EXPECT_EQ(filesIn(Transcoder::workingCopiesDirectory()), 0u);
}

TEST(Transcoder, statefulSetsKeepTheirShiftStateAcrossBlocks) {
    SupportFolder support;
    TextEncoding utf7;
    utf7.id = "utf7-test";
    utf7.displayName = "UTF-7";
    utf7.converterName = "UTF-7";
    const std::vector<const TextEncoding*> sets = {&named("iso2022jp"), &named("iso2022jp2"), &named("iso2022kr"),
                                                   &named("iso2022cn"), &named("iso2022cnext"), &named("hzgb2312"),
                                                   &named("iscii"), &utf7};
    for (const TextEncoding* encoding : sets) {
        SCOPED_TRACE(encoding->displayName);
        // Long runs of shifted text with line ends inside, so that state is in force at many edges.
        std::string text;
        const std::string held = holdableText(*encoding);
        for (int i = 0; i < 4; ++i) {
            text += held;
        }
        const Bytes file = convertWhole(TextEncoding::utf8(), *encoding, bytesOf(text));
        ASSERT_EQ(textOf(convertWhole(*encoding, TextEncoding::utf8(), file)), text);
        MemorySource source(file);
        // ISO-2022-KR's converter writes a header at every start, ISCII and UTF-7 have no line start
        // that is known to be clean: no checkpoints for them. The others have them at clean line starts.
        const bool cleanLinesKnown = encoding->id != "iso2022kr" && encoding->id != "iscii" && encoding != &utf7;
        for (std::int64_t blockSize : {1, 2, 3, 7, 64, 4096}) {
            SCOPED_TRACE("block size " + std::to_string(blockSize));
            Transcoder::Checkpoints checkpoints;
            const auto outcome = Transcoder::transcodeToWorkingCopy(
                source, *encoding, {.checkpoints = &checkpoints, .blockSize = blockSize});
            ASSERT_TRUE(outcome.workingCopy);
            const Bytes copy = readAll(*outcome.workingCopy);
            EXPECT_EQ(textOf(copy), text);
            std::filesystem::remove(*outcome.workingCopy);
            if (!cleanLinesKnown) {
                EXPECT_FALSE(checkpoints.isUsable);
                continue;
            }
            ASSERT_TRUE(checkpoints.isUsable);
            // One at the start, one at the end, and one in each block that holds a clean line start.
            EXPECT_GE(checkpoints.count(), blockSize < 64 ? 20u : blockSize == 64 ? 3u : 2u);
            EXPECT_EQ(checkpoints.file.back(), file.size());
            EXPECT_EQ(checkpoints.copy.back(), copy.size());
            // What saving relies on: between two checkpoints, the file's bytes read by a fresh converter
            // are the copy's text, and the copy's text written by a fresh converter is the file's bytes.
            for (std::size_t k = 0; k + 1 < checkpoints.count(); ++k) {
                const Bytes fileStretch(file.begin() + checkpoints.file[k], file.begin() + checkpoints.file[k + 1]);
                const Bytes copyStretch(copy.begin() + checkpoints.copy[k], copy.begin() + checkpoints.copy[k + 1]);
                ASSERT_EQ(textOf(convertWhole(*encoding, TextEncoding::utf8(), fileStretch)), textOf(copyStretch))
                    << "from checkpoint " << k;
                ASSERT_EQ(convertWhole(TextEncoding::utf8(), *encoding, copyStretch), fileStretch)
                    << "from checkpoint " << k;
                if (k > 0) {
                    EXPECT_EQ(copy[checkpoints.copy[k] - 1], '\n') << "checkpoint " << k << " is at a line start";
                }
            }
        }
    }
}

TEST(Transcoder, iso2022jpReadsAsICUDoesWhateverTheBytes) {
    // ISO-2022-JP is read by a table for ASCII and JIS X 0208 and by ICU for the rest: random bytes
    // from the alphabet of its escapes, both kinds of text, line ends and strays give ICU's own text
    // wherever the blocks are cut.
    SupportFolder support;
    const TextEncoding& encoding = named("iso2022jp");
    const std::vector<std::string> pieces = {"\x1b$B", "\x1b(B", "\x1b(J", "\x1b(I", "\x1b$@", "\x1b$A", "\x1b",
                                             "0!", "F|", "K\\", "t&", "~~", "\x7f!", "ab", "\n", "\r\n", "\x0e",
                                             "\x0f", "\x85", "\xa4\xa2", "$", "(", "B", "!"};
    std::mt19937 random(7);
    for (int round = 0; round < 1000; ++round) {
        std::string file;
        const int count = 1 + static_cast<int>(random() % 40);
        for (int k = 0; k < count; ++k) {
            file += pieces[random() % pieces.size()];
        }
        SCOPED_TRACE(::testing::PrintToString(file));
        const Bytes bytes = bytesOf(file);
        const std::string expected = encoding.decode(bytes);
        for (std::size_t block : {std::size_t{1}, std::size_t{2}, std::size_t{3}, bytes.size()}) {
            Transcoder::BlockConverter converter(encoding, TextEncoding::utf8());
            Bytes out;
            for (std::size_t at = 0; at < bytes.size(); at += block) {
                converter.convert(std::span<const std::uint8_t>(bytes).subspan(at, std::min(block, bytes.size() - at)), out);
            }
            converter.finish(out);
            ASSERT_EQ(textOf(out), expected) << "blocks of " << block;
        }
    }
}

TEST(Transcoder, aLineFeedInsideAShiftOrAnEscapeIsNoCheckpoint) {
    SupportFolder support;
    struct Case {
        std::string id;
        std::string file;
        std::vector<std::uint32_t> expectedFile;    // checkpoints in the file, start and end included
    };
    // Bytes written by hand, the way other programs write them: a line feed left inside a double-byte
    // run, a shift out or an escape does not end the state, and no place after it is taken.
    const std::vector<Case> cases = {
        {"iso2022jp", "a\n\x1b$B0!\n0!\x1b(B\nb\n", {0, 2, 14, 16}},
        {"iso2022jp", "\x1b(J\\\n\x1b(Bc\n", {0, 10}},
        {"iso2022jp", "\x1b(\n\x1b(Bx\n", {0, 8}},
        {"iso2022cn", "\x1b$)A\x0e" "0!\n0!\x0f\nz\n", {0, 12, 14}},
        {"hzgb2312", "a~{0!\n0!~}\n~~\n~\nx\n", {0, 11, 14, 18}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.id + ": " + test.file);
        const Bytes file = bytesOf(test.file);
        MemorySource source(file);
        // Blocks of one byte: every line feed is a block's last clean place, if it is one.
        Transcoder::Checkpoints checkpoints;
        const auto outcome = Transcoder::transcodeToWorkingCopy(source, named(test.id),
                                                                {.checkpoints = &checkpoints, .blockSize = 1});
        ASSERT_TRUE(checkpoints.isUsable);
        EXPECT_EQ(checkpoints.file, test.expectedFile);
        std::filesystem::remove(*outcome.workingCopy);
    }
}

TEST(Transcoder, unicodeFormsJoinSurrogatesAndUnitsSplitAcrossBlocks) {
    SupportFolder support;
    const std::string text = "a😀b€\n𝄞";
    for (const char* id : {"utf16le", "utf16be", "utf32le", "utf32be"}) {
        SCOPED_TRACE(id);
        const TextEncoding& encoding = named(id);
        Bytes file(encoding.bom().begin(), encoding.bom().end());
        const Bytes body = convertWhole(TextEncoding::utf8(), encoding, bytesOf(text));
        file.insert(file.end(), body.begin(), body.end());
        MemorySource source(file);
        for (std::int64_t blockSize = 1; blockSize <= 9; ++blockSize) {
            const auto outcome =
                Transcoder::transcodeToWorkingCopy(source, encoding, {.stripBOM = true, .blockSize = blockSize});
            EXPECT_EQ(textOf(readAll(*outcome.workingCopy)), text) << blockSize;
        }
    }
    // A lone surrogate and a byte short of a whole unit are each one U+FFFD, counted.
    const Bytes broken = {'a', 0, 0x00, 0xD8, 'b', 0, 0x00, 0xDC, 'c'};
    MemorySource source(broken);
    const auto outcome = Transcoder::transcodeToWorkingCopy(source, named("utf16le"), {.blockSize = 3});
    EXPECT_EQ(textOf(readAll(*outcome.workingCopy)), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(outcome.report.invalid, 3);
    EXPECT_EQ(outcome.report.firstInvalidOffset, 2);
}

// MARK: failures

TEST(Transcoder, unreadableBytesAreCountedOrRefusedAndNothingIsLeftBehind) {
    SupportFolder support;
    const Bytes file = {'o', 'k', 0x82, 0xA0, ' ', 0x81, 0x20, 'x', 0xFF, '\n'};   // Shift-JIS with two bad codes
    MemorySource source(file);
    const auto substituted = Transcoder::transcodeToWorkingCopy(source, TextEncoding::shiftJIS(), {.blockSize = 3});
    EXPECT_EQ(textOf(readAll(*substituted.workingCopy)), "ok\xE3\x81\x82 \xEF\xBF\xBD x\xEF\xBF\xBD\n");
    EXPECT_EQ(substituted.report.invalid, 2);
    std::filesystem::remove(*substituted.workingCopy);

    try {
        (void)Transcoder::transcodeToWorkingCopy(source, TextEncoding::shiftJIS(), {.substituting = false, .blockSize = 4});
        FAIL() << "expected a failure";
    } catch (const Transcoder::Failure& failure) {
        EXPECT_EQ(failure.kind(), Transcoder::Failure::Kind::invalidInput);
        EXPECT_NE(std::string(failure.what()).find("Shift-JIS"), std::string::npos) << failure.what();
    }
    EXPECT_EQ(filesIn(Transcoder::workingCopiesDirectory()), 0u) << "the failed copy is removed";

    // Cancelled between blocks: no copy, nothing left.
    int blocks = 0;
    const auto cancelled = Transcoder::transcodeToWorkingCopy(
        source, TextEncoding::shiftJIS(), {.blockSize = 2, .isCancelled = [&] { return ++blocks > 2; }});
    EXPECT_TRUE(cancelled.cancelled);
    EXPECT_FALSE(cancelled.workingCopy);
    EXPECT_EQ(filesIn(Transcoder::workingCopiesDirectory()), 0u);
}

TEST(Transcoder, aFolderThatCannotBeMadeFailsWithTheMessage) {
    TemporaryFolder folder;
    // A file where the support folder should be: nothing can be made below it.
    UserResources::setOverrideRoot(folder.write("support", "not a folder"));
    const Bytes text = bytesOf("text");
    MemorySource source(text);
    for (int attempt = 0; attempt < 3; ++attempt) {
        try {
            if (attempt == 0) {
                (void)Transcoder::makeWorkingCopy();
            } else if (attempt == 1) {
                (void)Transcoder::writeWorkingCopy(text);
            } else {
                (void)Transcoder::transcodeToWorkingCopy(source, TextEncoding::latin1());
            }
            ADD_FAILURE() << "attempt " << attempt << " succeeded";
        } catch (const Transcoder::Failure& failure) {
            EXPECT_STREQ(failure.what(), "cannot create working copy");
        }
    }
    UserResources::setOverrideRoot(std::nullopt);
}

TEST(Transcoder, aCopyThatCannotBeWrittenWholeFailsAndIsRemoved) {
    SupportFolder support;
    // A file size limit stands in for a full disk: writes past it fail with EFBIG.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = saved;
    limited.rlim_cur = 10'000;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    const Bytes big(100'000, 'x');
    MemorySource source(big);
    try {
        (void)Transcoder::transcodeToWorkingCopy(source, TextEncoding::latin1(), {.blockSize = 4096});
        ADD_FAILURE() << "the copy was written past the limit";
    } catch (const Transcoder::Failure& failure) {
        EXPECT_EQ(failure.kind(), Transcoder::Failure::Kind::cannotWrite);
        EXPECT_NE(std::string(failure.what()).find("could not be written"), std::string::npos) << failure.what();
    }
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(filesIn(Transcoder::workingCopiesDirectory()), 0u);
}

TEST(Transcoder, gb18030IsReadWithICUsMappingOf2005) {
    SupportFolder support;
    // ICU 72 follows GB 18030-2005, where FE51 is a private-use character; glibc follows the 2022
    // edition (U+20087). ICU's reading is the one used, so files written by older tools read back.
    const Bytes file = {'a', 0xFE, 0x51, 'b', 0x81, 0x30, 0x81, 0x30};
    MemorySource source(file);
    const auto outcome = Transcoder::transcodeToWorkingCopy(source, TextEncoding::gb18030(), {.blockSize = 1});
    EXPECT_EQ(textOf(readAll(*outcome.workingCopy)), "a\uE816b\u0080");
}

TEST(Transcoder, workingCopiesAreNamedByUUIDAndWrittenWhole) {
    SupportFolder support;
    const std::filesystem::path empty = Transcoder::makeWorkingCopy();
    EXPECT_EQ(empty.parent_path(), support.folder().path() / "support" / "WorkingCopies");
    EXPECT_EQ(empty.extension(), ".utf8");
    EXPECT_EQ(empty.stem().string().size(), 36u);
    EXPECT_EQ(std::filesystem::file_size(empty), 0u);
    const Bytes bytes = bytesOf("written\nwhole\n");
    const std::filesystem::path written = Transcoder::writeWorkingCopy(bytes);
    EXPECT_NE(written, empty);
    EXPECT_EQ(readAll(written), bytes);
    EXPECT_EQ(std::filesystem::status(Transcoder::workingCopiesDirectory()).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_all);
}

TEST(Transcoder, abandonedWorkingCopiesAreRemovedButNotThoseInUseOrNew) {
    SupportFolder support;
    const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(3);
    const std::filesystem::path abandoned = Transcoder::writeWorkingCopy(bytesOf("left by a crash"));
    const std::filesystem::path held = Transcoder::writeWorkingCopy(bytesOf("open in a window"));
    const std::filesystem::path fresh = Transcoder::writeWorkingCopy(bytesOf("just made"));
    const std::filesystem::path partial = Transcoder::workingCopiesDirectory() / "0000.utf8.partial";
    std::ofstream(partial) << "half";
    const std::filesystem::path unrelated = Transcoder::workingCopiesDirectory() / "notes.txt";
    std::ofstream(unrelated) << "not ours";
    for (const auto& path : {abandoned, held, partial, unrelated}) {
        std::filesystem::last_write_time(path, old);
    }
    const int descriptor = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);

    const auto found = Transcoder::abandonedWorkingCopies(std::chrono::hours(1));
    EXPECT_EQ(found.size(), 2u);
    EXPECT_EQ(Transcoder::removeAbandonedWorkingCopies(std::chrono::hours(1)), 2u);
    EXPECT_FALSE(std::filesystem::exists(abandoned));
    EXPECT_FALSE(std::filesystem::exists(partial));
    EXPECT_TRUE(std::filesystem::exists(held));
    EXPECT_TRUE(std::filesystem::exists(fresh));
    EXPECT_TRUE(std::filesystem::exists(unrelated));
    ::close(descriptor);
    EXPECT_EQ(Transcoder::removeAbandonedWorkingCopies(std::chrono::hours(1)), 1u);
    EXPECT_FALSE(std::filesystem::exists(held));
}

// MARK: checkpoints

TEST(Transcoder, checkpointsPairOffsetsAndStopPastFourGiB) {
    Transcoder::Checkpoints points;
    points.add(0, 0);
    points.add(0, 0);
    points.add(10, 20);
    points.add(30, 45);
    EXPECT_EQ(points.count(), 3u);
    EXPECT_EQ(points.atOrBefore(29), (std::pair<std::int64_t, std::int64_t>{10, 20}));
    EXPECT_EQ(points.atOrAfter(11), (std::pair<std::int64_t, std::int64_t>{30, 45}));
    EXPECT_FALSE(points.atOrAfter(31));

    // Moving a stretch of one record into another.
    Transcoder::Checkpoints moved;
    moved.add(0, 0);
    moved.append(points, {10, 30}, 100, 200);
    EXPECT_EQ(moved.copy, (std::vector<std::uint32_t>{0, 100, 120}));
    EXPECT_EQ(moved.file, (std::vector<std::uint32_t>{0, 200, 225}));
    moved.append(points, {11, 30}, 500, 500);   // not starting at a pair: nothing
    EXPECT_EQ(moved.count(), 3u);

    points.add(std::int64_t{1} << 32, 50);
    EXPECT_FALSE(points.isUsable);
    EXPECT_EQ(points.count(), 3u);
    EXPECT_FALSE(points.atOrBefore(20));
}

// MARK: saving

TEST(Transcoder, streamingConverterSpellsTheLineEndingInTheTarget) {
    struct Case {
        const char* from;
        const char* to;
        LineEnding ending;
        std::string text;       // UTF-8
        std::string expected;   // UTF-8 of what the target bytes read as
    };
    const std::vector<Case> cases = {
        {"utf8", "utf8", LineEnding::crlf, "a\nb\r\nc\rd\n\re", "a\r\nb\r\nc\r\nd\r\ne"},
        {"utf8", "utf8", LineEnding::lf, "a\r\nb\rc\n", "a\nb\nc\n"},
        {"utf8", "utf16le", LineEnding::crlf, "日本\n語\n", "日本\r\n語\r\n"},
        {"latin1", "latin1", LineEnding::cr, "caf\xC3\xA9\r\nna\xC3\xAFve\n", "caf\xC3\xA9\rna\xC3\xAFve\r"},
        {"shiftjis", "eucjp", LineEnding::crlf, "かな\nカナ\n", "かな\r\nカナ\r\n"},
        {"utf8", "latin1", LineEnding::nel, "one\ntwo\n", "one\xC2\x85two\xC2\x85"},
        // Windows-1252 has no NEL (0x85 is an ellipsis): a line feed instead.
        {"utf8", "cp1252", LineEnding::nel, "one\r\ntwo", "one\ntwo"},
        {"utf8", "ebcdic", LineEnding::lf, "one\r\ntwo\n", "one\ntwo\n"},
        {"utf8", "utf8", LineEnding::ls, "one\ntwo", "one\xE2\x80\xA8two"},
    };
    for (const Case& example : cases) {
        SCOPED_TRACE(std::string(example.from) + " to " + example.to + " as " + std::string(word(example.ending)));
        const TextEncoding& from = named(example.from);
        const TextEncoding& to = named(example.to);
        const Bytes input = convertWhole(TextEncoding::utf8(), from, bytesOf(example.text));
        // Fed one byte at a time, so that every CR LF pair and character is divided somewhere.
        for (std::size_t piece : {std::size_t{1}, std::size_t{2}, input.size()}) {
            Transcoder::StreamingConverter converter(from, to, example.ending);
            Bytes output;
            for (std::size_t at = 0; at < input.size(); at += piece) {
                const Bytes part(input.begin() + static_cast<std::ptrdiff_t>(at),
                                 input.begin() + static_cast<std::ptrdiff_t>(std::min(input.size(), at + piece)));
                const Bytes out = converter.convert(part);
                output.insert(output.end(), out.begin(), out.end());
            }
            EXPECT_TRUE(converter.convert({}).empty());
            const Bytes tail = converter.flush();
            output.insert(output.end(), tail.begin(), tail.end());
            EXPECT_EQ(textOf(convertWhole(to, TextEncoding::utf8(), output)), example.expected) << "pieces of " << piece;
        }
    }
    EXPECT_TRUE(Transcoder::StreamingConverter(TextEncoding::utf8(), TextEncoding::utf8(), LineEnding::crlf)
                    .endingSpelledInSource());
    EXPECT_FALSE(Transcoder::StreamingConverter(TextEncoding::utf8(), named("utf16le"), LineEnding::crlf)
                     .endingSpelledInSource());
    Transcoder::StreamingConverter holding(TextEncoding::utf8(), TextEncoding::utf8(), LineEnding::crlf);
    EXPECT_EQ(textOf(holding.convert(bytesOf("a\r"))), "a");
    EXPECT_EQ(holding.carry(), 1) << "a CR waits to see whether an LF follows";
    EXPECT_EQ(textOf(holding.flush()), "\r\n");
}

TEST(Transcoder, unwritableCharactersAreCountedWithExamples) {
    Transcoder::StreamingConverter converter(TextEncoding::utf8(), TextEncoding::latin1(), std::nullopt);
    Bytes out = converter.convert(bytesOf("café 日本 €uro 日"));
    const Bytes tail = converter.flush();
    out.insert(out.end(), tail.begin(), tail.end());
    EXPECT_EQ(textOf(out), "caf\xE9 ?? ?uro ?");
    EXPECT_EQ(converter.report().unwritable, 4);
    EXPECT_EQ(converter.report().unwritableExamples, (std::vector<std::string>{"日", "本", "€"}));

    // A table set and a double-byte set say the same.
    for (const char* id : {"cp737", "macjapanese", "shiftjis2004"}) {
        SCOPED_TRACE(id);
        Transcoder::BlockConverter encoder(TextEncoding::utf8(), named(id));
        Bytes bytes;
        encoder.convert(bytesOf("A\xF0\x9F\x98\x80" "B"), bytes);
        encoder.finish(bytes);
        EXPECT_EQ(textOf(bytes), "A?B");
        EXPECT_EQ(encoder.report().unwritable, 1);
        EXPECT_EQ(encoder.report().unwritableExamples, (std::vector<std::string>{"😀"}));
    }
}

TEST(Transcoder, aHugeStretchWithoutLineEndsConvertsInBoundedPieces) {
    // No line end at all: the output comes out as the input goes in, never held whole.
    Transcoder::StreamingConverter converter(TextEncoding::utf8(), named("utf16be"), LineEnding::crlf);
    const Bytes block(1 << 20, 'x');
    std::int64_t produced = 0;
    for (int i = 0; i < 16; ++i) {
        produced += static_cast<std::int64_t>(converter.convert(block).size());
        EXPECT_LE(converter.carry(), 4);
    }
    produced += static_cast<std::int64_t>(converter.flush().size());
    EXPECT_EQ(produced, 2 * 16 * (1 << 20));
}

// MARK: line endings

TEST(Transcoder, normalizeLineEndingsRewritesEveryKindOfBreak) {
    struct Case {
        const char* encoding;
        std::string input;      // UTF-8, converted to the encoding first
        LineEnding to;
        bool pageBreaks;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"utf8", "a\r\nb\rc\nd\n\re\xC2\x85" "f\xE2\x80\xA8g\xE2\x80\xA9h", LineEnding::lf, false, "a\nb\nc\nd\ne\nf\ng\nh"},
        {"utf8", "a\fb\vc\n", LineEnding::crlf, false, "a\fb\vc\r\n"},
        {"utf8", "a\fb\vc\n", LineEnding::crlf, true, "a\r\nb\r\nc\r\n"},
        {"utf8", "\r\n\r\n", LineEnding::lf, false, "\n\n"},
        {"latin1", "one\xC2\x85two\r", LineEnding::lf, false, "one\ntwo\n"},
        // In Windows-1252 the byte 0x85 is an ellipsis, not a break.
        {"cp1252", "one\xE2\x80\xA6two\r", LineEnding::lf, false, "one\xE2\x80\xA6two\n"},
        {"utf16le", "one\rtwo\r\nthree", LineEnding::lf, false, "one\ntwo\nthree"},
        {"ebcdic", "one\ntwo\r\n", LineEnding::crlf, false, "one\r\ntwo\r\n"},
        {"shiftjis", "表\r示\n", LineEnding::crlf, false, "表\r\n示\r\n"},
    };
    for (const Case& example : cases) {
        SCOPED_TRACE(std::string(example.encoding) + ": " + example.input);
        const TextEncoding& encoding = named(example.encoding);
        const Bytes input = convertWhole(TextEncoding::utf8(), encoding, bytesOf(example.input));
        const Bytes output = Transcoder::normalizeLineEndings(input, example.to, encoding, example.pageBreaks);
        EXPECT_EQ(textOf(convertWhole(encoding, TextEncoding::utf8(), output)), example.expected);
    }
}

TEST(Transcoder, rareBreaksBecomeLineFeedsInAWorkingCopyOfTheSameSet) {
    SupportFolder support;
    struct Case {
        const char* encoding;
        std::string input;
        std::vector<LineEnding> kinds;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"utf8", "a\rb\r\nc\rd", {LineEnding::cr}, "a\nb\r\nc\nd"},
        {"utf8", "a\xC2\x85" "b\xE2\x80\xA8" "c\xE2\x80\xA9" "d\xE2\x82\xAC", {LineEnding::nel, LineEnding::ls, LineEnding::ps},
         "a\nb\nc\nd\xE2\x82\xAC"},
        {"utf8", "page\fone\ftwo\n", {LineEnding::ff}, "page\none\ntwo\n"},
        {"utf8", "x\n\ry\n\rz", {LineEnding::lfcr}, "x\ny\nz"},
        {"latin1", "caf\xC3\xA9\xC2\x85" "end\r", {LineEnding::nel, LineEnding::cr}, "caf\xC3\xA9\nend\n"},
        {"utf16be", "a\rb\r", {LineEnding::cr}, "a\nb\n"},
    };
    for (const Case& example : cases) {
        SCOPED_TRACE(example.encoding + std::string(": ") + example.input);
        const TextEncoding& encoding = named(example.encoding);
        const Bytes input = convertWhole(TextEncoding::utf8(), encoding, bytesOf(example.input));
        MemorySource source(input);
        for (std::int64_t blockSize : {1, 2, 3, 4096}) {
            const auto outcome = Transcoder::normalizeBreaksToWorkingCopy(source, example.kinds, encoding,
                                                                          {.blockSize = blockSize});
            ASSERT_TRUE(outcome.workingCopy);
            EXPECT_EQ(textOf(convertWhole(encoding, TextEncoding::utf8(), readAll(*outcome.workingCopy))), example.expected)
                << "block size " << blockSize;
            std::filesystem::remove(*outcome.workingCopy);
        }
    }
}

TEST(Transcoder, safeCutNeverDividesACharacterOrALineEndPair) {
    struct Case {
        std::string bytes;
        std::size_t cut;
    };
    const std::vector<Case> cases = {
        {"abc", 3},
        {"ab\r\n", 2},
        {"", 0},
        {"\xE6\x97\xA5\xE6\x9C", 3},                     // a character short of its last byte
        {"\xE6\x97\xA5\xE6\x9C\xAC", 3},                 // whole, but the last character is still kept back
        {"\xE6\x97\xA5\xF0\x9F\x98\x80", 3},
        {"\xE6\x97", 0},                                 // under four bytes with no plain byte
        {"\xE6\x97\xA5\r\n", 3},
        {std::string(20, '\xC3') + "x", 21},
    };
    for (const Case& example : cases) {
        SCOPED_TRACE(example.bytes);
        EXPECT_EQ(Transcoder::safeCut(bytesOf(example.bytes)), example.cut);
    }
    // Property: the head ends on a character edge and never between CR and LF.
    std::mt19937 random(7);
    const std::string pieces[] = {"a", "\r\n", "\n", "é", "日", "😀", "\r"};
    for (int round = 0; round < 500; ++round) {
        std::string text;
        const int count = static_cast<int>(random() % 12);
        for (int k = 0; k < count; ++k) {
            text += pieces[random() % 7];
        }
        const std::size_t cut = Transcoder::safeCut(bytesOf(text));
        ASSERT_LE(cut, text.size());
        if (cut < text.size()) {
            EXPECT_NE(static_cast<std::uint8_t>(text[cut]) & 0xC0, 0x80) << text;
        }
        if (cut > 0 && cut < text.size()) {
            EXPECT_FALSE(text[cut - 1] == '\r' && text[cut] == '\n') << text;
        }
    }
}

TEST(LineEnding, namesAndSpellingsPerSet) {
    for (LineEnding ending : allLineEndings) {
        EXPECT_EQ(lineEndingForWord(word(ending)), ending);
    }
    EXPECT_FALSE(lineEndingForWord("CRLF"));
    EXPECT_EQ(displayName(LineEnding::lfcr), "LFCR (reversed)");
    EXPECT_EQ(bytesIn(LineEnding::crlf, named("utf16le")), (Bytes{0x0D, 0, 0x0A, 0}));
    EXPECT_EQ(bytesIn(LineEnding::nel, TextEncoding::latin1()), (Bytes{0x85}));
    EXPECT_EQ(bytesIn(LineEnding::ls, TextEncoding::utf8()), (Bytes{0xE2, 0x80, 0xA8}));
    EXPECT_EQ(spelledIn(LineEnding::ls, TextEncoding::latin1()), LineEnding::lf);
    EXPECT_EQ(bytesIn(LineEnding::ls, TextEncoding::latin1()), (Bytes{0x0A}));
    EXPECT_EQ(spelledIn(LineEnding::nel, TextEncoding::cp1252()), LineEnding::lf);
    EXPECT_EQ(bytesIn(LineEnding::lf, TextEncoding::ebcdicUS()), (Bytes{0x25}));
}

} // namespace
} // namespace brim
