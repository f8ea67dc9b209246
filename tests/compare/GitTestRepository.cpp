#include "compare/GitTestRepository.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>

namespace brim::testing {

namespace {

struct GitHome {
    TemporaryFolder folder;
    GitHome() {
        ::setenv("HOME", folder.path().c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (folder / "config").c_str(), 1);
        ::setenv("GIT_CONFIG_NOSYSTEM", "1", 1);
        ::unsetenv("GIT_DIR");
        ::unsetenv("GIT_WORK_TREE");
        ::unsetenv("GIT_INDEX_FILE");
    }
};

const GitHome& home() {
    static const GitHome shared;
    return shared;
}

} // namespace

void isolateGitConfiguration() { (void)home(); }

ProcessResult runGit(const std::filesystem::path& folder, const std::vector<std::string>& arguments, int expected) {
    const GitHome& isolated = home();
    ProcessOptions options;
    options.workingFolder = folder;
    options.environment = {{"HOME", isolated.folder.path().string()},
                           {"GIT_CONFIG_NOSYSTEM", "1"},
                           {"GIT_PAGER", "cat"},
                           {"GIT_TERMINAL_PROMPT", "0"}};
    ProcessResult result = runProcess("git", arguments, options);
    if (expected >= 0) {
        EXPECT_EQ(result.status, expected) << "git " << (arguments.empty() ? "" : arguments.front()) << ": " << result.err;
    }
    return result;
}

GitTestRepository::GitTestRepository() {
    runGit(root(), {"init", "-q", "-b", "main"});
    runGit(root(), {"config", "user.name", "Test User"});
    runGit(root(), {"config", "user.email", "test@example.com"});
    runGit(root(), {"config", "commit.gpgsign", "false"});
    runGit(root(), {"config", "core.autocrlf", "false"});
}

std::filesystem::path GitTestRepository::write(std::string_view name, std::string_view contents) const {
    return folder_.write(name, contents);
}

std::string GitTestRepository::commit(std::string_view message, std::string_view author) const {
    runGit(root(), {"add", "-A"});
    runGit(root(), {"commit", "-q", "--allow-empty", "-m", std::string(message), "--author", std::string(author)});
    std::string hash = runGit(root(), {"rev-parse", "HEAD"}).out;
    while (!hash.empty() && hash.back() == '\n') hash.pop_back();
    return hash;
}

ProcessResult GitTestRepository::git(const std::vector<std::string>& arguments, int expected) const {
    return runGit(root(), arguments, expected);
}

int changedLineCount(std::string_view patch) {
    int count = 0;
    std::size_t start = 0;
    while (start < patch.size()) {
        std::size_t end = patch.find('\n', start);
        if (end == std::string_view::npos) end = patch.size();
        const std::string_view line = patch.substr(start, end - start);
        if ((line.starts_with("+") && !line.starts_with("+++ ")) || (line.starts_with("-") && !line.starts_with("--- "))) {
            ++count;
        }
        start = end + 1;
    }
    return count;
}

std::optional<std::string> applyPatch(std::string_view name, std::string_view oldText, std::string_view patch,
                                      std::string* refusal) {
    TemporaryFolder folder;
    folder.write(name, oldText);
    folder.write("change.patch", patch);
    const ProcessResult applied = runGit(folder.path(), {"apply", "change.patch"}, -1);
    if (applied.status != 0) {
        if (refusal != nullptr) *refusal = applied.err;
        return std::nullopt;
    }
    return readFile(folder / name);
}

std::string gitDiffHunks(std::string_view oldText, std::string_view newText) {
    TemporaryFolder folder;
    folder.write("old", oldText);
    folder.write("new", newText);
    const ProcessResult diff = runGit(folder.path(), {"diff", "--no-index", "--no-color", "--no-ext-diff", "-U3", "old", "new"}, -1);
    const auto at = diff.out.find("\n@@ ");
    return at == std::string::npos ? std::string() : diff.out.substr(at + 1);
}

} // namespace brim::testing
