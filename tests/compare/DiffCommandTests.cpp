// `brim --diff` and `brim --blame`, run as processes against real repositories.
#include "compare/GitTestRepository.h"
#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sstream>

namespace brim {
namespace {

using testing::GitTestRepository;
using testing::runBrim;

class TerminalCommandTest : public ::testing::Test {
protected:
    void SetUp() override { testing::isolateGitConfiguration(); }

    static testing::ProcessResult brimIn(const std::filesystem::path& folder, const std::vector<std::string>& arguments) {
        testing::ProcessOptions options;
        options.workingFolder = folder;
        options.timeoutSeconds = 60;
        return runBrim(arguments, options);
    }
};

/// What `--blame` should print, worked out from `git blame --line-porcelain` on its own.
std::string blameFromGit(const GitTestRepository& repository, const std::string& path) {
    const auto porcelain = repository.git({"blame", "--line-porcelain", "--", path}).out;
    std::istringstream in(porcelain);
    std::string expected;
    std::string commit;
    std::string author;
    std::string summary;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("\t")) {
            expected += std::to_string(++number) + "\t" + commit.substr(0, 8) + "\t" + author + "\t" + summary + "\n";
        } else if (line.starts_with("author ")) {
            author = line.substr(7);
        } else if (line.starts_with("summary ")) {
            summary = line.substr(8);
        } else if (line.size() > 40 && line[40] == ' ' && line.find_first_not_of("0123456789abcdef") == 40) {
            commit = line.substr(0, 40);
        }
    }
    return expected;
}

TEST_F(TerminalCommandTest, diffPrintsThePatchAgainstHead) {
    GitTestRepository repository;
    std::string original;
    for (int i = 1; i <= 30; ++i) original += "line " + std::to_string(i) + "\n";
    repository.write("src/main.swift", original);
    repository.write("clean.txt", "untouched\n");
    repository.commit("first");
    std::string edited = original;
    edited.replace(edited.find("line 4\n"), 7, "line four\nline 4.5\n");
    edited.replace(edited.find("line 20\n"), 8, "");
    edited.pop_back();   // and no newline at the end any more
    repository.write("src/main.swift", edited);

    const auto result = brimIn(repository / "src", {"--diff", "main.swift"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    ASSERT_TRUE(result.out.starts_with("--- a/src/main.swift\n+++ b/src/main.swift\n@@ ")) << result.out;
    // The same hunks as git's own, and a patch that turns HEAD's text into the file.
    const auto git = repository.git({"diff", "--no-color", "src/main.swift"}).out;
    EXPECT_EQ(result.out.substr(result.out.find("@@ ")), git.substr(git.find("@@ ")));
    EXPECT_EQ(testing::applyPatch("src/main.swift", original, result.out), edited);

    const auto clean = brimIn(repository.root(), {"--diff", "clean.txt"});
    EXPECT_EQ(clean.status, 0);
    EXPECT_EQ(clean.out, "");
}

TEST_F(TerminalCommandTest, diffSaysWhenThereIsNothingToCompareWith) {
    GitTestRepository repository;
    repository.write("tracked.txt", "a\n");
    repository.commit("first");
    repository.write("new.txt", "not committed\n");
    testing::TemporaryFolder outside;
    outside.write("loose.txt", "x\n");
    struct Case {
        std::filesystem::path folder;
        std::string typed;
    };
    const Case cases[] = {
        {repository.root(), "new.txt"},                  // no version in HEAD
        {repository.root(), "missing.txt"},              // no file at all
        {repository.root(), "."},                        // a folder
        {outside.path(), "loose.txt"},                   // outside any repository
        {outside.path(), (outside / "loose.txt").string()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.typed);
        const auto result = brimIn(c.folder, {"--diff", c.typed});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "brim: " + c.typed + " has no version in HEAD to compare with.\n");
    }

    // A corrupt repository has no HEAD version either, and says so at once.
    std::filesystem::remove_all(repository / ".git/objects");
    std::filesystem::create_directory(repository / ".git/objects");
    const auto corrupt = brimIn(repository.root(), {"--diff", "tracked.txt"});
    EXPECT_EQ(corrupt.status, 1);
    EXPECT_EQ(corrupt.err, "brim: tracked.txt has no version in HEAD to compare with.\n");
}

TEST_F(TerminalCommandTest, diffOfABinaryFileSaysOnlyThatItDiffers) {
    GitTestRepository repository;
    repository.write("image.bin", std::string("\x89PNG\0\0\x01", 7));
    repository.commit("first");
    repository.write("image.bin", std::string("\x89PNG\0\0\x02", 7));
    const auto result = brimIn(repository.root(), {"--diff", "image.bin"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Binary files a/image.bin and b/image.bin differ\n");
}

TEST_F(TerminalCommandTest, diffTreatsCRLFCheckoutsAsUnchanged) {
    GitTestRepository repository;
    repository.write("text.txt", "a\nb\nc\n");
    repository.commit("first");
    repository.write("text.txt", "a\r\nb\r\nC\r\n");
    const auto result = brimIn(repository.root(), {"--diff", "text.txt"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "--- a/text.txt\n+++ b/text.txt\n@@ -1,3 +1,3 @@\n a\n b\n-c\n+C\r\n");
}

TEST_F(TerminalCommandTest, blameMatchesGitLineForLine) {
    GitTestRepository repository;
    repository.write("notes.md", "# Notes\n\nfirst idea\n");
    repository.commit("Start the notes", "Ann Author <ann@example.com>");
    repository.write("notes.md", "# Notes\n\nfirst idea, better\nsecond idea\n");
    repository.commit("Improve: the first idea\twith a tab", "Bob Builder <bob@example.com>");
    repository.git({"mv", "notes.md", "ideas.md"});
    repository.commit("Rename", "Carol <carol@example.com>");
    repository.write("ideas.md", "# Ideas\n\nfirst idea, better\nsecond idea\nthird, unsaved\n");

    const auto result = brimIn(repository.root(), {"--blame", "ideas.md"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, blameFromGit(repository, "ideas.md"));
    EXPECT_NE(result.out.find("\tBob Builder\tImprove: the first idea\twith a tab\n"), std::string::npos);
    EXPECT_NE(result.out.find("3\t"), std::string::npos);
}

TEST_F(TerminalCommandTest, blameSaysWhenThereIsNone) {
    GitTestRepository repository;
    repository.write("tracked.txt", "a\n");
    repository.commit("first");
    repository.write("untracked.txt", "u\n");
    testing::TemporaryFolder outside;
    outside.write("loose.txt", "x\n");
    struct Case {
        std::filesystem::path folder;
        std::string typed;
    };
    const Case cases[] = {{repository.root(), "untracked.txt"}, {repository.root(), "missing.txt"}, {outside.path(), "loose.txt"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.typed);
        const auto result = brimIn(c.folder, {"--blame", c.typed});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "brim: no blame for that file\n");
    }
}

} // namespace
} // namespace brim
