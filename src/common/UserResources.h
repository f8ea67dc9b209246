#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

/// Where the program's own files live: the support folder, `${XDG_DATA_HOME:-~/.local/share}/Brim`
/// or the folder given by `--support-dir`, with a fixed layout below it.
namespace brim::UserResources {

/// The folders below the support folder.
enum class Folder {
    drafts,        ///< "Drafts": unsaved work (private)
    workingCopies, ///< "WorkingCopies": documents converted to UTF-8 while they are open (private)
    modes,         ///< "Modes": the user's language mode files
    themes,        ///< "Themes": the user's themes
    snippets,      ///< "Snippets": the user's snippet files
    ssh,           ///< "ssh": connection sockets of ssh (private)
    askpass,       ///< "askpass": the helper that asks for ssh passwords (private)
    sync,          ///< "Sync": the bases of account sync (private)
    syncConflicts, ///< "Sync Conflicts": what sync could not merge (private)
};

/// Every folder, in the order `prepare` makes them.
inline constexpr Folder allFolders[] = {Folder::drafts, Folder::workingCopies, Folder::modes,
                                        Folder::themes, Folder::snippets,      Folder::ssh,
                                        Folder::askpass, Folder::sync,         Folder::syncConflicts};

/// The folder given by `--support-dir`, which stands in for the support folder in this process.
void setOverrideRoot(std::optional<std::filesystem::path> root);
[[nodiscard]] std::optional<std::filesystem::path> overrideRoot();

/// The support folder: the override if set, else `${XDG_DATA_HOME:-~/.local/share}/Brim`.
/// Never creates anything.
[[nodiscard]] std::filesystem::path root();

/// The folder's name below the support folder ("Drafts", "Sync Conflicts", ...).
[[nodiscard]] std::string_view name(Folder folder);

/// Whether only the user may enter the folder (mode 0700).
[[nodiscard]] bool isPrivate(Folder folder);

/// The path of one folder. Never creates anything.
[[nodiscard]] std::filesystem::path path(Folder folder);

/// "Searches.json" in the support folder: the saved searches.
[[nodiscard]] std::filesystem::path savedSearchesFile();

/// The socket of the command channel: "cli.sock" in the support folder when `--support-dir` was
/// given, else in `${XDG_RUNTIME_DIR}/Brim`, else in the support folder.
[[nodiscard]] std::filesystem::path commandSocket();

/// Makes the support folder (mode 0700) and every folder below it that is missing: the private
/// ones with mode 0700, the others 0755. A private folder that exists with a wider mode is
/// narrowed to 0700. Safe to call any number of times. Throws `BrimError` with the user's words
/// when a folder cannot be made.
void prepare();

} // namespace brim::UserResources
