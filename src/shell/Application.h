#pragma once

#include <string>
#include <vector>

namespace brim::shell {

/// The paths a command line names for the window: what does not start with "--", leaving out the
/// program's own name and the folder after "--support-dir".
[[nodiscard]] std::vector<std::string> filesToOpen(const std::vector<std::string>& arguments);

/// Starts the application with its window and opens the files the arguments name, each in a tab; runs
/// until the last window closes. Says so and returns 1 when there is no display to show a window on.
int runApplication(const std::vector<std::string>& arguments);

} // namespace brim::shell
