#include "compare/GitChangeTracker.h"

#include "common/SerialQueue.h"
#include "compare/LineDiff.h"
#include "compare/UnifiedDiff.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <thread>

namespace brim {

namespace {

/// One thread that posts delayed work to the main thread when it is due, for the trackers' debounce
/// when the window supplies no timer of its own.
class DelayedPoster {
public:
    using Post = std::function<void(std::function<void()>)>;

    static DelayedPoster& shared() {
        static DelayedPoster poster;
        return poster;
    }

    GitChangeTracker::Cancel after(std::chrono::milliseconds delay, std::function<void()> work, Post post) {
        auto cancelled = std::make_shared<std::atomic<bool>>(false);
        {
            std::lock_guard guard(lock_);
            pending_.emplace(std::chrono::steady_clock::now() + delay, Entry{cancelled, std::move(work), std::move(post)});
        }
        wake_.notify_all();
        return [cancelled] { cancelled->store(true); };
    }

private:
    struct Entry {
        std::shared_ptr<std::atomic<bool>> cancelled;
        std::function<void()> work;
        Post post;
    };

    DelayedPoster() : thread_([this](const std::stop_token& stop) { run(stop); }) {}

    void run(const std::stop_token& stop) {
        std::unique_lock guard(lock_);
        while (!stop.stop_requested()) {
            if (pending_.empty()) {
                wake_.wait(guard, stop, [this] { return !pending_.empty(); });
                continue;
            }
            const auto due = pending_.begin()->first;
            if (std::chrono::steady_clock::now() < due) {
                wake_.wait_until(guard, stop, due, [this, due] { return !pending_.empty() && pending_.begin()->first < due; });
                continue;
            }
            Entry entry = std::move(pending_.begin()->second);
            pending_.erase(pending_.begin());
            if (entry.cancelled->load()) continue;
            guard.unlock();
            // Cancelling may still happen before the main thread gets to it: check again there.
            entry.post([cancelled = entry.cancelled, work = std::move(entry.work)] {
                if (!cancelled->load()) work();
            });
            guard.lock();
        }
    }

    std::mutex lock_;
    std::condition_variable_any wake_;
    std::multimap<std::chrono::steady_clock::time_point, Entry> pending_;   // guarded by lock_
    std::jthread thread_;
};

std::optional<std::vector<std::uint8_t>> readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return bytes;
}

/// The lines of `hunks`' new sides that are not `removed`, in order, without repeats.
std::vector<std::int64_t> changedLines(std::span<const GitHunk> hunks) {
    std::vector<std::int64_t> lines;
    for (const GitHunk& hunk : hunks) {
        if (hunk.kind == GitHunk::Kind::removed) continue;
        for (std::int64_t line = hunk.lines.lower; line < hunk.lines.upper; ++line) lines.push_back(line);
    }
    return lines;
}

} // namespace

struct GitChangeTracker::RepositoryFacts {
    std::optional<std::filesystem::path> root;
    std::optional<std::string> relativePath;
    std::optional<std::string> branch;
    std::optional<std::vector<std::uint8_t>> head;
    bool isTracked = false;
    /// Without a repository: the file's text, the base for changes since it was saved.
    std::optional<std::vector<std::uint8_t>> savedBytes;
};

struct GitChangeTracker::DiffResult {
    std::vector<GitHunk> hunks;
    std::vector<std::int64_t> savedChangeLines;
};

GitChangeTracker::GitChangeTracker(TrackedDocument& document, Options options)
    : document_(document), options_(std::move(options)), queue_(options_.queue != nullptr ? *options_.queue : Git::queue()),
      headBytes_(std::make_shared<const std::vector<std::uint8_t>>()),
      headHashes_(std::make_shared<const std::vector<std::uint64_t>>()) {
    if (!options_.postToMain) options_.postToMain = [](std::function<void()> work) { MainQueue::post(std::move(work)); };
    if (!options_.scheduleOnMain) {
        options_.scheduleOnMain = [post = options_.postToMain](std::chrono::milliseconds delay, std::function<void()> work) {
            return DelayedPoster::shared().after(delay, std::move(work), post);
        };
    }
    if (!options_.now) options_.now = [] { return std::chrono::steady_clock::now(); };
    refreshRepository(false);
}

GitChangeTracker::GitChangeTracker(TrackedDocument& document) : GitChangeTracker(document, Options()) {}

GitChangeTracker::~GitChangeTracker() {
    if (debounce_) debounce_();
}

bool GitChangeTracker::showsChanges() const { return !options_.showGitChanges || options_.showGitChanges(); }

GitChangeTracker::MainPoster GitChangeTracker::mainPoster() const {
    // The poster is a copy, so background work never touches the tracker itself; work that arrives
    // after the tracker has gone finds the weak reference expired and does nothing.
    return [post = options_.postToMain, weak = std::weak_ptr<int>(alive_)](std::function<void()> work) {
        post([weak, work = std::move(work)] {
            if (weak.lock()) work();
        });
    };
}

void GitChangeTracker::changed() {
    if (onChange) onChange(*this);
}

