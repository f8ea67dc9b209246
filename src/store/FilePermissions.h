#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace brim::FilePermissions {

/// Whether a file can be written as it stands.
enum class State : std::uint8_t { writable, locked, noPermission };

/// `writable` for no path or a path that is not a regular file (nothing stops a save); a file that
/// does not exist is judged by its folder. `locked` when the file is immutable, `noPermission`
/// when the access check refuses writing. Never fails.
[[nodiscard]] State state(const std::optional<std::filesystem::path>& path);

/// Clears the immutable flag. Throws `BrimError` with the system's reason when it can't.
void unlock(const std::filesystem::path& path);

} // namespace brim::FilePermissions
