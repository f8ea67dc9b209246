#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace brim::testing {

/// A fresh folder under the system's temporary folder, removed with everything in it when the
/// object goes.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

    /// Writes `contents` to `name` below the folder, making folders as needed; returns the path.
    std::filesystem::path write(std::string_view name, std::string_view contents) const;
    std::filesystem::path write(std::string_view name, const std::vector<std::uint8_t>& contents) const;

private:
    std::filesystem::path path_;
};

/// The whole contents of a file as a string; empty if it can't be read.
[[nodiscard]] std::string readFile(const std::filesystem::path& path);

/// Bytes from a string, for building test input.
[[nodiscard]] std::vector<std::uint8_t> bytes(std::string_view text);

} // namespace brim::testing
