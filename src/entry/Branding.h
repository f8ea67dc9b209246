#pragma once

#include <string>

namespace brim::Branding {

/// The version, "0.1.0".
[[nodiscard]] std::string version();
/// The build number: the count of commits the build was made from.
[[nodiscard]] std::string build();
/// "0.1.0 (12 · 1a2b3c4 · 2026-11-22)": version, then build, commit and date where known.
[[nodiscard]] std::string versionDescription();
/// The running executable's own path.
[[nodiscard]] std::string executablePath();

} // namespace brim::Branding
