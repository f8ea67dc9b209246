// `brim --encoding` run as a process, the way a user runs it.

#include "bytes/Gzip.h"
#include "charsets/TextEncoding.h"
#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace brim {
namespace {

using testing::runBrim;
using testing::TemporaryFolder;
using Bytes = std::vector<std::uint8_t>;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

Bytes gzipped(const Bytes& bytes) {
    Gzip::Encoder encoder;
    Bytes out = encoder.header();
    const Bytes body = encoder.process(bytes);
    out.insert(out.end(), body.begin(), body.end());
    const Bytes end = encoder.finish();
    out.insert(out.end(), end.begin(), end.end());
    return out;
}

/// The environment of a run: English messages, settings from `folder`.
testing::ProcessOptions optionsWithSettings(const TemporaryFolder& folder) {
    testing::ProcessOptions options;
    options.environment = {{"XDG_CONFIG_HOME", (folder / "config").string()}, {"LANGUAGE", "en"}, {"LC_ALL", "C.UTF-8"}};
    return options;
}

TEST(EncodingCommand, printsOneLinePerFileInItsOwnWords) {
    TemporaryFolder folder;
    const auto utf8 = folder.write("notes.txt", "Größe prüfen\n");
    const auto marked = folder.write("marked.txt", Bytes{0xFF, 0xFE, 'h', 0, 'i', 0});
    const auto empty = folder.write("empty.txt", "");
    const auto latin = folder.write("latin.txt", TextEncoding::cp1252().encode("Größe prüfen\n").bytes);
    const auto result = runBrim({"--encoding", utf8.string(), "--nothing", marked.string(), empty.string(), latin.string()},
                                optionsWithSettings(folder));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const auto lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 4u) << result.out;
    EXPECT_EQ(lines[0], "notes.txt: UTF-8  90%  valid UTF-8 (3 multi-byte sequences)");
    EXPECT_EQ(lines[1], "marked.txt: UTF-16 LE + BOM  100%  byte order mark");
    EXPECT_EQ(lines[2], "empty.txt: UTF-8  100%  empty file");
    EXPECT_TRUE(lines[3].starts_with("latin.txt: Windows-1252  60%  8-bit, best of ")) << lines[3];
}

TEST(EncodingCommand, aFileThatCannotBeReadIsSaidAndTheRestGoOn) {
    TemporaryFolder folder;
    const auto good = folder.write("good.txt", "fine\n");
    const std::string missing = (folder / "missing.txt").string();
    std::filesystem::create_directory(folder / "a folder");
    const std::string directory = (folder / "a folder").string();
    const auto result = runBrim({"--encoding", missing, good.string(), directory}, optionsWithSettings(folder));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "brim: cannot read " + missing + "\nbrim: cannot read " + directory + "\n");
    EXPECT_EQ(result.out, "good.txt: UTF-8  100%  7-bit ASCII\n");
}

TEST(EncodingCommand, gzipFilesAreJudgedByTheStartOfWhatTheyUnpackTo) {
    TemporaryFolder folder;
    // The name without ".gz" names the page: "named by the file".
    const Bytes ebcdic = TextEncoding::ebcdicPage("1047").encode("RECORD ONE, FIELDS AND NUMBERS 0042\n").bytes;
    const auto named = folder.write("data.cp1047.txt.gz", gzipped(ebcdic));
    // A megabyte of ASCII, then Latin-1: only the first megabyte is looked at.
    Bytes long_(1'048'576, 'a');
    for (int i = 0; i < 1'000; ++i) long_.push_back(0xE9);
    const auto large = folder.write("large.log.gz", gzipped(long_));
    // Damaged beyond reading: a gzip header and nothing that inflates.
    const auto damaged = folder.write("damaged.gz", Bytes{0x1F, 0x8B, 0x08, 0, 0, 0, 0, 0, 0, 0x03, 0xFF, 0xFF, 0xFF, 0xFF});
    const auto result = runBrim({"--encoding", named.string(), large.string(), damaged.string()}, optionsWithSettings(folder));
    EXPECT_EQ(result.status, 0);
    const auto lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 2u) << result.out;
    EXPECT_EQ(lines[0], "data.cp1047.txt.gz: EBCDIC 1047 (Latin 1, Open Systems)  95%  named by the file: EBCDIC 1047 (Latin 1, Open Systems)");
    EXPECT_EQ(lines[1], "large.log.gz: UTF-8  100%  7-bit ASCII");
    EXPECT_EQ(result.err, "brim: cannot read " + damaged.string() + "\n");
}

TEST(EncodingCommand, verboseListsTheSixBestScoresFirst) {
    TemporaryFolder folder;
    const auto file = folder.write("russian.txt", TextEncoding::koi8r().encode("Съешь же ещё этих мягких французских булок, да выпей чаю.\n").bytes);
    const auto result = runBrim({"--encoding", "--verbose", file.string()}, optionsWithSettings(folder));
    EXPECT_EQ(result.status, 0);
    const auto lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 7u) << result.out;
    const std::regex candidate(R"(    ([a-z0-9]+) +(-?\d+\.\d\d))");
    double previous = 1e9;
    for (std::size_t i = 0; i < 6; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[i], match, candidate)) << lines[i];
        // "    %-10s %.2f": the id padded to ten, one blank, the score with two decimals.
        std::string id = match[1];
        const std::string padded = id + std::string(id.size() < 10 ? 10 - id.size() : 0, ' ');
        EXPECT_EQ(lines[i], "    " + padded + " " + std::string(match[2])) << lines[i];
        const double score = std::stod(match[2]);
        EXPECT_LE(score, previous);
        previous = score;
    }
    EXPECT_TRUE(lines[0].starts_with("    koi8r      ") || lines[0].starts_with("    koi8u      ")) << lines[0];
    EXPECT_TRUE(lines[6].starts_with("russian.txt: KOI8-R  75%  8-bit, best of ")) << lines[6];
}

TEST(EncodingCommand, theFallbackComesFromTheSettings) {
    TemporaryFolder folder;
    const auto file = folder.write("accents.txt", TextEncoding::cp1252().encode("Über die Größe der Äpfel\n").bytes);
    const auto usual = runBrim({"--encoding", file.string()}, optionsWithSettings(folder));
    // A fallback that is not among the sets scored anyway adds one reading.
    folder.write("config/Brim/settings.json", R"({"fallbackEncoding": "cp1162"})");
    const auto thai = runBrim({"--encoding", file.string()}, optionsWithSettings(folder));
    const std::regex readings(R"(best of (\d+) readings)");
    std::smatch before;
    std::smatch after;
    ASSERT_TRUE(std::regex_search(usual.out, before, readings)) << usual.out;
    ASSERT_TRUE(std::regex_search(thai.out, after, readings)) << thai.out;
    EXPECT_EQ(std::stoi(after[1]), std::stoi(before[1]) + 1);
}

} // namespace
} // namespace brim
