#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace brim {
namespace {

using testing::runBrim;

TEST(GrepCommand, printsEveryMatchOfTheProjectAndASummary) {
    testing::TemporaryFolder folder;
    const auto notes = folder.write("notes.md", "first\nthe needle\n");
    folder.write("sub/list.txt", "Needle one\nnone\nneedle needle\n");
    folder.write("sub/binary.bin", std::string("needle\0", 7));
    folder.write("node_modules/dep.js", "needle\n");
    folder.write(".hidden/secret", "needle\n");

    const auto result = runBrim({"--grep", notes.string(), "needle"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "notes.md:2:the needle\nsub/list.txt:1:Needle one\nsub/list.txt:3:needle needle\n"
                          "sub/list.txt:3:needle needle\n");
    EXPECT_EQ(result.err, "4 matches in 2 files, of 3 in the project.\n");

    const auto withCase = runBrim({"--grep", notes.string(), "Needle", "--case"});
    EXPECT_EQ(withCase.out, "sub/list.txt:1:Needle one\n");
    EXPECT_EQ(withCase.err, "1 matches in 1 files, of 3 in the project.\n");

    const auto regex = runBrim({"--grep", notes.string(), "^n\\w+ n", "--regex"});
    EXPECT_EQ(regex.status, 0);
    EXPECT_EQ(regex.out, "sub/list.txt:3:needle needle\n");
    EXPECT_EQ(regex.err, "1 matches in 1 files, of 3 in the project.\n");

    // Through the installed tool's --cli it is the same call.
    EXPECT_EQ(runBrim({"--cli", "--grep", notes.string(), "needle"}).out, result.out);
}

TEST(GrepCommand, noMatchPrintsOnlyTheSummaryAndABadExpressionSaysWhy) {
    testing::TemporaryFolder folder;
    const auto file = folder.write("a.txt", "alpha\n");
    const auto none = runBrim({"--grep", file.string(), "omega"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err, "0 matches in 0 files, of 1 in the project.\n");

    const auto bad = runBrim({"--grep", file.string(), "a{2,1}", "--regex"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.out, "");
    EXPECT_EQ(bad.err, "brim: Invalid pattern: numbers out of order in {} quantifier (at character 6)\n");

    const auto nowhere = runBrim({"--grep", (folder / "no/such/dir/f.txt").string(), "x"});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_EQ(nowhere.err, "brim: cannot read " + (folder / "no/such/dir/f.txt").string() + "\n");
}

TEST(GrepCommand, aRepositoryIsListedByGitFromAnyFolderInIt) {
    testing::TemporaryFolder folder;
    const auto git = testing::runProcess("git", {"init", "-q", folder.path().string()});
    if (git.status != 0) GTEST_SKIP() << "no git here";
    folder.write(".gitignore", "*.log\n");
    folder.write("top.txt", "word\n");
    folder.write("debug.log", "word\n");
    const auto deep = folder.write("a/b/deep.txt", "a word\n");
    folder.write("build/kept.txt", "word\n");  // Git's list does not skip folders by name
    const auto result = runBrim({"--grep", deep.string(), "word"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("top.txt:1:word\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("a/b/deep.txt:1:a word\n"), std::string::npos);
    EXPECT_NE(result.out.find("build/kept.txt:1:word\n"), std::string::npos);
    EXPECT_EQ(result.out.find("debug.log"), std::string::npos);
    EXPECT_EQ(result.err, "3 matches in 3 files, of 4 in the project.\n");
}

TEST(GrepCommand, aClosedOutputEndsTheSearchQuietly) {
    testing::TemporaryFolder folder;
    std::string many;
    for (int i = 0; i < 50; ++i) many += "hit\n";
    for (int i = 0; i < 300; ++i) folder.write("f" + std::to_string(i) + ".txt", many);
    testing::ProcessOptions options;
    options.closeStandardOutput = true;
    const auto result = runBrim({"--grep", (folder / "f0.txt").string(), "hit"}, options);
    EXPECT_LT(result.status, 128);  // no signal
    EXPECT_NE(result.err.find(" in the project.\n"), std::string::npos);
}

TEST(FindCommand, timesALiteralSearchOfTheWholeFile) {
    testing::TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 100'000; ++i) text += "some Needle and needle\n";  // over 1 MiB: mapped
    const auto big = folder.write("big.txt", text);
    const std::regex line("(-?\\d+) matches — search \\d+\\.\\d{3} s \\(\\d+\\.\\d{2} GB/s\\), open\\+index \\d+\\.\\d{3} s, "
                          "total \\d+\\.\\d{3} s\n");
    std::smatch parts;
    const auto ignoring = runBrim({"--find", big.string(), "needle"});
    EXPECT_EQ(ignoring.status, 0);
    ASSERT_TRUE(std::regex_match(ignoring.out, parts, line)) << ignoring.out;
    EXPECT_EQ(parts[1], "200000");
    const auto withCase = runBrim({"--find", big.string(), "Needle", "--case"});
    ASSERT_TRUE(std::regex_match(withCase.out, parts, line)) << withCase.out;
    EXPECT_EQ(parts[1], "100000");
    const auto small = runBrim({"--find", folder.write("small.txt", "ÄPFEL äpfel").string(), "äpfel"});
    ASSERT_TRUE(std::regex_match(small.out, parts, line)) << small.out;
    EXPECT_EQ(parts[1], "2");
    const auto empty = runBrim({"--find", folder.write("empty.txt", "").string(), "x"});
    ASSERT_TRUE(std::regex_match(empty.out, parts, line)) << empty.out;
    EXPECT_EQ(parts[1], "0");

    // The file is opened as a document: UTF-16 is searched in the text it holds, not in raw bytes.
    std::string utf16 = "\xFF\xFE";
    for (char c : std::string("a needle, another needle\n")) utf16 += std::string{c, '\0'};
    const auto wide = runBrim({"--find", folder.write("wide.txt", utf16).string(), "needle"});
    ASSERT_TRUE(std::regex_match(wide.out, parts, line)) << wide.out;
    EXPECT_EQ(parts[1], "2");

    const auto missing = runBrim({"--find", (folder / "missing.txt").string(), "x"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "brim: open failed\n");
}

// Shift-JIS bytes of "アイ" (83 41 83 43) hold those of "Aイ" (41 83 43) across the two
// characters; a search that goes by bytes alone counts it.
const std::string sjisAI = "\x83\x41\x83\x43";
const std::string sjisAWithI = "\x41\x83\x43";

TEST(GrepCommand, filesInOtherSetsAreSearchedInTheTextTheyHold) {
    testing::TemporaryFolder folder;
    const auto top = folder.write("readme.txt", "Aイ in UTF-8\n");
    // The name says the set, so the test does not rest on detection.
    folder.write("jp.shift_jis.txt", sjisAI + "\nx " + sjisAWithI + "\n");
    std::string utf16 = "\xFF\xFE";
    for (const char16_t unit : std::u16string(u"one\ntwo Aイ\n")) {
        utf16 += static_cast<char>(unit & 0xFF);
        utf16 += static_cast<char>(unit >> 8);
    }
    folder.write("wide.txt", utf16);
    const auto result = runBrim({"--grep", top.string(), "Aイ", "--case"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("readme.txt:1:Aイ in UTF-8\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("jp.shift_jis.txt:2:x Aイ\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("wide.txt:2:two Aイ\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.err, "3 matches in 3 files, of 3 in the project.\n");

    const auto expression = runBrim({"--grep", top.string(), "^x .イ$", "--regex", "--case"});
    EXPECT_EQ(expression.out, "jp.shift_jis.txt:2:x Aイ\n");
}

TEST(FindCommand, aDoubleByteFileCountsOnlyMatchesThatBeginOnACharacter) {
    testing::TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 1'000; ++i) text += sjisAI + " " + sjisAWithI + "\n";
    const auto file = folder.write("many.sjis.txt", text);
    const auto found = runBrim({"--find", file.string(), "Aイ", "--case"});
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.out.substr(0, found.out.find(' ')), "1000") << found.out;
}

} // namespace
} // namespace brim
