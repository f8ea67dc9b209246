#pragma once

#include "compare/ConcurrentQueue.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The only place that runs the `git` tool: short child processes, each with a time limit and an
/// output limit, that never stop to ask a question. Every operation blocks its caller, so none may
/// run on the main thread of the window except the file-system walk. Any failure (no git, not a
/// repository, a time-out, a file not in HEAD) is an empty answer, never an exception.
namespace brim::Git {

/// Who last changed one line of a file.
struct BlameLine {
    std::string commit;    ///< the full hash: 40 hexadecimal digits, or 64 in a SHA-256 repository
    std::string author;
    std::optional<std::chrono::sys_seconds> date;
    std::string summary;

    /// The shared value for a line that is in no commit yet.
    [[nodiscard]] static const BlameLine& uncommitted();
    [[nodiscard]] bool isUncommitted() const;
    friend bool operator==(const BlameLine&, const BlameLine&) = default;
};

/// What one `git` run left.
struct Output {
    int status = -1;
    std::vector<std::uint8_t> output;   ///< standard output, at most the run's output limit
    bool timedOut = false;
    bool outputLimitReached = false;    ///< the output may be missing its end
    std::string errorOutput;
};

/// One line of `git status`: two status letters and the path from the repository root.
struct StatusEntry {
    char index = ' ';       ///< the staged state: ' ', 'M', 'A', 'D', 'R', 'C', 'U', '?', '!'
    char workTree = ' ';    ///< the working tree's state, same letters
    std::string path;
    std::optional<std::string> originalPath;   ///< where a renamed or copied file came from
    friend bool operator==(const StatusEntry&, const StatusEntry&) = default;
};

/// The `git` executable: /usr/bin/git, /usr/local/bin/git, then the first in PATH. Found once;
/// none means there are no Git features.
[[nodiscard]] std::optional<std::filesystem::path> executable();

/// Makes `path` the executable from now on (none: act as if there were no git), or, with
/// `resetToSearch`, forgets the override and searches again. For tests, and for a preference.
void setExecutable(std::optional<std::filesystem::path> path, bool resetToSearch = false);

/// Runs git with `arguments` in `folder`, with GIT_PAGER "cat", GIT_TERMINAL_PROMPT "0" and
/// GIT_ASKPASS "/usr/bin/false", standard input from the null device, and GIT_DIR and its kin
/// taken out of the environment so the folder decides the repository. None when there is no git or
/// it could not be started.
/// With `input`, that is standard input instead.
[[nodiscard]] std::optional<Output> run(std::span<const std::string> arguments, const std::filesystem::path& folder,
                                        std::chrono::milliseconds timeout, std::size_t outputLimit,
                                        std::optional<std::string> input = std::nullopt);

/// The repository that holds `path`: its folder (or `path` itself if it is a folder), symbolic
/// links resolved, walked upward. No process is started.
[[nodiscard]] std::optional<std::filesystem::path> repositoryRoot(const std::filesystem::path& path);

/// From `folder` upward, at most 64 folders: the first that holds an entry ".git", a folder or a
/// file (a linked worktree or a submodule).
[[nodiscard]] std::optional<std::filesystem::path> walkToRepositoryRoot(const std::filesystem::path& folder);

/// `file` relative to `root`, both with symbolic links resolved, with "/" between folders; none if
/// the file lies outside the root.
[[nodiscard]] std::optional<std::string> relativePath(const std::filesystem::path& file, const std::filesystem::path& root);

/// The branch checked out in `root`, the short hash on a detached HEAD, or the branch to be born in
/// a repository with no commit yet. None on failure.
[[nodiscard]] std::optional<std::string> readBranch(const std::filesystem::path& root);

/// `readBranch`, or with `fresh` false an answer read less than 2 seconds ago for the same root.
[[nodiscard]] std::optional<std::string> branch(const std::filesystem::path& root, bool fresh);

/// Forgets every remembered branch, so the next `branch` reads afresh.
void forgetBranches();

/// The bytes of `path` (relative to `root`) in HEAD, raw as the repository holds them. None when
/// the file is not in HEAD, or when it is larger than 16 MiB: half a file would make a bogus patch.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> headBlob(std::string_view path, const std::filesystem::path& root);

/// The bytes of `path` in `revision`, with the same limits as `headBlob`.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> blob(std::string_view path, std::string_view revision,
                                                            const std::filesystem::path& root);

/// Whether git tracks `path`.
[[nodiscard]] bool isTracked(std::string_view path, const std::filesystem::path& root);

/// Whether `revision` names a commit.
[[nodiscard]] bool revisionExists(std::string_view revision, const std::filesystem::path& root);

/// Who last changed line `line` (0-based) of `path` as it is in the working tree.
[[nodiscard]] std::optional<BlameLine> blame(std::string_view path, std::int64_t line, const std::filesystem::path& root);

/// Who last changed each line of `path` as it is in the working tree, in line order, at most
/// `maxLines` of them; with `contents`, of those bytes instead (an editor's unsaved text), whose
/// lines not in HEAD are uncommitted. None when git gives no answer (an untracked file, no
/// repository, a time-out).
[[nodiscard]] std::optional<std::vector<BlameLine>> blameFile(std::string_view path, const std::filesystem::path& root,
                                                              std::size_t maxLines,
                                                              std::optional<std::span<const std::uint8_t>> contents = std::nullopt);

/// The lines of `git blame --porcelain` or `--line-porcelain` output, at most `maxLines`. Commit
/// details are remembered from the first record that gives them. Never fails: what can't be read
/// is skipped.
[[nodiscard]] std::vector<BlameLine> parsePorcelain(std::string_view text, std::size_t maxLines);

/// The changed, staged and untracked files of the repository at `root`. None on failure.
[[nodiscard]] std::optional<std::vector<StatusEntry>> status(const std::filesystem::path& root);

/// The entries of `git status --porcelain=v1 -z` output.
[[nodiscard]] std::vector<StatusEntry> parseStatus(std::string_view text);

/// The shared queue "brim.git" on which trackers run git and their diffs, four at a time.
[[nodiscard]] ConcurrentQueue& queue();

} // namespace brim::Git
