#pragma once

#include "common/SerialQueue.h"
#include "search/SearchQuery.h"
#include "search/SearchResultsView.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace brim {

/// Runs a query over a project's files, one file at a time, bounded in every direction: at most
/// 20,000 files, 8 MiB a file and 100 listed hits a file, and it stops at 5,000 matches.
class ProjectSearch {
public:
    static constexpr std::size_t maxFiles = 20'000;
    static constexpr std::int64_t maxFileBytes = 8'388'608;
    static constexpr std::int64_t maxListedHits = 100;
    static constexpr std::int64_t matchLimit = 5'000;

    /// The matches of one file.
    struct FileHit {
        std::filesystem::path url;
        std::vector<SearchResult> results;
        /// Matches in the file, also those not listed.
        std::int64_t total = 0;
    };

    /// What became of one file.
    struct FileOutcome {
        enum class Status : std::uint8_t {
            searched,    ///< read and searched; `hit` holds its matches if it had any
            skipped,     ///< not there, not a regular file, empty, too large, or not text
            unreadable,  ///< there, but it could not be read
            timedOut,    ///< the expression ran into its limits; `hit` holds what came before
        };
        Status status = Status::skipped;
        std::optional<FileHit> hit;
    };

    /// How a run ended.
    struct Outcome {
        std::int64_t files = 0;      ///< files with hits
        std::int64_t matches = 0;
        std::int64_t searched = 0;   ///< files looked at
        std::int64_t unreadable = 0; ///< files that could not be read
        bool stoppedAtLimit = false;
        bool wasCancelled = false;
    };

    ProjectSearch();
    ~ProjectSearch();
    ProjectSearch(const ProjectSearch&) = delete;
    ProjectSearch& operator=(const ProjectSearch&) = delete;

    /// Searches one file: a regular file of 1 to 8 MiB whose first 8 KiB hold no NUL (unless it is
    /// text in UTF-16 or UTF-32), read as a document in its own character set, its first 100
    /// matches turned into rows with `file` set. A file in UTF-8 that a document would keep byte
    /// for byte is searched in the bytes read, without opening it again. Nothing for a file with
    /// no match, one that is skipped, or a query that does not compile.
    [[nodiscard]] static std::optional<FileHit> search(const std::filesystem::path& file, const SearchQuery& query,
                                                       const IsCancelled& isCancelled = {});

    /// `search` with the reason a file gave nothing. Throws `PatternError` for a bad expression,
    /// so a caller can say so once instead of once a file.
    [[nodiscard]] static FileOutcome examine(const std::filesystem::path& file, const SearchQuery& query,
                                             const IsCancelled& isCancelled = {});

    /// Whether the first 8,192 bytes of a file hold no NUL; a file that cannot be opened is not text.
    [[nodiscard]] static bool isProbablyText(const std::filesystem::path& file);

    /// Starts a run over the first 20,000 paths on the search queue, replacing any run before
    /// it. Batches of hits go to `onBatch` on the main queue at most every 0.15 seconds, with
    /// `onProgress`; `onFinish` comes last, only if the run is still the current one.
    void run(std::vector<std::string> paths, SearchQuery query, std::function<void(std::vector<FileHit>)> onBatch, std::function<void(double)> onProgress,
             std::function<void(const Outcome&)> onFinish);

    /// Stops the current run; it finishes with `wasCancelled`.
    void stop();

    /// Whether a run has started and not yet finished on the main queue.
    [[nodiscard]] bool isRunning() const;

private:
    mutable std::mutex lock_;
    std::uint64_t runNumber_ = 0;   // guarded by lock_
    std::uint64_t stoppedRun_ = 0;  // guarded by lock_
    bool isRunning_ = false;        // guarded by lock_
    SerialQueue queue_{"brim.projectsearch"};  // last: stops before the fields above go
};

} // namespace brim
