#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace brim::testing {

/// What a finished child process left.
struct ProcessResult {
    int status = -1;        ///< exit status, or 128 + signal number if a signal ended it
    std::string out;        ///< standard output
    std::string err;        ///< standard error
};

struct ProcessOptions {
    std::map<std::string, std::string> environment;     ///< set in the child, over the parent's
    std::optional<std::filesystem::path> workingFolder;
    std::string input;                                   ///< written to standard input, then closed
    bool closeStandardOutput = false;                    ///< the child's stdout is a pipe closed at once
    int timeoutSeconds = 120;
};

/// Runs `program` with `arguments` (position 0 excluded) and waits for it. XDG_CONFIG_HOME and
/// XDG_DATA_HOME point into a temporary folder unless the options say otherwise, so no test ever
/// touches the user's own files.
[[nodiscard]] ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                                       const ProcessOptions& options = {});

/// Runs the built Brim executable.
[[nodiscard]] ProcessResult runBrim(const std::vector<std::string>& arguments, const ProcessOptions& options = {});

} // namespace brim::testing
