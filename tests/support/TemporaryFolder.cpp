#include "support/TemporaryFolder.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace brim::testing {

TemporaryFolder::TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "brim-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    // Folders made unreadable by a test must not stop the clean-up.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
    }
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryFolder::write(std::string_view name, std::string_view contents) const {
    const auto target = path_ / name;
    std::filesystem::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    if (!out) throw std::runtime_error("cannot write " + target.string());
    return target;
}

std::filesystem::path TemporaryFolder::write(std::string_view name, const std::vector<std::uint8_t>& contents) const {
    return write(name, std::string_view(reinterpret_cast<const char*>(contents.data()), contents.size()));
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

} // namespace brim::testing