void GitChangeTracker::setWantsBlame(bool wanted) {
    if (wantsBlame_ == wanted) return;
    wantsBlame_ = wanted;
    if (wanted) {
        refreshBlame();
    } else if (!blame_.empty()) {
        blame_.clear();
        ++blameGeneration_;
        changed();
    }
}

void GitChangeTracker::refreshRepository(bool force) {
    const auto file = document_.fileURL();
    if (!showsChanges() || !file) {
        clear();
        return;
    }
    const auto now = options_.now();
    if (!force && lastRepositoryCheck_ && now - *lastRepositoryCheck_ < repositoryCheckInterval) {
        scheduleDiff();
        return;
    }
    lastRepositoryCheck_ = now;
    const std::uint64_t generation = ++generation_;
    queue_.async([this, generation, file = *file, force, post = mainPoster()](const IsCancelled& isCancelled) {
        if (isCancelled()) return;
        RepositoryFacts facts;
        facts.root = Git::repositoryRoot(file);
        if (facts.root) {
            facts.relativePath = Git::relativePath(file, *facts.root);
            facts.branch = Git::branch(*facts.root, force);
            if (facts.relativePath) {
                facts.head = Git::headBlob(*facts.relativePath, *facts.root);
                facts.isTracked = facts.head.has_value() || Git::isTracked(*facts.relativePath, *facts.root);
            }
        } else {
            facts.savedBytes = readWholeFile(file);
        }
        // `this` is only touched on the main thread, once the poster has seen that it still exists.
        post([this, generation, facts = std::move(facts)]() mutable { apply(generation, std::move(facts)); });
    });
}

void GitChangeTracker::setHead(std::vector<std::uint8_t> bytes) {
    auto hashes = LineDiff::lineHashes(bytes);
    headBytes_ = std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
    headHashes_ = std::make_shared<const std::vector<std::uint64_t>>(std::move(hashes));
}

void GitChangeTracker::apply(std::uint64_t generation, RepositoryFacts facts) {
    if (generation != generation_) return;   // a later refresh or diff is under way
    comparesWithSaved_ = false;
    repositoryRoot_ = facts.root;
    relativePath_ = facts.relativePath;
    branch_ = facts.branch;
    isTracked_ = facts.isTracked;
    // A file that is not in HEAD has no head: every line of it is added.
    setHead(facts.head ? document_.asBuffer(std::move(*facts.head)) : std::vector<std::uint8_t>());
    if (!repositoryRoot_) {
        hunks_.clear();
        blame_.clear();
        savedChangeLines_.clear();
        if (facts.savedBytes) {
            setHead(document_.asBuffer(std::move(*facts.savedBytes)));
            comparesWithSaved_ = true;
        }
    }
    changed();
    scheduleDiff();
    if (wantsBlame_ && repositoryRoot_) refreshBlame();
}

void GitChangeTracker::scheduleDiff() {
    if (debounce_) debounce_();
    debounce_ = options_.scheduleOnMain(debounceDelay, [this, weak = std::weak_ptr<int>(alive_)] {
        if (weak.lock()) diffNow();
    });
}

void GitChangeTracker::diffNow() {
    if (debounce_) {
        debounce_();
        debounce_ = nullptr;
    }
    if (!showsChanges() || (!repositoryRoot_ && !comparesWithSaved_)) return;
    if (document_.byteCount() > diffLimit) {
        // The marks stay as they were: a stale mark is better than a long stall.
        if (!isTooLarge_) {
            isTooLarge_ = true;
            changed();
        }
        return;
    }
    isTooLarge_ = false;
    const std::uint64_t generation = ++generation_;
    const std::uint64_t editGeneration = document_.editGeneration();
    queue_.async([this, generation, editGeneration, text = document_.snapshot(), head = headHashes_, opened = openedHashes_,
                  post = mainPoster()](const IsCancelled& isCancelled) {
        if (isCancelled()) return;
        const auto hashes = LineDiff::lineHashes(text);
        DiffResult result;
        result.hunks = LineDiff::hunks(*head, hashes);
        if (opened && *opened != *head) {
            // Changes since the save that HEAD's marks do not already show.
            const auto sinceSaved = changedLines(LineDiff::hunks(*opened, hashes));
            const auto sinceHead = changedLines(result.hunks);
            std::set_difference(sinceSaved.begin(), sinceSaved.end(), sinceHead.begin(), sinceHead.end(),
                                std::back_inserter(result.savedChangeLines));
        }
        post([this, generation, editGeneration, result = std::move(result)]() mutable {
            applyDiff(generation, editGeneration, std::move(result));
        });
    });
}

void GitChangeTracker::applyDiff(std::uint64_t generation, std::uint64_t editGeneration, DiffResult result) {
    if (generation != generation_) return;
    if (document_.editGeneration() != editGeneration) {
        // The text moved on while the diff ran: these marks describe a text that no longer exists.
        scheduleDiff();
        return;
    }
    diffedGeneration_ = editGeneration;
    if (result.hunks == hunks_ && result.savedChangeLines == savedChangeLines_) return;
    hunks_ = std::move(result.hunks);
    savedChangeLines_ = std::move(result.savedChangeLines);
    changed();
}

