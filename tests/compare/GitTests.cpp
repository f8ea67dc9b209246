#include "compare/Git.h"

#include "compare/GitTestRepository.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace brim {
namespace {

using namespace std::chrono_literals;
using testing::GitTestRepository;

std::string text(const std::optional<std::vector<std::uint8_t>>& bytes) {
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string("<none>");
}

class GitTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::isolateGitConfiguration();
        Git::forgetBranches();
    }
    void TearDown() override { Git::setExecutable(std::nullopt, true); }
};

TEST_F(GitTest, findsTheRepositoryRootByWalkingUp) {
    GitTestRepository repository;
    repository.write("src/deep/er/file.txt", "x\n");
    const auto root = std::filesystem::canonical(repository.root());
    EXPECT_EQ(Git::repositoryRoot(repository / "src/deep/er/file.txt"), root);
    EXPECT_EQ(Git::repositoryRoot(repository / "src/deep"), root);
    EXPECT_EQ(Git::repositoryRoot(repository / "src/not-yet-there.txt"), root);
    EXPECT_EQ(Git::repositoryRoot(repository.root()), root);

    testing::TemporaryFolder outside;
    outside.write("loose.txt", "x\n");
    EXPECT_EQ(Git::repositoryRoot(outside / "loose.txt"), std::nullopt);

    // A linked worktree or submodule has a ".git" file, not a folder.
    outside.write("worktree/.git", "gitdir: /somewhere/else\n");
    outside.write("worktree/a/b.txt", "x\n");
    EXPECT_EQ(Git::repositoryRoot(outside / "worktree/a/b.txt"), std::filesystem::canonical(outside / "worktree"));
}

TEST_F(GitTest, relativePathsResolveSymbolicLinks) {
    GitTestRepository repository;
    const auto file = repository.write("folder/name with blanks.txt", "x\n");
    EXPECT_EQ(Git::relativePath(file, repository.root()), "folder/name with blanks.txt");
    EXPECT_EQ(Git::relativePath(repository.root(), repository.root()), std::nullopt);

    testing::TemporaryFolder links;
    std::filesystem::create_directory_symlink(repository.root(), links / "link");
    EXPECT_EQ(Git::relativePath(links / "link/folder/name with blanks.txt", repository.root()),
              "folder/name with blanks.txt");
    EXPECT_EQ(Git::relativePath(file, links / "link"), "folder/name with blanks.txt");
    EXPECT_EQ(Git::relativePath(links / "elsewhere.txt", repository.root()), std::nullopt);
    // A sibling whose name starts like the root's is not inside it.
    EXPECT_EQ(Git::relativePath(repository.root().string() + "-sibling/x.txt", repository.root()), std::nullopt);
}

TEST_F(GitTest, headBlobIsTheCommittedVersion) {
    GitTestRepository repository;
    repository.write("a.txt", "one\ntwo\n");
    repository.write("sub/dir/b c.txt", "bee\n");
    repository.write("crlf.txt", "x\r\ny\r\n");
    repository.commit("first");
    repository.write("a.txt", "one\nTWO\nthree\n");
    repository.write("new.txt", "untracked\n");

    EXPECT_EQ(text(Git::headBlob("a.txt", repository.root())), "one\ntwo\n");
    EXPECT_EQ(text(Git::headBlob("sub/dir/b c.txt", repository.root())), "bee\n");
    EXPECT_EQ(text(Git::headBlob("crlf.txt", repository.root())), "x\r\ny\r\n");   // raw bytes
    EXPECT_EQ(Git::headBlob("new.txt", repository.root()), std::nullopt);
    EXPECT_EQ(Git::headBlob("missing.txt", repository.root()), std::nullopt);
    EXPECT_EQ(Git::headBlob("", repository.root()), std::nullopt);

    EXPECT_TRUE(Git::isTracked("a.txt", repository.root()));
    EXPECT_FALSE(Git::isTracked("new.txt", repository.root()));
    EXPECT_TRUE(Git::revisionExists("HEAD", repository.root()));
    EXPECT_FALSE(Git::revisionExists("no-such-branch", repository.root()));

    const std::string second = repository.commit("second");
    EXPECT_EQ(text(Git::blob("a.txt", "HEAD~1", repository.root())), "one\ntwo\n");
    EXPECT_EQ(text(Git::blob("a.txt", second, repository.root())), "one\nTWO\nthree\n");
    EXPECT_EQ(text(Git::headBlob("new.txt", repository.root())), "untracked\n");
}

