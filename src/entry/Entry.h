#pragma once

#include <string>
#include <vector>

namespace brim::Entry {

/// The help text that `-h` and `--help` print.
[[nodiscard]] const char* helpText();

/// Removes `--cli` when it stands before one of the seven commands the installed tool passes
/// through, so `brim --grep f p` through the script is the executable's own `--grep f p`.
[[nodiscard]] std::vector<std::string> normalised(std::vector<std::string> arguments);

/// Everything `main` does after setting up the process: decides what this run is and returns the
/// exit status.
int run(std::vector<std::string> arguments);

} // namespace brim::Entry
