#pragma once

#include "common/SerialQueue.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brim {

/// How a project's files are asked of Git. The comparison library supplies both; either may be
/// empty, which means no Git: the project is then the file's folder and the listing a walk.
struct GitAccess {
    /// The repository holding a file, if any.
    std::function<std::optional<std::filesystem::path>(const std::filesystem::path& file)> repositoryRoot;
    /// The output of `git ls-files --cached --others --exclude-standard -z` in `root`, run with a
    /// time-out of 15 seconds and at most 32 MiB of output; nothing when it failed.
    std::function<std::optional<std::string>(const std::filesystem::path& root)> listFiles;
};

/// Which folder is a file's project, and which files the project holds: Git's own list in a
/// repository (tracked and untracked files, ignored ones left out), otherwise a walk that skips
/// hidden files, symbolic links and the usual build and dependency folders.
///
/// One object serves a process: answers for roots are kept for 10 seconds and listings for 30;
/// both live as long as the object. All functions may be called from any thread.
class ProjectFiles {
public:
    /// One project's files.
    struct Listing {
        std::filesystem::path root;
        /// Absolute paths, in Git's order or the walk's (breadth first, folders in the order the
        /// file system gives).
        std::vector<std::string> paths;
        /// The list stopped at `maxPaths`.
        bool isCapped = false;
        std::chrono::steady_clock::time_point scannedAt;
        bool usedGit = false;
    };

    static constexpr std::size_t maxPaths = 60'000;
    static constexpr int maxDepth = 12;

    /// Folders a walk never enters: ".git", "node_modules", "build", "target" and the like.
    [[nodiscard]] static const std::vector<std::string_view>& skippedDirectories();

    explicit ProjectFiles(GitAccess git = {});
    ~ProjectFiles();
    ProjectFiles(const ProjectFiles&) = delete;
    ProjectFiles& operator=(const ProjectFiles&) = delete;

    /// The project of a file: its repository, or its folder when there is none or the folder is
    /// on a network volume (where asking Git would be slow). Standardised; remembered for 10 s.
    [[nodiscard]] std::filesystem::path root(const std::filesystem::path& file);

    /// Lists a project now, in the calling thread. A Git failure falls back to the walk.
    [[nodiscard]] static Listing list(const std::filesystem::path& root, const GitAccess& git = {});

    /// Told of the paths of a listing as they are found, in the listing's order: a walk tells
    /// each folder's files as it leaves the folder, Git's list comes at once.
    using PathsFound = std::function<void(std::span<const std::string> paths)>;

    /// `list`, telling `found` of the paths on the way, so that a caller can search the first
    /// files while the walk goes on.
    [[nodiscard]] static Listing list(const std::filesystem::path& root, const GitAccess& git, const PathsFound& found);

    /// The listing of a file's project as far as one exists, starting a fresh scan in the
    /// background when there is none or it is older than 30 seconds: a stale list now is better
    /// than waiting. Callers that need the fresh one use `whenListed`.
    [[nodiscard]] std::optional<Listing> listing(const std::filesystem::path& file);

    /// Calls `then` on the main queue once a listing of the file's project arrives: at once (through
    /// the main queue) if one is fresh. A later call with the same token replaces the earlier one.
    void whenListed(const std::filesystem::path& file, std::string token, std::function<void(const Listing&)> then);

    /// Whether a folder lies on a network volume (NFS, SMB, AFS and their kin).
    [[nodiscard]] static bool isOnNetworkVolume(const std::filesystem::path& folder);

private:
    void scan(const std::filesystem::path& root);

    GitAccess git_;
    std::mutex rootsLock_;
    std::map<std::filesystem::path, std::pair<std::filesystem::path, std::chrono::steady_clock::time_point>> roots_;  // guarded by rootsLock_
    std::mutex cacheLock_;
    std::map<std::filesystem::path, Listing> cache_;           // guarded by cacheLock_
    std::set<std::filesystem::path> inFlight_;                 // guarded by cacheLock_
    std::map<std::filesystem::path, std::map<std::string, std::function<void(const Listing&)>>> listeners_;  // guarded by cacheLock_
    SerialQueue queue_{"brim.project"};                        // last: stops before the fields above go
};

/// Narrows a project's files with include and exclude patterns, as the find bar's filter does.
struct FileFilter {
    std::string include;
    std::string exclude;

    /// Both lists are empty.
    [[nodiscard]] bool isEmpty() const;

    /// What the find bar shows while a filter is on: the include patterns joined by blanks, then
    /// "−" before each exclude pattern, the groups joined by two blanks.
    [[nodiscard]] std::string summary() const;

    /// Whether a file passes: one include pattern matches (if there are any) and no exclude
    /// pattern does. `path` is matched relative to `root` when it lies below it.
    [[nodiscard]] bool matches(std::string_view path, std::string_view root) const;

    /// Whether one pattern matches a path. A pattern with no "/" is matched against the last
    /// component. "*" stays within a folder, "**" crosses folders and "**/" may also match
    /// nothing, "?" is one character, and the first "{a,b}" is expanded (three deep). Case is
    /// ignored, and characters are compared as grapheme clusters.
    [[nodiscard]] static bool match(std::string_view pattern, std::string_view path);

    /// The patterns of a field: split on commas and blanks outside braces, trimmed, empty ones
    /// dropped, so "*.{js,ts}" stays one pattern.
    [[nodiscard]] static std::vector<std::string> patterns(std::string_view field);
};

} // namespace brim