TEST_F(GitTest, aHeadVersionOverTheLimitIsNoVersion) {
    GitTestRepository repository;
    std::string big(16 * 1'048'576 + 10, 'x');
    for (std::size_t i = 100; i < big.size(); i += 100) big[i] = '\n';
    repository.write("big.txt", big);
    repository.write("exact.txt", std::string(16 * 1'048'576 - 1, 'y'));
    repository.commit("big files");
    EXPECT_EQ(Git::headBlob("big.txt", repository.root()), std::nullopt);
    const auto exact = Git::headBlob("exact.txt", repository.root());
    ASSERT_TRUE(exact.has_value());
    EXPECT_EQ(exact->size(), 16u * 1'048'576 - 1);
}

TEST_F(GitTest, branchNamesDetachedHeadsAndUnbornBranches) {
    GitTestRepository repository;
    EXPECT_EQ(Git::readBranch(repository.root()), "main");   // no commit yet
    repository.write("a.txt", "a\n");
    const std::string first = repository.commit("first");
    EXPECT_EQ(Git::readBranch(repository.root()), "main");
    repository.git({"checkout", "-q", "-b", "feature/x"});
    EXPECT_EQ(Git::readBranch(repository.root()), "feature/x");
    repository.git({"checkout", "-q", "--detach", "HEAD"});
    const auto detached = Git::readBranch(repository.root());
    ASSERT_TRUE(detached.has_value());
    EXPECT_GE(detached->size(), 7u);
    EXPECT_TRUE(first.starts_with(*detached));

    testing::TemporaryFolder outside;
    EXPECT_EQ(Git::readBranch(outside.path()), std::nullopt);
}

TEST_F(GitTest, branchesAreRememberedForTwoSecondsUnlessAskedFresh) {
    GitTestRepository repository;
    repository.write("a.txt", "a\n");
    repository.commit("first");
    EXPECT_EQ(Git::branch(repository.root(), false), "main");
    repository.git({"checkout", "-q", "-b", "other"});
    EXPECT_EQ(Git::branch(repository.root(), false), "main");   // remembered
    EXPECT_EQ(Git::branch(repository.root(), true), "other");   // read again, and remembered
    EXPECT_EQ(Git::branch(repository.root(), false), "other");
}

