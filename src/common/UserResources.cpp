#include "common/UserResources.h"

#include <cstdlib>
#include <mutex>

namespace brim::UserResources {

namespace {

std::mutex lock;
std::optional<std::filesystem::path> overridden; // guarded by lock

std::filesystem::path homeFolder() {
    const char* home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::filesystem::path(home) : std::filesystem::path("/");
}

} // namespace

void setOverrideRoot(std::optional<std::filesystem::path> root) {
    std::lock_guard guard(lock);
    if (root) root = std::filesystem::absolute(*root).lexically_normal();
    overridden = std::move(root);
}

std::optional<std::filesystem::path> overrideRoot() {
    std::lock_guard guard(lock);
    return overridden;
}

std::filesystem::path root() {
    if (auto chosen = overrideRoot()) return *chosen;
    const char* data = std::getenv("XDG_DATA_HOME");
    if (data != nullptr && *data == '/') return std::filesystem::path(data) / "Brim";
    return homeFolder() / ".local" / "share" / "Brim";
}

} // namespace brim::UserResources
