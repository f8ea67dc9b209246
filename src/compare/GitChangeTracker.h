#pragma once

#include "compare/ConcurrentQueue.h"
#include "compare/Git.h"
#include "compare/GitHunk.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brim {

/// What a change tracker needs of its document: the text document implements this. Every call is
/// made on the main thread.
class TrackedDocument {
public:
    virtual ~TrackedDocument() = default;

    /// The file the document was opened from or saved to; none for a document without a file.
    [[nodiscard]] virtual std::optional<std::filesystem::path> fileURL() const = 0;
    /// The size of the current text in bytes.
    [[nodiscard]] virtual std::int64_t byteCount() const = 0;
    /// A copy of the current text, to be hashed away from the main thread.
    [[nodiscard]] virtual std::vector<std::uint8_t> snapshot() const = 0;
    /// Raised by every edit.
    [[nodiscard]] virtual std::uint64_t editGeneration() const = 0;
    /// Bytes from the repository (or the file) as the document would hold them: decoded from the
    /// file's encoding, encoded in the document's, line endings made the document's, so that a text
    /// that differs only in those shows no change. The default keeps the bytes as they are.
    [[nodiscard]] virtual std::vector<std::uint8_t> asBuffer(std::vector<std::uint8_t> bytes) const { return bytes; }
};

/// One edit as a change tracker hears of it: the old lines [firstLine, firstLine + removedLines)
/// became `insertedLines` new lines. Typing within line 5 is {5, 1, 1}; a new line after it is
/// {5, 1, 2}. `lines` is unset when the edit gives no line facts (the whole text was replaced).
struct TrackedChange {
    struct Lines {
        std::int64_t firstLine = 0;
        std::int64_t removedLines = 0;
        std::int64_t insertedLines = 0;
    };
    std::optional<Lines> lines;
};

/// The change marks of one document against HEAD, its branch and its blame, kept up to date in the
/// background: edits schedule a diff 0.4 seconds later, the diff runs on the git queue over hashes
/// of a copy of the text, and its result is applied on the main thread only if nothing has been
/// edited since. Without a repository the marks show what changed since the text was opened or
/// saved. Every member is used on the main thread only; failures leave the marks empty, silently.
class GitChangeTracker {
public:
    /// Cancels a delayed call that has not run yet.
    using Cancel = std::function<void()>;

    struct Options {
        /// Where git and the diffs run; `Git::queue()` when unset.
        ConcurrentQueue* queue = nullptr;
        /// Carries work to the main thread; `MainQueue::post` when unset.
        std::function<void(std::function<void()>)> postToMain;
        /// Runs work on the main thread after a delay; when unset, a timer thread posts it through
        /// `postToMain`.
        std::function<Cancel(std::chrono::milliseconds, std::function<void()>)> scheduleOnMain;
        /// The "showGitChanges" preference; on when unset.
        std::function<bool()> showGitChanges;
        /// The clock for the 5-second repository check; `steady_clock` when unset.
        std::function<std::chrono::steady_clock::time_point()> now;
    };

    /// Documents above this size are not diffed at all.
    static constexpr std::int64_t diffLimit = 8'388'608;
    static constexpr std::chrono::milliseconds debounceDelay{400};
    static constexpr std::chrono::seconds repositoryCheckInterval{5};
    static constexpr std::size_t blameLineLimit = 50'000;

    /// Starts tracking `document`, which must outlive the tracker, and looks for its repository.
    GitChangeTracker(TrackedDocument& document, Options options);
    explicit GitChangeTracker(TrackedDocument& document);
    ~GitChangeTracker();
    GitChangeTracker(const GitChangeTracker&) = delete;
    GitChangeTracker& operator=(const GitChangeTracker&) = delete;

