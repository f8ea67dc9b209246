#include "common/UserResources.h"

#include "common/BrimError.h"
#include "common/Localization.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

// Makes one folder with `mode` if it is missing; narrows a private folder that is open to others.
void makeFolder(const std::filesystem::path& folder, mode_t mode, bool narrow) {
    struct stat info {};
    if (::stat(folder.c_str(), &info) == 0) {
        if (!S_ISDIR(info.st_mode)) {
            throw BrimError(L("The folder %@ could not be made: a file of that name is in the way.", folder.string()));
        }
        if (narrow && (info.st_mode & 077) != 0 && info.st_uid == ::geteuid()) ::chmod(folder.c_str(), mode);
        return;
    }
    if (::mkdir(folder.c_str(), mode) != 0 && errno != EEXIST) {
        throw posixError(L("The folder %@ could not be made", folder.string()), errno);
    }
    // The process's umask may have taken bits away; the mode is the one asked for.
    ::chmod(folder.c_str(), mode);
}

} // namespace

void setOverrideRoot(std::optional<std::filesystem::path> root) {
    std::lock_guard guard(lock);
    if (root) {
        root = std::filesystem::absolute(*root).lexically_normal();
        if (root->has_parent_path() && !root->has_filename()) root = root->parent_path();
    }
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

std::string_view name(Folder folder) {
    switch (folder) {
    case Folder::drafts: return "Drafts";
    case Folder::workingCopies: return "WorkingCopies";
    case Folder::modes: return "Modes";
    case Folder::themes: return "Themes";
    case Folder::snippets: return "Snippets";
    case Folder::ssh: return "ssh";
    case Folder::askpass: return "askpass";
    case Folder::sync: return "Sync";
    case Folder::syncConflicts: return "Sync Conflicts";
    }
    return "Drafts";
}

bool isPrivate(Folder folder) {
    return folder != Folder::modes && folder != Folder::themes && folder != Folder::snippets;
}

std::filesystem::path path(Folder folder) { return root() / name(folder); }

std::filesystem::path savedSearchesFile() { return root() / "Searches.json"; }

std::filesystem::path commandSocket() {
    if (auto chosen = overrideRoot()) return *chosen / "cli.sock";
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime == '/') return std::filesystem::path(runtime) / "Brim" / "cli.sock";
    return root() / "cli.sock";
}

void prepare() {
    const auto top = root();
    std::error_code error;
    if (!std::filesystem::is_directory(top, error)) {
        // The folders above the support folder are the user's; they get the usual mode.
        const auto parent = top.parent_path();
        if (!parent.empty() && !std::filesystem::exists(parent, error)) {
            std::filesystem::create_directories(parent, error);
            if (error) {
                throw BrimError(L("The folder %@ could not be made: %@", parent.string(), error.message()));
            }
        }
        makeFolder(top, 0700, false);
    }
    for (const Folder folder : allFolders) {
        const bool privateFolder = isPrivate(folder);
        makeFolder(top / name(folder), privateFolder ? 0700 : 0755, privateFolder);
    }
}

} // namespace brim::UserResources
