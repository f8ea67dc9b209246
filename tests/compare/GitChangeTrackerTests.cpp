#include "compare/GitChangeTracker.h"

#include "compare/TrackedTextDocument.h"

#include "common/SerialQueue.h"
#include "compare/GitTestRepository.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <memory>

namespace brim {
namespace {

using Kind = GitHunk::Kind;
using testing::GitTestRepository;

/// A document as the tracker sees one: a file, a text and an edit generation.
class FakeDocument : public TrackedDocument {
public:
    std::optional<std::filesystem::path> file;
    std::string text;
    std::uint64_t generation = 1;
    std::optional<std::int64_t> reportedSize;

    std::optional<std::filesystem::path> fileURL() const override { return file; }
    std::int64_t byteCount() const override { return reportedSize.value_or(static_cast<std::int64_t>(text.size())); }
    std::vector<std::uint8_t> snapshot() const override { return {text.begin(), text.end()}; }
    std::uint64_t editGeneration() const override { return generation; }

    void edit(std::string newText) {
        text = std::move(newText);
        ++generation;
    }
};

/// Runs the tracker's world by hand: its own git queue, the manual main queue, and timers that fire
/// only when `settle` says so.
class TrackerHarness {
public:
    ConcurrentQueue queue{"brim.git.test", 4};
    std::chrono::steady_clock::time_point clock = std::chrono::steady_clock::now();
    int timersScheduled = 0;

    GitChangeTracker::Options options() {
        GitChangeTracker::Options options;
        options.queue = &queue;
        options.scheduleOnMain = [this](std::chrono::milliseconds, std::function<void()> work) {
            auto cancelled = std::make_shared<bool>(false);
            timers_.push_back({cancelled, std::move(work)});
            ++timersScheduled;
            return GitChangeTracker::Cancel([cancelled] { *cancelled = true; });
        };
        options.now = [this] { return clock; };
        options.showGitChanges = [this] { return showGitChanges; };
        return options;
    }

    bool showGitChanges = true;

    /// Runs background work, main-thread work and due timers until nothing is left.
    void settle() {
        for (int round = 0; round < 200; ++round) {
            queue.drain();
            bool ran = MainQueue::pump() > 0;
            auto due = std::move(timers_);
            timers_.clear();
            for (auto& [cancelled, work] : due) {
                if (!*cancelled) {
                    work();
                    ran = true;
                }
            }
            if (!ran) return;
        }
        FAIL() << "the tracker never settled";
    }

    /// Background work and main-thread work, but no timers.
    void runQueues() {
        queue.drain();
        MainQueue::pump();
    }

private:
    std::vector<std::pair<std::shared_ptr<bool>, std::function<void()>>> timers_;
};

std::string numberedLines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "line " + std::to_string(i) + "\n";
    return text;
}

class GitChangeTrackerTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::isolateGitConfiguration();
        Git::forgetBranches();
        MainQueue::pump();
    }
    TrackerHarness harness;
};

TEST_F(GitChangeTrackerTest, marksFollowEditsAgainstHead) {
    GitTestRepository repository;
    const auto file = repository.write("src/file.txt", numberedLines(10));
    repository.commit("ten lines");
    FakeDocument document;
    document.file = file;
    document.text = numberedLines(10);
    int changes = 0;
    GitChangeTracker tracker(document, harness.options());
    tracker.onChange = [&](GitChangeTracker&) { ++changes; };
    harness.settle();
    EXPECT_EQ(tracker.repositoryRoot(), std::filesystem::canonical(repository.root()));
    EXPECT_EQ(tracker.branch(), "main");
    EXPECT_TRUE(tracker.isTracked());
    EXPECT_FALSE(tracker.comparesWithSaved());
    EXPECT_TRUE(tracker.hunks().empty());
    EXPECT_EQ(tracker.diffedGeneration(), document.generation);

    std::string text = document.text;
    text.replace(text.find("line 3"), 6, "LINE 3");
    document.edit(text);
    tracker.documentDidChange({TrackedChange::Lines{3, 1, 1}});
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {3, 4}, {3, 4}}}));

    // A line typed above the mark moves it at once, before any diff has run.
    const int before = changes;
    document.edit("new first line\n" + document.text);
    tracker.documentDidChange({TrackedChange::Lines{0, 0, 1}});
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {4, 5}, {3, 4}}}));
    EXPECT_GT(changes, before);
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::added, {0, 1}, {0, 0}}, {Kind::modified, {4, 5}, {3, 4}}}));
    EXPECT_EQ(tracker.headText(tracker.hunks()[1]), "line 3\n");
    EXPECT_EQ(tracker.hunkAt(4), tracker.hunks()[1]);
    EXPECT_EQ(tracker.hunkAt(2), std::nullopt);
    EXPECT_EQ(tracker.nextHunk(0), tracker.hunks()[1]);
    EXPECT_EQ(tracker.nextHunk(4), std::nullopt);
    EXPECT_EQ(tracker.previousHunk(4), tracker.hunks()[0]);
    EXPECT_EQ(tracker.previousHunk(0), std::nullopt);

    // Deleting two lines: a removal, which answers for the line it sits above.
    text = document.text;
    text.erase(text.find("line 6"), std::string("line 6\nline 7\n").size());
    document.edit(text);
    tracker.documentDidChange({TrackedChange::Lines{7, 2, 0}});
    harness.settle();
    ASSERT_EQ(tracker.hunks().size(), 3u);
    EXPECT_EQ(tracker.hunks()[2], (GitHunk{Kind::removed, {7, 7}, {6, 8}}));
    EXPECT_EQ(tracker.hunkAt(7), tracker.hunks()[2]);
    EXPECT_EQ(tracker.headText(tracker.hunks()[2]), "line 6\nline 7\n");
}

