#include "search/ProjectFiles.h"
#include "search/ProjectSearch.h"

#include "common/BrimError.h"
#include "common/SerialQueue.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

namespace brim {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> relativePaths(const ProjectFiles::Listing& listing) {
    std::vector<std::string> out;
    for (const auto& path : listing.paths) out.push_back(fs::path(path).lexically_relative(listing.root).string());
    std::sort(out.begin(), out.end());
    return out;
}

/// Pumps the manual main queue until `done` or a deadline.
template <typename Condition>
bool pumpUntil(Condition done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        if (MainQueue::pump() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

TEST(ProjectFiles, aWalkSkipsHiddenFilesLinksAndDependencyFolders) {
    testing::TemporaryFolder folder;
    folder.write("README.md", "x");
    folder.write("src/main.c", "x");
    folder.write("src/deep/er/file.h", "x");
    folder.write(".env", "x");
    folder.write(".config/settings", "x");
    folder.write("node_modules/lib/index.js", "x");
    folder.write("build/out.o", "x");
    folder.write("src/target/kept-no/more.txt", "x");
    folder.write("vendorish/kept.txt", "x");
    fs::create_symlink(folder / "src", folder / "linked");
    fs::create_symlink(folder / "README.md", folder / "readme-link.md");
    const auto listing = ProjectFiles::list(folder.path());
    EXPECT_FALSE(listing.usedGit);
    EXPECT_FALSE(listing.isCapped);
    EXPECT_EQ(relativePaths(listing),
              (std::vector<std::string>{"README.md", "src/deep/er/file.h", "src/main.c", "vendorish/kept.txt"}));
    // Breadth first: the root's files come before those of its folders.
    EXPECT_EQ(fs::path(listing.paths.front()).filename(), "README.md");

    // Told along the way, a folder at a time, the paths are the listing's, in its order.
    std::vector<std::string> told;
    int tellings = 0;
    const auto again = ProjectFiles::list(folder.path(), {}, [&](std::span<const std::string> paths) {
        EXPECT_FALSE(paths.empty());
        told.insert(told.end(), paths.begin(), paths.end());
        ++tellings;
    });
    EXPECT_EQ(told, again.paths);
    EXPECT_EQ(tellings, 4);  // the root, src, vendorish, src/deep/er
}

TEST(ProjectFiles, aWalkStopsAtItsDepthAndItsCap) {
    testing::TemporaryFolder folder;
    std::string deep;
    for (int level = 0; level < 15; ++level) {
        deep += "d" + std::to_string(level) + "/";
        folder.write(deep + "f.txt", "x");
    }
    const auto listing = ProjectFiles::list(folder.path());
    // Folders down to depth 12 are opened (d0 is at depth 1); deeper ones are not.
    EXPECT_EQ(listing.paths.size(), 12U);
}

TEST(ProjectFiles, gitListsWhatGitKnowsAndAFailureFallsBackToTheWalk) {
    testing::TemporaryFolder folder;
    folder.write("a.txt", "x");
    folder.write("ignored.log", "x");
    folder.write("node_modules/kept-by-git.js", "x");
    fs::create_directories(folder / ".git");
    GitAccess git;
    git.listFiles = [](const fs::path&) { return std::optional<std::string>(std::string("a.txt\0node_modules/kept-by-git.js\0", 34)); };
    const auto listing = ProjectFiles::list(folder.path(), git);
    EXPECT_TRUE(listing.usedGit);
    EXPECT_EQ(relativePaths(listing), (std::vector<std::string>{"a.txt", "node_modules/kept-by-git.js"}));

    git.listFiles = [](const fs::path&) { return std::optional<std::string>(); };
    const auto walked = ProjectFiles::list(folder.path(), git);
    EXPECT_FALSE(walked.usedGit);
    EXPECT_EQ(relativePaths(walked), (std::vector<std::string>{"a.txt", "ignored.log"}));

    // Git's list stops at the cap too.
    std::string many;
    for (std::size_t i = 0; i < ProjectFiles::maxPaths + 5; ++i) many += "f" + std::to_string(i) + '\0';
    git.listFiles = [&many](const fs::path&) { return std::optional<std::string>(many); };
    std::size_t told = 0;
    const auto capped = ProjectFiles::list(folder.path(), git, [&](std::span<const std::string> paths) { told += paths.size(); });
    EXPECT_TRUE(capped.isCapped);
    EXPECT_EQ(capped.paths.size(), ProjectFiles::maxPaths);
    EXPECT_EQ(told, ProjectFiles::maxPaths);
}

TEST(ProjectFiles, theRootIsTheRepositoryOrTheFoldersOwn) {
    testing::TemporaryFolder folder;
    const auto file = folder.write("repo/sub/file.txt", "x");
    int asked = 0;
    GitAccess git;
    git.repositoryRoot = [&](const fs::path&) {
        ++asked;
        return std::optional<fs::path>(folder / "repo");
    };
    ProjectFiles projects(git);
    EXPECT_EQ(projects.root(file), folder / "repo");
    EXPECT_EQ(projects.root(folder / "repo/sub/other.txt"), folder / "repo");
    EXPECT_EQ(asked, 1);  // the answer for a folder is remembered
    ProjectFiles plain;
    EXPECT_EQ(plain.root(folder.path().string() + "/repo/./sub/../sub/file.txt"), folder / "repo/sub");
}

TEST(ProjectFiles, listingsArriveInTheBackgroundAndOnTheMainQueue) {
    testing::TemporaryFolder folder;
    const auto file = folder.write("one.txt", "x");
    folder.write("two.txt", "x");
    ProjectFiles projects;
    std::optional<ProjectFiles::Listing> arrived;
    projects.whenListed(file, "test", [&](const ProjectFiles::Listing& listing) { arrived = listing; });
    ASSERT_TRUE(pumpUntil([&] { return arrived.has_value(); }));
    EXPECT_EQ(arrived->paths.size(), 2U);
    const auto cached = projects.listing(file);
    ASSERT_TRUE(cached);
    EXPECT_EQ(cached->paths.size(), 2U);
}

TEST(FileFilter, globsMatchAsFoldersAndNamesSay) {
    struct Case {
        const char* pattern;
        const char* path;
        bool matches;
    };
    const Case cases[] = {
        {"*.swift", "Sources/Brim/UI/EditorView.swift", true},
        {"*.swift", "EditorView.swift", true},
        {"*.swift", "EditorView.swift.bak", false},
        {"Sources/**", "Sources/Brim/main.swift", true},
        {"Sources/**", "Tests/Sources.swift", false},
        {"**/Tests/**", "a/b/c/Tests/d/e.swift", true},
        {"**/Tests/**", "Tests/e.swift", true},
        {"Sources/*/main.swift", "Sources/Brim/main.swift", true},
        {"Sources/*/main.swift", "Sources/Brim/Deep/main.swift", false},
        {"file?.txt", "file1.txt", true},
        {"file?.txt", "file10.txt", false},
        {"**/*.md", "README.md", true},
        {"**/*.md", "docs/guide/intro.md", true},
        {"*.{js,ts}", "src/app.ts", true},
        {"*.{js,ts}", "src/app.tsx", false},
        {"src/{a,b{1,2}}/*.c", "src/b2/x.c", true},
        {"src/{a,b{1,2}}/*.c", "src/b3/x.c", false},
        // One backtrack point is not enough for this one.
        {"a/**/b/*.c", "a/x/b/y/b/z.c", true},
        {"*.C", "main.c", true},
        {"ÄRGER*", "ärger.txt", true},
        {"?.txt", "e\xCC\x81.txt", true},  // "é" as e and a combining accent is one character
        {"a*b*c*d", "aXbYcZd", true},
        {"a*b*c*d", "aXbYcZ", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " on " + c.path);
        EXPECT_EQ(FileFilter::match(c.pattern, c.path), c.matches);
    }
}

TEST(FileFilter, patternsSplitOnlyOutsideBracesAndFiltersCombine) {
    EXPECT_EQ(FileFilter::patterns(" *.{js,ts}, *.md  docs/**,,"), (std::vector<std::string>{"*.{js,ts}", "*.md", "docs/**"}));
    FileFilter filter{"*.{js,ts} *.md", "node_modules/** *.min.js"};
    EXPECT_FALSE(filter.isEmpty());
    EXPECT_TRUE(filter.matches("/p/src/app.ts", "/p"));
    EXPECT_TRUE(filter.matches("/p/README.md", "/p/"));
    EXPECT_FALSE(filter.matches("/p/src/app.min.js", "/p"));
    EXPECT_FALSE(filter.matches("/p/node_modules/x/y.js", "/p"));
    EXPECT_FALSE(filter.matches("/p/main.c", "/p"));
    // A path outside the root is matched whole.
    EXPECT_TRUE((FileFilter{"/elsewhere/**", ""}.matches("/elsewhere/x.c", "/p")));
    EXPECT_EQ(filter.summary(), "*.{js,ts} *.md  \xE2\x88\x92node_modules/**  \xE2\x88\x92*.min.js");
    EXPECT_TRUE((FileFilter{" , ", ""}).isEmpty());
    EXPECT_TRUE((FileFilter{}).matches("/p/anything", "/p"));
}

TEST(ProjectSearch, aFileGivesItsMatchesWithLinesOrTheReasonItGaveNone) {
    testing::TemporaryFolder folder;
    const auto notes = folder.write("notes.md", "first\nthe needle here\nand Needle there\n");
    SearchQuery query;
    query.pattern = "needle";
    const auto hit = ProjectSearch::search(notes, query);
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->total, 2);
    ASSERT_EQ(hit->results.size(), 2U);
    EXPECT_EQ(hit->results[0].line, 1);
    EXPECT_EQ(hit->results[0].text, "the needle here");
    EXPECT_EQ(hit->results[1].line, 2);
    EXPECT_EQ(hit->results[1].column, 4);
    EXPECT_EQ(hit->results[1].file, notes);

    query.isRegex = true;
    query.pattern = "n[e]+dle\\s+(here|there)";
    EXPECT_EQ(ProjectSearch::search(notes, query)->total, 2);

    using Status = ProjectSearch::FileOutcome::Status;
    SearchQuery plain;
    plain.pattern = "needle";
    EXPECT_FALSE(ProjectSearch::search(folder.write("none.txt", "nothing\n"), plain));
    EXPECT_EQ(ProjectSearch::examine(folder.write("none.txt", "nothing\n"), plain).status, Status::searched);
    EXPECT_EQ(ProjectSearch::examine(folder.write("binary.dat", std::string("needle\0x", 8)), plain).status, Status::skipped);
    EXPECT_FALSE(ProjectSearch::isProbablyText(folder / "binary.dat"));
    EXPECT_EQ(ProjectSearch::examine(folder / "missing.txt", plain).status, Status::skipped);
    EXPECT_EQ(ProjectSearch::examine(folder.write("empty.txt", ""), plain).status, Status::skipped);
    EXPECT_EQ(ProjectSearch::examine(folder.path(), plain).status, Status::skipped);
    const auto locked = folder.write("locked.txt", "needle");
    ::chmod(locked.c_str(), 0);
    if (::geteuid() != 0) {
        EXPECT_EQ(ProjectSearch::examine(locked, plain).status, Status::unreadable);
    }
    // A NUL after the first 8 KiB does not make a file binary; a file over 8 MiB is not searched.
    EXPECT_TRUE(ProjectSearch::search(folder.write("late.txt", std::string(9'000, 'x') + '\0' + "needle"), plain));
    EXPECT_EQ(ProjectSearch::examine(folder.write("huge.txt", std::string(8'388'609, 'x')), plain).status, Status::skipped);
    // A bad expression gives nothing from search, and throws from examine.
    SearchQuery bad;
    bad.pattern = "(";
    bad.isRegex = true;
    EXPECT_FALSE(ProjectSearch::search(notes, bad));
    EXPECT_THROW((void)ProjectSearch::examine(notes, bad), BrimError);
}

TEST(ProjectSearch, aRunReportsBatchesAndAnOutcome) {
    testing::TemporaryFolder folder;
    std::vector<std::string> paths = {folder.write("a.txt", "alpha needle\nneedle\n").string(),
                                      folder.write("b.txt", "nothing\n").string(),
                                      folder.write("c.txt", "one needle\n").string(),
                                      (folder / "gone.txt").string()};
    ProjectSearch search;
    SearchQuery query;
    query.pattern = "needle";
    std::vector<ProjectSearch::FileHit> hits;
    std::optional<ProjectSearch::Outcome> outcome;
    search.run(paths, query, [&](std::vector<ProjectSearch::FileHit> batch) {
        for (auto& hit : batch) hits.push_back(std::move(hit));
    }, {}, [&](const ProjectSearch::Outcome& o) { outcome = o; });
    ASSERT_TRUE(pumpUntil([&] { return outcome.has_value(); }));
    EXPECT_EQ(outcome->files, 2);
    EXPECT_EQ(outcome->matches, 3);
    EXPECT_EQ(outcome->searched, 4);
    EXPECT_FALSE(outcome->wasCancelled);
    EXPECT_FALSE(outcome->stoppedAtLimit);
    ASSERT_EQ(hits.size(), 2U);
    EXPECT_EQ(hits[0].url, paths[0]);
    EXPECT_FALSE(search.isRunning());

    // A run stopped while it goes finishes as cancelled; one replaced says nothing. The list is long
    // (the same files many times over), so the run cannot be over before it is stopped.
    std::vector<std::string> many;
    for (int i = 0; i < 5'000; ++i) many.insert(many.end(), paths.begin(), paths.end());
    std::optional<ProjectSearch::Outcome> replaced;
    std::optional<ProjectSearch::Outcome> stopped;
    search.run(many, query, {}, {}, [&](const ProjectSearch::Outcome& o) { replaced = o; });
    search.run(many, query, {}, {}, [&](const ProjectSearch::Outcome& o) { stopped = o; });
    search.stop();
    ASSERT_TRUE(pumpUntil([&] { return stopped.has_value(); }));
    EXPECT_TRUE(stopped->wasCancelled);
    EXPECT_FALSE(replaced.has_value());
}

} // namespace
} // namespace brim