TEST_F(GitTest, blameGivesCommitAuthorAndSummaryPerLine) {
    GitTestRepository repository;
    repository.write("file.txt", "one\ntwo\nthree\n");
    const std::string first = repository.commit("First version", "Ann Author <ann@example.com>");
    repository.write("file.txt", "one\nTWO\nthree\nfour\n");
    const std::string second = repository.commit("Second version", "Bob Builder <bob@example.com>");

    const auto lines = Git::blameFile("file.txt", repository.root(), 50'000);
    ASSERT_TRUE(lines.has_value());
    ASSERT_EQ(lines->size(), 4u);
    const std::string expectedCommits[] = {first, second, first, second};
    const std::string expectedAuthors[] = {"Ann Author", "Bob Builder", "Ann Author", "Bob Builder"};
    for (std::size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ((*lines)[i].commit, expectedCommits[i]);
        EXPECT_EQ((*lines)[i].author, expectedAuthors[i]);
        EXPECT_EQ((*lines)[i].summary, i % 2 == 0 ? "First version" : "Second version");
        ASSERT_TRUE((*lines)[i].date.has_value());
        EXPECT_GT((*lines)[i].date->time_since_epoch().count(), 1'600'000'000);
    }
    EXPECT_EQ(Git::blameFile("file.txt", repository.root(), 2)->size(), 2u);

    const auto single = Git::blame("file.txt", 1, repository.root());
    ASSERT_TRUE(single.has_value());
    EXPECT_EQ(single->commit, second);
    EXPECT_EQ(single->author, "Bob Builder");
    EXPECT_EQ(Git::blame("file.txt", 99, repository.root()), std::nullopt);

    // Edited since: those lines are in no commit yet.
    repository.write("file.txt", "one\nTWO\nthree!\nfour\n");
    const auto edited = Git::blameFile("file.txt", repository.root(), 50'000);
    ASSERT_TRUE(edited.has_value());
    ASSERT_EQ(edited->size(), 4u);
    EXPECT_TRUE((*edited)[2].isUncommitted());
    EXPECT_FALSE((*edited)[1].isUncommitted());

    repository.write("untracked.txt", "u\n");
    EXPECT_EQ(Git::blameFile("untracked.txt", repository.root(), 50'000), std::nullopt);
}

TEST_F(GitTest, blameFollowsARename) {
    GitTestRepository repository;
    std::string content;
    for (int i = 0; i < 20; ++i) content += "line number " + std::to_string(i) + " with enough text to be similar\n";
    repository.write("old-name.txt", content);
    const std::string first = repository.commit("Add the file");
    repository.git({"mv", "old-name.txt", "new-name.txt"});
    repository.commit("Rename it");
    repository.write("new-name.txt", content + "appended\n");
    const std::string third = repository.commit("Append", "Carol <carol@example.com>");

    const auto lines = Git::blameFile("new-name.txt", repository.root(), 50'000);
    ASSERT_TRUE(lines.has_value());
    ASSERT_EQ(lines->size(), 21u);
    for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ((*lines)[i].commit, first) << i;
    EXPECT_EQ((*lines)[20].commit, third);
    EXPECT_EQ((*lines)[20].author, "Carol");
}

TEST_F(GitTest, blameReadsSHA256Repositories) {
    testing::TemporaryFolder folder;
    const auto probe = testing::runGit(folder.path(), {"init", "-q", "--object-format=sha256", "repo"}, -1);
    if (probe.status != 0) GTEST_SKIP() << "this git makes no SHA-256 repositories: " << probe.err;
    const auto root = folder / "repo";
    testing::runGit(root, {"config", "user.name", "Test User"});
    testing::runGit(root, {"config", "user.email", "test@example.com"});
    folder.write("repo/f.txt", "alpha\nbeta\n");
    testing::runGit(root, {"add", "f.txt"});
    testing::runGit(root, {"commit", "-q", "-m", "Long hashes", "--author", "Dee <dee@example.com>"});
    const auto lines = Git::blameFile("f.txt", root, 50'000);
    ASSERT_TRUE(lines.has_value());
    ASSERT_EQ(lines->size(), 2u);
    EXPECT_EQ((*lines)[0].commit.size(), 64u);
    EXPECT_EQ((*lines)[1].author, "Dee");
    EXPECT_EQ((*lines)[1].summary, "Long hashes");
}

TEST(GitPorcelain, parsesRecordsAndRemembersCommitDetails) {
    const std::string a(40, 'a');
    const std::string b(64, 'b');
    const std::string text = a + " 1 1 2\nauthor Ann\nauthor-mail <a@x>\nauthor-time 1700000000\nauthor-tz +0000\n"
                                 "summary First\nfilename f\n\tline one\n" +
                             a + " 2 2\n\tline two\n" + b +
                             " 5 3 1\nauthor Bob\nauthor-time notanumber\nsummary Second\nprevious " + a +
                             " f\nfilename f\n\tauthor Zed\n" +
                             "garbage line\n" + a + " 3 4\n\t" + "\n";
    const auto lines = Git::parsePorcelain(text, 100);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], (Git::BlameLine{a, "Ann", std::chrono::sys_seconds(1'700'000'000s), "First"}));
    EXPECT_EQ(lines[1], lines[0]);
    // A content line that looks like a header field is content all the same.
    EXPECT_EQ(lines[2], (Git::BlameLine{b, "Bob", std::nullopt, "Second"}));
    EXPECT_EQ(lines[3].author, "Ann");
    EXPECT_EQ(Git::parsePorcelain(text, 1).size(), 1u);
    EXPECT_TRUE(Git::parsePorcelain("not porcelain at all\n\tcontent\n", 10).empty());
}

TEST_F(GitTest, statusListsChangedStagedRenamedAndUntrackedFiles) {
    GitTestRepository repository;
    repository.write("kept.txt", "k\n");
    repository.write("changed.txt", "c\n");
    repository.write("moved.txt", "a file long enough to be seen as the same when renamed\n");
    repository.commit("first");
    repository.write("changed.txt", "c2\n");
    repository.write("new file.txt", "n\n");
    repository.git({"mv", "moved.txt", "renamed.txt"});
    const auto entries = Git::status(repository.root());
    ASSERT_TRUE(entries.has_value());
    EXPECT_THAT(*entries, ::testing::UnorderedElementsAre(
                              Git::StatusEntry{' ', 'M', "changed.txt", std::nullopt},
                              Git::StatusEntry{'?', '?', "new file.txt", std::nullopt},
                              Git::StatusEntry{'R', ' ', "renamed.txt", std::string("moved.txt")}));
    testing::TemporaryFolder outside;
    EXPECT_EQ(Git::status(outside.path()), std::nullopt);
}

TEST_F(GitTest, aBrokenRepositoryGivesNoAnswersAndALockChangesNothing) {
    GitTestRepository repository;
    repository.write("a.txt", "a\n");
    repository.commit("first");
    repository.write(".git/index.lock", "");
    EXPECT_EQ(text(Git::headBlob("a.txt", repository.root())), "a\n");
    EXPECT_TRUE(Git::blameFile("a.txt", repository.root(), 10).has_value());

    std::filesystem::remove_all(repository / ".git/objects");
    std::filesystem::create_directory(repository / ".git/objects");
    EXPECT_EQ(Git::headBlob("a.txt", repository.root()), std::nullopt);
    EXPECT_EQ(Git::blameFile("a.txt", repository.root(), 10), std::nullopt);
    EXPECT_EQ(Git::readBranch(repository.root()), "main");   // HEAD still names it
}

TEST_F(GitTest, withoutGitEverythingIsEmpty) {
    GitTestRepository repository;
    repository.write("a.txt", "a\n");
    repository.commit("first");
    Git::setExecutable(std::nullopt);
    EXPECT_EQ(Git::executable(), std::nullopt);
    EXPECT_EQ(Git::headBlob("a.txt", repository.root()), std::nullopt);
    EXPECT_EQ(Git::readBranch(repository.root()), std::nullopt);
    EXPECT_EQ(Git::blameFile("a.txt", repository.root(), 10), std::nullopt);
    // The walk needs no git.
    EXPECT_EQ(Git::repositoryRoot(repository / "a.txt"), std::filesystem::canonical(repository.root()));
    Git::setExecutable(std::nullopt, true);
    EXPECT_TRUE(Git::executable().has_value());
}

TEST_F(GitTest, runSetsTheEnvironmentAndStopsAtTheTimeLimit) {
    testing::TemporaryFolder folder;
    const auto script = folder.write("fake-git", "#!/bin/sh\n"
                                                 "printf '%s|%s|%s|%s|' \"$GIT_PAGER\" \"$GIT_TERMINAL_PROMPT\" \"$GIT_ASKPASS\" "
                                                 "\"${GIT_DIR-unset}\"\n"
                                                 "printf '%s ' \"$@\"; pwd\n"
                                                 "if [ \"$1\" = hang ]; then exec sleep 30; fi\n");
    ::chmod(script.c_str(), 0755);
    ::setenv("GIT_DIR", "/somewhere/wrong", 1);
    Git::setExecutable(script);
    const std::vector<std::string> arguments = {"show", "HEAD:./a b"};
    const auto output = Git::run(arguments, folder.path(), 5s, 1'000);
    ::unsetenv("GIT_DIR");
    ASSERT_TRUE(output.has_value());
    EXPECT_EQ(std::string(output->output.begin(), output->output.end()),
              "cat|0|/usr/bin/false|unset|show HEAD:./a b " + std::filesystem::canonical(folder.path()).string() + "\n");

    const auto started = std::chrono::steady_clock::now();
    const std::vector<std::string> hang = {"hang"};
    const auto timedOut = Git::run(hang, folder.path(), 200ms, 1'000);
    ASSERT_TRUE(timedOut.has_value());
    EXPECT_TRUE(timedOut->timedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);

    Git::setExecutable(folder / "no-such-git");
    EXPECT_EQ(Git::run(arguments, folder.path(), 5s, 1'000), std::nullopt);
}

TEST(ConcurrentQueue, runsAtMostItsWidthAtOnceAndDrains) {
    ConcurrentQueue queue("brim.test", 4);
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    std::atomic<int> done = 0;
    for (int i = 0; i < 24; ++i) {
        queue.async([&](const IsCancelled&) {
            const int now = ++running;
            int seen = most.load();
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(5ms);
            --running;
            ++done;
        });
    }
    queue.drain();
    EXPECT_EQ(done.load(), 24);
    EXPECT_LE(most.load(), 4);
    EXPECT_GE(most.load(), 2);
    EXPECT_EQ(Git::queue().width(), 4u);
    EXPECT_EQ(Git::queue().name(), "brim.git");
}

} // namespace
} // namespace brim
