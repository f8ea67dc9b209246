#pragma once

#include <filesystem>
#include <optional>

namespace brim::UserResources {

/// The folder given by `--support-dir`, which stands in for the support folder in this process.
void setOverrideRoot(std::optional<std::filesystem::path> root);
[[nodiscard]] std::optional<std::filesystem::path> overrideRoot();

/// The support folder: the override if set, else `${XDG_DATA_HOME:-~/.local/share}/Brim`.
/// Never creates anything.
[[nodiscard]] std::filesystem::path root();

} // namespace brim::UserResources
