#pragma once

#include "common/SerialQueue.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brim::Subprocess {

/// The exit status that stands for "the program could not be found or started".
inline constexpr int notFoundStatus = 127;

/// How a child runs. Everything has a default that suits a short helper tool.
struct Options {
    /// The child's working folder; the parent's when unset.
    std::optional<std::filesystem::path> workingFolder;
    /// Variables set in the child over the parent's environment.
    std::vector<std::pair<std::string, std::string>> environment;
    /// Variables taken out of the child's environment.
    std::vector<std::string> removedEnvironment;
    /// Written to the child's standard input, which is then closed; with none, standard input is
    /// the null device.
    std::optional<std::string> input;
    /// After this long the child's whole process group gets SIGTERM, then SIGKILL after
    /// `gracePeriod`.
    std::chrono::milliseconds timeout{10'000};
    std::chrono::milliseconds gracePeriod{500};
    /// Only the first `outputLimit` bytes of standard output are kept; the rest is read and thrown
    /// away, so the child never blocks on a full pipe.
    std::size_t outputLimit = 16 * 1'048'576;
    /// Likewise for standard error, which is always drained.
    std::size_t errorLimit = 65'536;
    /// Polled while the child runs; true stops it as a time-out does.
    IsCancelled isCancelled;
};

/// What a finished child left.
struct Result {
    /// The exit status; 128 + the signal's number when a signal ended the child; 127 when the
    /// program could not be found or started.
    int status = notFoundStatus;
    /// False when the program could not be started at all (not found, not executable).
    bool started = false;
    /// The time limit ran out and the child's group was stopped.
    bool timedOut = false;
    /// `isCancelled` turned true and the child's group was stopped.
    bool cancelled = false;
    /// Standard output reached `outputLimit`: `output` holds the first `outputLimit` bytes and
    /// may be missing the rest.
    bool outputLimitReached = false;
    std::vector<std::uint8_t> output;
    std::string errorOutput;

    /// Started, ran to its end on its own, and exited with status 0.
    [[nodiscard]] bool succeeded() const { return started && !timedOut && !cancelled && status == 0; }
};

/// Runs `program` (a path, or a name looked up in PATH) with `arguments` (not including the
/// program itself) and waits for it, within the time limit. The child gets SIGPIPE at its default,
/// an empty signal mask, no descriptors of ours beyond 0, 1 and 2, and a process group of its own.
/// Never throws for anything the child does; a program that can't be started gives status 127 and
/// `started` false. Throws `BrimError` only when this process can't make pipes.
[[nodiscard]] Result run(const std::string& program, std::span<const std::string> arguments,
                         const Options& options = {});

/// The first executable regular file called `name` in the folders of `PATH`; a name with a "/" is
/// checked as it stands. None when there is no such file.
[[nodiscard]] std::optional<std::filesystem::path> findInPath(std::string_view name);

/// Whether `path` is a regular file this process may execute.
[[nodiscard]] bool isExecutableFile(const std::filesystem::path& path);

} // namespace brim::Subprocess