    // What the tracker knows, as last published on the main thread.
    [[nodiscard]] const std::vector<GitHunk>& hunks() const { return hunks_; }
    [[nodiscard]] const std::optional<std::string>& branch() const { return branch_; }
    [[nodiscard]] const std::optional<std::filesystem::path>& repositoryRoot() const { return repositoryRoot_; }
    [[nodiscard]] bool isTracked() const { return isTracked_; }
    [[nodiscard]] bool isTooLarge() const { return isTooLarge_; }
    [[nodiscard]] bool comparesWithSaved() const { return comparesWithSaved_; }
    /// Lines that differ from the text as opened or saved and are not covered by a hunk against HEAD.
    [[nodiscard]] const std::vector<std::int64_t>& savedChangeLines() const { return savedChangeLines_; }
    /// One entry per document line once blame has been asked for; empty until then.
    [[nodiscard]] const std::vector<Git::BlameLine>& blame() const { return blame_; }
    [[nodiscard]] const std::vector<std::uint8_t>& headBytes() const { return *headBytes_; }
    [[nodiscard]] const std::vector<std::uint64_t>& headHashes() const { return *headHashes_; }
    /// The document edit generation that `hunks` describe.
    [[nodiscard]] std::optional<std::uint64_t> diffedGeneration() const { return diffedGeneration_; }

    /// Called on the main thread after anything changed.
    std::function<void(GitChangeTracker&)> onChange;

    /// Whether blame is wanted; turning it on fetches it.
    [[nodiscard]] bool wantsBlame() const { return wantsBlame_; }
    void setWantsBlame(bool wanted);

    /// Looks for the repository, branch and HEAD version again; unless `force`, at most every 5
    /// seconds (in between it only schedules a diff).
    void refreshRepository(bool force);
    /// Diffs 0.4 seconds from now, replacing a diff scheduled before.
    void scheduleDiff();
    /// Starts a diff of the current text now.
    void diffNow();
    /// Fetches blame for the file, when wanted and in a repository.
    void refreshBlame();
    /// Forgets everything and says so.
    void clear();

    /// Tells the tracker of an edit: blame and the marks below the edit move with it at once, and a
    /// diff is scheduled.
    void documentDidChange(const TrackedChange& change);
    /// Tells the tracker the text as just opened or saved, the base of `savedChangeLines`.
    void documentWasSaved(std::span<const std::uint8_t> bytes);

    /// The hunk on `line`; a removal answers for the line it sits above.
    [[nodiscard]] std::optional<GitHunk> hunkAt(std::int64_t line) const;
    /// The first hunk that starts below `line`, none past the last.
    [[nodiscard]] std::optional<GitHunk> nextHunk(std::int64_t line) const;
    /// The last hunk that starts above `line`, none before the first.
    [[nodiscard]] std::optional<GitHunk> previousHunk(std::int64_t line) const;
    /// The HEAD text of a hunk's `oldLines`, each line followed by LF, decoded with repair.
    [[nodiscard]] std::string headText(const GitHunk& hunk) const;

private:
    struct RepositoryFacts;
    struct DiffResult;

    using MainPoster = std::function<void(std::function<void()>)>;
    [[nodiscard]] MainPoster mainPoster() const;
    void apply(std::uint64_t generation, RepositoryFacts facts);
    void applyDiff(std::uint64_t generation, std::uint64_t editGeneration, DiffResult result);
    void shiftBlame(const TrackedChange& change);
    void shiftHunks(const TrackedChange::Lines& lines);
    void setHead(std::vector<std::uint8_t> bytes);
    void changed();
    [[nodiscard]] bool showsChanges() const;

    TrackedDocument& document_;
    Options options_;
    ConcurrentQueue& queue_;
    /// Held by the tracker alone; work in flight keeps a weak reference and drops its result once
    /// the tracker is gone.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);

    std::vector<GitHunk> hunks_;
    std::optional<std::string> branch_;
    std::optional<std::filesystem::path> repositoryRoot_;
    std::optional<std::string> relativePath_;
    bool isTracked_ = false;
    bool isTooLarge_ = false;
    bool comparesWithSaved_ = false;
    bool wantsBlame_ = false;
    std::vector<std::int64_t> savedChangeLines_;
    std::vector<Git::BlameLine> blame_;
    std::shared_ptr<const std::vector<std::uint64_t>> openedHashes_;
    std::shared_ptr<const std::vector<std::uint8_t>> headBytes_;
    std::shared_ptr<const std::vector<std::uint64_t>> headHashes_;
    std::uint64_t generation_ = 0;
    std::uint64_t blameGeneration_ = 0;
    std::optional<std::uint64_t> diffedGeneration_;
    Cancel debounce_;
    std::optional<std::chrono::steady_clock::time_point> lastRepositoryCheck_;
};

} // namespace brim
