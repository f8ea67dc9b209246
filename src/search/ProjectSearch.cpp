#include "search/ProjectSearch.h"

#include "bytes/MemorySource.h"
#include "search/ExpressionSyntax.h"
#include "search/SearchEngine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace brim {

namespace {

constexpr std::size_t textSniff = 8'192;

/// A descriptor closed when it goes.
class FileHandle {
public:
    explicit FileHandle(const std::filesystem::path& path) {
        do {
            fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
        } while (fd_ < 0 && errno == EINTR);
    }
    ~FileHandle() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_ = -1;
};

/// Reads up to `count` bytes from the start; fewer when the file is shorter. False on an error.
bool readPrefix(int fd, std::uint8_t* into, std::size_t count, std::size_t& got) {
    got = 0;
    while (got < count) {
        const ssize_t n = ::pread(fd, into + got, count - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

bool ProjectSearch::isProbablyText(const std::filesystem::path& file) {
    const FileHandle handle(file);
    if (handle.fd() < 0) return false;
    std::uint8_t buffer[textSniff];
    std::size_t got = 0;
    if (!readPrefix(handle.fd(), buffer, sizeof buffer, got)) return false;
    return std::memchr(buffer, 0, got) == nullptr;
}

ProjectSearch::FileOutcome ProjectSearch::examine(const std::filesystem::path& file, const SearchQuery& query,
                                                  const IsCancelled& isCancelled) {
    FileOutcome outcome;
    // One open, one stat and one read: the sniff for NUL looks at the start of what was read.
    const FileHandle handle(file);
    if (handle.fd() < 0) {
        if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    struct stat status {};
    if (::fstat(handle.fd(), &status) != 0) {
        outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    if (!S_ISREG(status.st_mode) || status.st_size < 1 || status.st_size > maxFileBytes) return outcome;
    // Each thread reads into a buffer of its own that only ever grows to the largest file, so a
    // project of many files costs no allocation a file.
    thread_local MemorySource source;
    std::vector<std::uint8_t>& bytes = source.bytes();
    bytes.resize(static_cast<std::size_t>(status.st_size));
    std::size_t got = 0;
    if (!readPrefix(handle.fd(), bytes.data(), bytes.size(), got)) {
        outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    bytes.resize(got);  // a file that shrank since the stat
    if (bytes.empty() || std::memchr(bytes.data(), 0, std::min(bytes.size(), textSniff)) != nullptr) return outcome;

    outcome.status = FileOutcome::Status::searched;
    const FindAllResult found = SearchEngine::findAll(source, query, maxListedHits, 0, {}, isCancelled);
    if (found.timedOut) outcome.status = FileOutcome::Status::timedOut;
    if (found.total == 0) return outcome;
    FileHit hit;
    hit.url = file;
    hit.total = found.total;
    hit.results = SearchResultsView::build(source, found.matches, maxListedHits);
    for (auto& row : hit.results) row.file = file;
    outcome.hit = std::move(hit);
    return outcome;
}

std::optional<ProjectSearch::FileHit> ProjectSearch::search(const std::filesystem::path& file, const SearchQuery& query,
                                                            const IsCancelled& isCancelled) {
    try {
        return examine(file, query, isCancelled).hit;
    } catch (const BrimError&) {
        return std::nullopt;  // a bad expression: every file gives nothing
    }
}

ProjectSearch::ProjectSearch() = default;

ProjectSearch::~ProjectSearch() {
    stop();
    queue_.cancelAll();
}

bool ProjectSearch::isRunning() const {
    std::lock_guard guard(lock_);
    return isRunning_;
}

void ProjectSearch::stop() {
    std::lock_guard guard(lock_);
    stoppedRun_ = runNumber_;
}

void ProjectSearch::run(std::vector<std::string> paths, SearchQuery query, std::function<void(std::vector<FileHit>)> onBatch, std::function<void(double)> onProgress,
                        std::function<void(const Outcome&)> onFinish) {
    std::uint64_t number = 0;
    {
        std::lock_guard guard(lock_);
        number = ++runNumber_;
        isRunning_ = true;
    }
    if (paths.size() > maxFiles) paths.resize(maxFiles);
    queue_.async([this, number, paths = std::move(paths), query = std::move(query), onBatch = std::move(onBatch),
                  onProgress = std::move(onProgress), onFinish = std::move(onFinish)](const IsCancelled& queueCancelled) {
        using Clock = std::chrono::steady_clock;
        enum class State : std::uint8_t { current, replaced, stopped };
        const auto state = [this, number, &queueCancelled] {
            std::lock_guard guard(lock_);
            if (runNumber_ != number || queueCancelled()) return State::replaced;
            return stoppedRun_ == number ? State::stopped : State::current;
        };
        const IsCancelled isOver = [&state] { return state() != State::current; };
        Outcome outcome;
        std::vector<FileHit> batch;
        auto lastFlush = Clock::now();
        const auto flush = [&](std::size_t index) {
            if (!batch.empty() && onBatch) {
                MainQueue::post([this, number, onBatch, hits = std::move(batch)]() mutable {
                    bool current = false;
                    {
                        std::lock_guard guard(lock_);
                        current = runNumber_ == number;
                    }
                    if (current) onBatch(std::move(hits));
                });
            }
            batch.clear();
            if (onProgress) {
                const double fraction = static_cast<double>(index + 1) / static_cast<double>(std::max<std::size_t>(paths.size(), 1));
                MainQueue::post([onProgress, fraction] { onProgress(fraction); });
            }
            lastFlush = Clock::now();
        };
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const State now = state();
            if (now == State::replaced) return;  // a newer run speaks for itself
            if (now == State::stopped) {
                outcome.wasCancelled = true;
                break;
            }
            if (outcome.matches >= matchLimit) {
                outcome.stoppedAtLimit = true;
                break;
            }
            FileOutcome file;
            try {
                file = examine(paths[i], query, isOver);
            } catch (const BrimError&) {
                file = {};  // a bad expression: every file gives nothing
            }
            ++outcome.searched;
            if (file.status == FileOutcome::Status::unreadable) ++outcome.unreadable;
            if (file.hit && !file.hit->results.empty()) {
                ++outcome.files;
                outcome.matches += file.hit->total;
                batch.push_back(std::move(*file.hit));
            }
            if (Clock::now() - lastFlush > std::chrono::milliseconds(150)) flush(i);
        }
        flush(paths.empty() ? 0 : paths.size() - 1);
        MainQueue::post([this, number, onFinish, outcome] {
            {
                std::lock_guard guard(lock_);
                if (runNumber_ != number) return;
                isRunning_ = false;
            }
            if (onFinish) onFinish(outcome);
        });
    });
}

} // namespace brim
