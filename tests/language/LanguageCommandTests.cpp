#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

namespace brim {
namespace {

using testing::runBrim;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(LanguageCommand, printsALinePerFile) {
    testing::TemporaryFolder folder;
    const auto script = folder.write("tool", "#!/usr/bin/env python3\nimport sys\nprint(sys.argv)\n").string();
    const auto notes = folder.write("notes.txt", "Dear Anna,\nthank you for the letter.\n").string();
    const auto diff = folder.write("change.patch", "--- a/x\n+++ b/x\n@@ -1 +1 @@\n-a\n+b\n").string();
    const auto missing = (folder / "missing.c").string();

    const auto result = runBrim({"--language", script, notes, "--verbose-not", diff, missing});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(linesOf(result.out), (std::vector<std::string>{
                                       script + ": Python  (content says Python)",
                                       notes + ": Plain Text  (content says nothing)",
                                       diff + ": Diff / Patch  (content says Diff / Patch)",
                                       missing + ": cannot read",
                                   }));
}

TEST(LanguageCommand, verboseListsTheFirstEightCandidates) {
    testing::TemporaryFolder folder;
    std::string python = "#!/usr/bin/env python3\n# -*- mode: python -*-\nimport os\n";
    for (int i = 0; i < 20; ++i) {
        python += "def f" + std::to_string(i) + "(self, x):\n    return [y for y in x if y is not None]\n";
    }
    const auto path = folder.write("tool.py", python).string();
    const auto result = runBrim({"--language", "--verbose", path});
    EXPECT_EQ(result.status, 0);
    const auto lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 9u) << result.out;
    EXPECT_EQ(lines[0], path + ": Python  (content says Python)");
    // "    %-14s %6.1f  %@": the id padded to 14, the score in 6 with one decimal.
    EXPECT_TRUE(lines[1].starts_with("    python         ")) << lines[1];
    EXPECT_EQ(lines[1].substr(18, 1), " ");
    EXPECT_EQ(lines[1].substr(25, 2), "  ");
    EXPECT_NE(lines[1].find("a mode line says python"), std::string::npos) << lines[1];
    for (std::size_t index = 1; index < lines.size(); ++index) {
        SCOPED_TRACE(lines[index]);
        EXPECT_TRUE(lines[index].starts_with("    "));
        const double score = std::stod(lines[index].substr(19, 6));
        EXPECT_EQ(lines[index][23], '.');
        if (index > 1) {
            EXPECT_LE(score, std::stod(lines[index - 1].substr(19, 6)));
        }
    }
}

TEST(LanguageCommand, theContentSpeaksWhereTheNameIsSilent) {
    testing::TemporaryFolder folder;
    const auto path = folder.write("change", "diff --git a/x b/x\n--- a/x\n+++ b/x\n@@ -1 +1 @@\n-a\n+b\n").string();
    const auto result = runBrim({"--language", path});
    EXPECT_EQ(result.out, path + ": Diff / Patch  (content says Diff / Patch)\n");
    // The name wins where it says something, and the content still has its say beside it.
    const auto named = folder.write("change.c", "diff --git a/x b/x\n--- a/x\n+++ b/x\n@@ -1 +1 @@\n-a\n+b\n").string();
    EXPECT_EQ(runBrim({"--language", named}).out, named + ": C / C++ / Objective-C  (content says Diff / Patch)\n");
}

TEST(LanguageCommand, looksThroughGzip) {
    testing::TemporaryFolder folder;
    std::string python = "import os\nimport sys\n\nclass Reader(object):\n    def __init__(self, path):\n"
                         "        self.path = path\n\n    def lines(self):\n        with open(self.path) as f:\n"
                         "            return [l.rstrip() for l in f]\n\nif __name__ == '__main__':\n"
                         "    print(Reader(sys.argv[1]).lines())\n";
    const auto plain = folder.write("reader", python);
    ASSERT_EQ(testing::runProcess("gzip", {"-k", plain.string()}).status, 0);
    const auto packed = (folder / "reader.gz").string();
    // The name says nothing once ".gz" is taken off; the unpacked text says Python.
    EXPECT_EQ(runBrim({"--language", packed}).out, packed + ": Python  (content says Python)\n");
    std::filesystem::rename(packed, folder / "reader.py.gz");
    const auto named = (folder / "reader.py.gz").string();
    EXPECT_EQ(runBrim({"--language", named}).out, named + ": Python  (content says Python)\n");
    // A damaged stream gives what could be unpacked, never a crash.
    auto bytes = testing::readFile(named);
    bytes.resize(bytes.size() / 2);
    const auto cut = folder.write("cut.py.gz", bytes).string();
    const auto result = runBrim({"--language", cut});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with(cut + ": Python  (content says ")) << result.out;
}

} // namespace
} // namespace brim