TEST_F(GitChangeTrackerTest, anOpenTextDocumentsEditsMoveItsMarks) {
    GitTestRepository repository;
    const auto file = repository.write("notes.txt", numberedLines(10));
    repository.commit("ten lines");
    const auto document = TextDocument::open(file);
    TrackedTextDocument tracked(document);
    GitChangeTracker tracker(tracked, harness.options());
    const auto observer = tracked.observe(tracker);
    harness.settle();
    EXPECT_TRUE(tracker.isTracked());
    EXPECT_TRUE(tracker.hunks().empty());

    const std::string text = numberedLines(10);
    const auto at = static_cast<std::int64_t>(text.find("line 3"));
    document->replace({at, at + 6}, "LINE 3", at, at + 6);
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {3, 4}, {3, 4}}}));
    EXPECT_EQ(tracker.diffedGeneration(), tracked.editGeneration());

    // A line typed above moves the mark at once, before the next diff.
    document->replace({0, 0}, "new first line\n", 0, 15);
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {4, 5}, {3, 4}}}));
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::added, {0, 1}, {0, 0}}, {Kind::modified, {4, 5}, {3, 4}}}));

    // Undone, the text equals HEAD again and the marks go.
    document->undo();
    document->undo();
    harness.settle();
    EXPECT_TRUE(tracker.hunks().empty());
}

TEST_F(GitChangeTrackerTest, documentChangesReadAsTrackedLines) {
    DocumentChange typing;
    typing.oldLines = {5, 5};
    EXPECT_EQ(TrackedTextDocument::trackedChange(typing).lines->insertedLines, 1);
    DocumentChange newLine;
    newLine.oldLines = {5, 5};
    newLine.lineDelta = 1;
    const auto lines = *TrackedTextDocument::trackedChange(newLine).lines;
    EXPECT_EQ(lines.firstLine, 5);
    EXPECT_EQ(lines.removedLines, 1);
    EXPECT_EQ(lines.insertedLines, 2);
    DocumentChange joined;
    joined.oldLines = {2, 4};
    joined.lineDelta = -2;
    EXPECT_EQ(TrackedTextDocument::trackedChange(joined).lines->insertedLines, 1);
    EXPECT_FALSE(TrackedTextDocument::trackedChange(DocumentChange::wholesale()).lines);
}

TEST_F(GitChangeTrackerTest, aResultForATextThatMovedOnIsDropped) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", numberedLines(5));
    repository.commit("five lines");
    FakeDocument document;
    document.file = file;
    document.text = numberedLines(5);
    GitChangeTracker tracker(document, harness.options());
    harness.settle();

    document.edit("changed\n" + numberedLines(5).substr(7));
    tracker.diffNow();
    harness.queue.drain();                       // the diff of that text is done and posted...
    document.edit("changed\nagain\n" + numberedLines(5).substr(7));   // ...but the text moves on first
    const int timersBefore = harness.timersScheduled;
    MainQueue::pump();
    EXPECT_TRUE(tracker.hunks().empty()) << "marks of an older text were applied";
    EXPECT_GT(harness.timersScheduled, timersBefore) << "no new diff was scheduled";
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {0, 2}, {0, 1}}}));
    EXPECT_EQ(tracker.diffedGeneration(), document.generation);
}

