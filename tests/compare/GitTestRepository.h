#pragma once

#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace brim::testing {

/// The environment every git in these tests runs with, this process's own included: HOME and the
/// configuration folders in a temporary folder, and no system configuration.
void isolateGitConfiguration();

/// Runs git in `folder`, isolated as above. Fails the test on a status other than `expected`.
ProcessResult runGit(const std::filesystem::path& folder, const std::vector<std::string>& arguments, int expected = 0);

/// A real repository in a temporary folder, on branch "main", with its own author.
class GitTestRepository {
public:
    GitTestRepository();

    [[nodiscard]] const std::filesystem::path& root() const { return folder_.path(); }
    [[nodiscard]] std::filesystem::path operator/(std::string_view name) const { return folder_ / name; }

    /// Writes a file below the root, making folders as needed.
    std::filesystem::path write(std::string_view name, std::string_view contents) const;

    /// Stages everything and commits it; returns the new commit's full hash.
    std::string commit(std::string_view message, std::string_view author = "Ann Author <ann@example.com>") const;

    /// Runs git in the root.
    ProcessResult git(const std::vector<std::string>& arguments, int expected = 0) const;

private:
    TemporaryFolder folder_;
};

/// Lines that a patch adds or removes, its headers not counted.
[[nodiscard]] int changedLineCount(std::string_view patch);

/// Applies `patch` (labels a/<name>, b/<name>) to `oldText` with `git apply` in a fresh folder and
/// returns the result; an empty optional when git refuses the patch, with its message in `refusal`.
[[nodiscard]] std::optional<std::string> applyPatch(std::string_view name, std::string_view oldText,
                                                    std::string_view patch, std::string* refusal = nullptr);

/// `git diff --no-index` of two texts, from its first "@@" on (the headers name temporary files).
[[nodiscard]] std::string gitDiffHunks(std::string_view oldText, std::string_view newText);

} // namespace brim::testing