void GitChangeTracker::refreshBlame() {
    if (!wantsBlame_ || !repositoryRoot_ || !relativePath_) return;
    const std::uint64_t generation = ++blameGeneration_;
    queue_.async([this, generation, root = *repositoryRoot_, path = *relativePath_, text = document_.snapshot(),
                  post = mainPoster()](const IsCancelled& isCancelled) {
        if (isCancelled()) return;
        // Blame of the text as it stands in the editor, saved or not, so lines match the document.
        auto lines = Git::blameFile(path, root, blameLineLimit, std::span<const std::uint8_t>(text));
        post([this, generation, lines = std::move(lines)]() mutable {
            if (generation != blameGeneration_) return;
            blame_ = lines ? std::move(*lines) : std::vector<Git::BlameLine>();
            changed();
        });
    });
}

void GitChangeTracker::clear() {
    if (debounce_) {
        debounce_();
        debounce_ = nullptr;
    }
    ++generation_;
    ++blameGeneration_;
    hunks_.clear();
    blame_.clear();
    savedChangeLines_.clear();
    setHead({});
    repositoryRoot_.reset();
    relativePath_.reset();
    branch_.reset();
    isTracked_ = false;
    isTooLarge_ = false;
    comparesWithSaved_ = false;
    diffedGeneration_.reset();
    changed();
}

void GitChangeTracker::documentDidChange(const TrackedChange& change) {
    shiftBlame(change);
    if (change.lines) shiftHunks(*change.lines);
    scheduleDiff();
}

void GitChangeTracker::documentWasSaved(std::span<const std::uint8_t> bytes) {
    openedHashes_ = std::make_shared<const std::vector<std::uint64_t>>(LineDiff::lineHashes(bytes));
    if (comparesWithSaved_) setHead(document_.asBuffer({bytes.begin(), bytes.end()}));
    scheduleDiff();
}

void GitChangeTracker::shiftBlame(const TrackedChange& change) {
    if (blame_.empty()) return;
    if (!change.lines) {
        blame_.clear();
        changed();
        refreshBlame();
        return;
    }
    const auto size = static_cast<std::int64_t>(blame_.size());
    const std::int64_t first = std::clamp<std::int64_t>(change.lines->firstLine, 0, size);
    const std::int64_t removed = std::clamp<std::int64_t>(change.lines->removedLines, 0, size - first);
    const std::int64_t inserted = std::max<std::int64_t>(change.lines->insertedLines, 0);
    const std::int64_t rewritten = std::min(removed, inserted);
    const auto at = [&](std::int64_t line) { return blame_.begin() + static_cast<std::ptrdiff_t>(line); };
    std::fill(at(first), at(first + rewritten), Git::BlameLine::uncommitted());
    if (inserted > removed) {
        blame_.insert(at(first + rewritten), static_cast<std::size_t>(inserted - removed), Git::BlameLine::uncommitted());
    } else if (removed > inserted) {
        blame_.erase(at(first + rewritten), at(first + removed));
    }
    changed();
}

void GitChangeTracker::shiftHunks(const TrackedChange::Lines& lines) {
    // Marks wholly below the edit move with their lines now; the diff to come settles the rest.
    const std::int64_t delta = lines.insertedLines - lines.removedLines;
    const std::int64_t editEnd = lines.firstLine + lines.removedLines;
    if (delta == 0) return;
    bool moved = false;
    for (GitHunk& hunk : hunks_) {
        if (hunk.lines.lower >= editEnd && hunk.lines.lower > lines.firstLine) {
            hunk.lines.lower += delta;
            hunk.lines.upper += delta;
            moved = true;
        }
    }
    if (moved) changed();
}

std::optional<GitHunk> GitChangeTracker::hunkAt(std::int64_t line) const {
    for (const GitHunk& hunk : hunks_) {
        if (hunk.lines.contains(line) || (hunk.lines.empty() && hunk.lines.lower == line)) return hunk;
        if (hunk.lines.lower > line) break;
    }
    return std::nullopt;
}

std::optional<GitHunk> GitChangeTracker::nextHunk(std::int64_t line) const {
    for (const GitHunk& hunk : hunks_) {
        if (hunk.lines.lower > line) return hunk;
    }
    return std::nullopt;
}

std::optional<GitHunk> GitChangeTracker::previousHunk(std::int64_t line) const {
    std::optional<GitHunk> found;
    for (const GitHunk& hunk : hunks_) {
        if (hunk.lines.lower >= line) break;
        found = hunk;
    }
    return found;
}

std::string GitChangeTracker::headText(const GitHunk& hunk) const {
    const auto lines = LineDiff::split(*headBytes_);
    std::string text;
    for (std::int64_t i = std::max<std::int64_t>(hunk.oldLines.lower, 0);
         i < hunk.oldLines.upper && i < static_cast<std::int64_t>(lines.size()); ++i) {
        text += UnifiedDiff::repairedUTF8(lines[static_cast<std::size_t>(i)]);
        text.push_back('\n');
    }
    return text;
}

} // namespace brim