TEST_F(GitChangeTrackerTest, filesNotInHeadAreAllAddedAndLineEndsAreNoChange) {
    GitTestRepository repository;
    repository.write("committed.txt", "a\nb\nc\n");
    repository.commit("first");
    const auto untracked = repository.write("untracked.txt", "x\ny\n");

    FakeDocument fresh;
    fresh.file = untracked;
    fresh.text = "x\ny\n";
    GitChangeTracker newFile(fresh, harness.options());
    harness.settle();
    EXPECT_FALSE(newFile.isTracked());
    EXPECT_EQ(newFile.hunks(), (std::vector<GitHunk>{{Kind::added, {0, 2}, {0, 0}}}));

    FakeDocument crlf;
    crlf.file = repository / "committed.txt";
    crlf.text = "a\r\nb\r\nc\r\n";
    GitChangeTracker sameText(crlf, harness.options());
    harness.settle();
    EXPECT_TRUE(sameText.isTracked());
    EXPECT_TRUE(sameText.hunks().empty());
}

TEST_F(GitChangeTrackerTest, withoutARepositoryTheBaseIsTheSavedText) {
    testing::TemporaryFolder folder;
    const auto file = folder.write("notes.txt", "one\ntwo\nthree\n");
    FakeDocument document;
    document.file = file;
    document.text = "one\ntwo\nthree\n";
    GitChangeTracker tracker(document, harness.options());
    harness.settle();
    EXPECT_EQ(tracker.repositoryRoot(), std::nullopt);
    EXPECT_TRUE(tracker.comparesWithSaved());
    EXPECT_TRUE(tracker.hunks().empty());

    document.edit("one\nTWO\nthree\n");
    tracker.documentDidChange({TrackedChange::Lines{1, 1, 1}});
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {1, 2}, {1, 2}}}));

    // Saved: the saved text is the new base.
    tracker.documentWasSaved(document.snapshot());
    harness.settle();
    EXPECT_TRUE(tracker.hunks().empty());
}

TEST_F(GitChangeTrackerTest, linesChangedSinceTheSaveAreMarkedApartFromHead) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", "a\nb\nc\nd\n");
    repository.commit("first");
    FakeDocument document;
    document.file = file;
    document.text = "a\nB\nc\nd\n";             // opened with an uncommitted change on line 1
    GitChangeTracker tracker(document, harness.options());
    tracker.documentWasSaved(document.snapshot());
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {1, 2}, {1, 2}}}));
    EXPECT_TRUE(tracker.savedChangeLines().empty());

    document.edit("a\nB\nc\nD\n");
    tracker.documentDidChange({TrackedChange::Lines{3, 1, 1}});
    harness.settle();
    // Line 3 differs from both; line 1 differs from HEAD only: only line 3 is "since saved" news
    // that HEAD's marks don't already show... and HEAD's marks show it too, so nothing is left.
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {1, 2}, {1, 2}}, {Kind::modified, {3, 4}, {3, 4}}}));
    EXPECT_TRUE(tracker.savedChangeLines().empty());

    // Going back to HEAD's line 1 is a change since the save that HEAD no longer marks.
    document.edit("a\nb\nc\nD\n");
    tracker.documentDidChange({TrackedChange::Lines{1, 1, 1}});
    harness.settle();
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {3, 4}, {3, 4}}}));
    EXPECT_EQ(tracker.savedChangeLines(), (std::vector<std::int64_t>{1}));
}

TEST_F(GitChangeTrackerTest, largeDocumentsAreNotDiffed) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", "a\n");
    repository.commit("first");
    FakeDocument document;
    document.file = file;
    document.text = "a\nb\n";
    GitChangeTracker tracker(document, harness.options());
    harness.settle();
    EXPECT_EQ(tracker.hunks().size(), 1u);
    document.reportedSize = GitChangeTracker::diffLimit + 1;
    document.edit("x\n");
    tracker.diffNow();
    harness.settle();
    EXPECT_TRUE(tracker.isTooLarge());
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::added, {1, 2}, {1, 1}}}));   // as they were
    document.reportedSize.reset();
    tracker.diffNow();
    harness.settle();
    EXPECT_FALSE(tracker.isTooLarge());
    EXPECT_EQ(tracker.hunks(), (std::vector<GitHunk>{{Kind::modified, {0, 1}, {0, 1}}}));
}

TEST_F(GitChangeTrackerTest, blameMovesWithEditsAndComesBackFromGit) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", "one\ntwo\n");
    const std::string first = repository.commit("First", "Ann Author <ann@example.com>");
    repository.write("file.txt", "one\ntwo\nthree\n");
    const std::string second = repository.commit("Second", "Bob Builder <bob@example.com>");
    FakeDocument document;
    document.file = file;
    document.text = "one\ntwo\nthree\n";
    GitChangeTracker tracker(document, harness.options());
    harness.settle();
    EXPECT_TRUE(tracker.blame().empty());
    tracker.setWantsBlame(true);
    harness.settle();
    ASSERT_EQ(tracker.blame().size(), 3u);
    EXPECT_EQ(tracker.blame()[0].commit, first);
    EXPECT_EQ(tracker.blame()[2].commit, second);
    EXPECT_EQ(tracker.blame()[2].author, "Bob Builder");

    // Editing line 1 makes it uncommitted at once; a line inserted above shifts what follows.
    document.edit("one\nTWO\nthree\n");
    tracker.documentDidChange({TrackedChange::Lines{1, 1, 1}});
    EXPECT_TRUE(tracker.blame()[1].isUncommitted());
    document.edit("zero\none\nTWO\nthree\n");
    tracker.documentDidChange({TrackedChange::Lines{0, 0, 1}});
    ASSERT_EQ(tracker.blame().size(), 4u);
    EXPECT_TRUE(tracker.blame()[0].isUncommitted());
    EXPECT_EQ(tracker.blame()[1].commit, first);
    EXPECT_EQ(tracker.blame()[3].commit, second);

    // Git's answer for the unsaved text agrees.
    tracker.refreshBlame();
    harness.settle();
    ASSERT_EQ(tracker.blame().size(), 4u);
    EXPECT_TRUE(tracker.blame()[0].isUncommitted());
    EXPECT_EQ(tracker.blame()[1].commit, first);
    EXPECT_TRUE(tracker.blame()[2].isUncommitted());
    EXPECT_EQ(tracker.blame()[3].commit, second);

    // A whole-text replacement carries no line facts: blame starts over.
    document.edit("replaced\n");
    tracker.documentDidChange({});
    harness.settle();
    ASSERT_EQ(tracker.blame().size(), 1u);
    EXPECT_TRUE(tracker.blame()[0].isUncommitted());
}

TEST_F(GitChangeTrackerTest, repositoryChecksAreRationedUnlessForced) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", "a\n");
    const std::string first = repository.commit("first");
    FakeDocument document;
    document.file = file;
    document.text = "a\n";
    GitChangeTracker tracker(document, harness.options());
    harness.settle();
    EXPECT_EQ(tracker.branch(), "main");

    repository.git({"checkout", "-q", "-b", "topic"});
    Git::forgetBranches();
    tracker.refreshRepository(false);   // within 5 seconds: only a diff
    harness.settle();
    EXPECT_EQ(tracker.branch(), "main");
    harness.clock += std::chrono::seconds(6);
    tracker.refreshRepository(false);
    harness.settle();
    EXPECT_EQ(tracker.branch(), "topic");

    repository.git({"checkout", "-q", "--detach", "HEAD"});
    tracker.refreshRepository(true);
    harness.settle();
    ASSERT_TRUE(tracker.branch().has_value());
    EXPECT_TRUE(first.starts_with(*tracker.branch()));
}

TEST_F(GitChangeTrackerTest, turningChangesOffOrLosingTheFileClearsEverything) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", "a\n");
    repository.commit("first");
    FakeDocument document;
    document.file = file;
    document.text = "b\n";
    GitChangeTracker tracker(document, harness.options());
    harness.settle();
    EXPECT_FALSE(tracker.hunks().empty());
    harness.showGitChanges = false;
    tracker.refreshRepository(true);
    EXPECT_TRUE(tracker.hunks().empty());
    EXPECT_EQ(tracker.repositoryRoot(), std::nullopt);
    tracker.diffNow();
    harness.settle();
    EXPECT_TRUE(tracker.hunks().empty());

    harness.showGitChanges = true;
    document.file.reset();
    tracker.refreshRepository(true);
    harness.settle();
    EXPECT_TRUE(tracker.hunks().empty());
    EXPECT_FALSE(tracker.comparesWithSaved());
}

TEST_F(GitChangeTrackerTest, workInFlightIsDroppedWhenTheTrackerGoes) {
    GitTestRepository repository;
    const auto file = repository.write("file.txt", "a\n");
    repository.commit("first");
    FakeDocument document;
    document.file = file;
    document.text = "b\n";
    int changes = 0;
    {
        GitChangeTracker tracker(document, harness.options());
        tracker.onChange = [&](GitChangeTracker&) { ++changes; };
        tracker.setWantsBlame(true);
        tracker.diffNow();
    }
    harness.settle();   // results arrive for a tracker that is gone: nothing runs
    EXPECT_EQ(changes, 0);
}

} // namespace
} // namespace brim
