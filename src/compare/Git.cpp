#include "compare/Git.h"

#include "common/Localization.h"
#include "common/Subprocess.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <mutex>
#include <system_error>
#include <unordered_map>

namespace brim::Git {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t mebibyte = 1'048'576;
constexpr std::size_t blobLimit = 16 * mebibyte;
constexpr int repositoryWalkLimit = 64;
constexpr auto branchFreshness = 2s;

std::mutex executableLock;
bool executableSearched = false;                      // guarded by executableLock
std::optional<std::filesystem::path> foundExecutable;  // guarded by executableLock

std::mutex branchLock;
struct RememberedBranch {
    std::optional<std::string> name;
    std::chrono::steady_clock::time_point readAt;
};
std::map<std::string, RememberedBranch> branches;   // guarded by branchLock, keyed by root path

std::optional<std::filesystem::path> searchExecutable() {
    for (const char* candidate : {"/usr/bin/git", "/usr/local/bin/git"}) {
        if (Subprocess::isExecutableFile(candidate)) return std::filesystem::path(candidate);
    }
    return Subprocess::findInPath("git");
}

std::string text(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

/// The first line of `text`, without its end.
std::string firstLine(std::string_view text) {
    const auto end = text.find('\n');
    std::string line(text.substr(0, end));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::optional<Output> runIn(const std::filesystem::path& root, std::vector<std::string> arguments,
                            std::chrono::milliseconds timeout, std::size_t limit) {
    return run(arguments, root, timeout, limit);
}

bool succeeded(const std::optional<Output>& output) {
    return output && output->status == 0 && !output->timedOut;
}

bool isHexadecimal(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

/// The commit of a porcelain header line ("<hash> <original line> <final line> [<count>]"), or
/// an empty view when the line is not a header.
std::string_view headerCommit(std::string_view line) {
    const auto blank = line.find(' ');
    if (blank != 40 && blank != 64) return {};
    const std::string_view hash = line.substr(0, blank);
    if (!isHexadecimal(hash)) return {};
    const std::string_view rest = line.substr(blank + 1);
    if (rest.empty() || !std::all_of(rest.begin(), rest.end(), [](char c) { return (c >= '0' && c <= '9') || c == ' '; })) {
        return {};
    }
    return hash;
}

} // namespace

const BlameLine& BlameLine::uncommitted() {
    static const BlameLine line{std::string(40, '0'), L("Not Committed Yet"), std::nullopt, L("Not committed yet")};
    return line;
}

bool BlameLine::isUncommitted() const {
    return !commit.empty() && std::all_of(commit.begin(), commit.end(), [](char c) { return c == '0'; });
}

std::optional<std::filesystem::path> executable() {
    std::lock_guard guard(executableLock);
    if (!executableSearched) {
        foundExecutable = searchExecutable();
        executableSearched = true;
    }
    return foundExecutable;
}

void setExecutable(std::optional<std::filesystem::path> path, bool resetToSearch) {
    std::lock_guard guard(executableLock);
    executableSearched = !resetToSearch;
    foundExecutable = resetToSearch ? std::nullopt : std::move(path);
}

std::optional<Output> run(std::span<const std::string> arguments, const std::filesystem::path& folder,
                          std::chrono::milliseconds timeout, std::size_t outputLimit, std::optional<std::string> input) {
    const auto git = executable();
    if (!git) return std::nullopt;
    Subprocess::Options options;
    options.workingFolder = folder;
    options.timeout = timeout;
    options.outputLimit = outputLimit;
    options.input = std::move(input);
    // Nothing may stop to ask a question, and nothing may take a lock the user's own git wants.
    options.environment = {{"GIT_PAGER", "cat"},
                           {"GIT_TERMINAL_PROMPT", "0"},
                           {"GIT_ASKPASS", "/usr/bin/false"},
                           {"GIT_OPTIONAL_LOCKS", "0"}};
    // The folder decides the repository, whatever the environment this program was started in.
    options.removedEnvironment = {"GIT_DIR", "GIT_WORK_TREE", "GIT_INDEX_FILE", "GIT_COMMON_DIR", "GIT_PREFIX"};
    Subprocess::Result result = Subprocess::run(git->string(), arguments, options);
    if (!result.started) return std::nullopt;
    Output output;
    output.status = result.status;
    output.output = std::move(result.output);
    output.timedOut = result.timedOut;
    output.outputLimitReached = result.outputLimitReached;
    output.errorOutput = std::move(result.errorOutput);
    return output;
}

std::optional<std::filesystem::path> walkToRepositoryRoot(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::path current = std::filesystem::absolute(folder, error).lexically_normal();
    if (error) return std::nullopt;
    if (current.has_filename() == false && current != current.root_path()) current = current.parent_path();
    for (int level = 0; level < repositoryWalkLimit; ++level) {
        struct stat info {};
        if (::lstat((current / ".git").c_str(), &info) == 0 && (S_ISDIR(info.st_mode) || S_ISREG(info.st_mode))) {
            return current;
        }
        if (current == current.root_path() || !current.has_parent_path()) break;
        current = current.parent_path();
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> repositoryRoot(const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
    if (error) return std::nullopt;
    const bool isFolder = std::filesystem::is_directory(resolved, error);
    return walkToRepositoryRoot(isFolder ? resolved : resolved.parent_path());
}

std::optional<std::string> relativePath(const std::filesystem::path& file, const std::filesystem::path& root) {
    std::error_code error;
    const std::filesystem::path resolvedFile = std::filesystem::weakly_canonical(std::filesystem::absolute(file, error), error);
    if (error) return std::nullopt;
    const std::filesystem::path resolvedRoot = std::filesystem::weakly_canonical(std::filesystem::absolute(root, error), error);
    if (error) return std::nullopt;
    std::string filePath = resolvedFile.string();
    std::string rootPath = resolvedRoot.string();
    if (!rootPath.empty() && rootPath.back() != '/') rootPath.push_back('/');
    if (filePath.size() <= rootPath.size() || filePath.compare(0, rootPath.size(), rootPath) != 0) return std::nullopt;
    return filePath.substr(rootPath.size());
}

std::optional<std::string> readBranch(const std::filesystem::path& root) {
    const auto name = runIn(root, {"rev-parse", "--abbrev-ref", "HEAD"}, 2s, blobLimit);
    if (succeeded(name)) {
        const std::string branchName = firstLine(text(name->output));
        if (branchName != "HEAD") return branchName.empty() ? std::nullopt : std::optional(branchName);
        const auto hash = runIn(root, {"rev-parse", "--short", "HEAD"}, 2s, blobLimit);
        if (!succeeded(hash)) return std::nullopt;
        const std::string shortHash = firstLine(text(hash->output));
        return shortHash.empty() ? std::nullopt : std::optional(shortHash);
    }
    // No commit yet: HEAD names the branch that the first commit will make.
    const auto unborn = runIn(root, {"symbolic-ref", "--short", "-q", "HEAD"}, 2s, blobLimit);
    if (!succeeded(unborn)) return std::nullopt;
    const std::string branchName = firstLine(text(unborn->output));
    return branchName.empty() ? std::nullopt : std::optional(branchName);
}

std::optional<std::string> branch(const std::filesystem::path& root, bool fresh) {
    const std::string key = root.string();
    const auto now = std::chrono::steady_clock::now();
    if (!fresh) {
        std::lock_guard guard(branchLock);
        const auto found = branches.find(key);
        if (found != branches.end() && now - found->second.readAt < branchFreshness) return found->second.name;
    }
    // Read without the lock: no git process ever runs under it.
    std::optional<std::string> name = readBranch(root);
    std::lock_guard guard(branchLock);
    branches[key] = {name, std::chrono::steady_clock::now()};
    return name;
}

void forgetBranches() {
    std::lock_guard guard(branchLock);
    branches.clear();
}

std::optional<std::vector<std::uint8_t>> blob(std::string_view path, std::string_view revision,
                                              const std::filesystem::path& root) {
    if (path.empty()) return std::nullopt;
    auto output = runIn(root, {"show", std::string(revision) + ":./" + std::string(path)}, 5s, blobLimit);
    if (!succeeded(output) || output->outputLimitReached) return std::nullopt;
    return std::move(output->output);
}

std::optional<std::vector<std::uint8_t>> headBlob(std::string_view path, const std::filesystem::path& root) {
    return blob(path, "HEAD", root);
}

bool isTracked(std::string_view path, const std::filesystem::path& root) {
    if (path.empty()) return false;
    return succeeded(runIn(root, {"ls-files", "--error-unmatch", "--", std::string(path)}, 2s, blobLimit));
}

bool revisionExists(std::string_view revision, const std::filesystem::path& root) {
    if (revision.empty()) return false;
    return succeeded(runIn(root, {"rev-parse", "--verify", "--quiet", std::string(revision) + "^{commit}"}, 5s, blobLimit));
}

std::optional<BlameLine> blame(std::string_view path, std::int64_t line, const std::filesystem::path& root) {
    if (path.empty() || line < 0) return std::nullopt;
    const std::string range = std::to_string(line + 1) + "," + std::to_string(line + 1);
    const auto output = runIn(root, {"blame", "--line-porcelain", "-L", range, "--", std::string(path)}, 10s, mebibyte);
    if (!succeeded(output)) return std::nullopt;
    auto lines = parsePorcelain(text(output->output), 1);
    if (lines.empty()) return std::nullopt;
    return std::move(lines.front());
}

std::optional<std::vector<BlameLine>> blameFile(std::string_view path, const std::filesystem::path& root,
                                                std::size_t maxLines, std::optional<std::span<const std::uint8_t>> contents) {
    if (path.empty()) return std::nullopt;
    std::vector<std::string> arguments = {"blame", "--porcelain"};
    std::optional<std::string> input;
    if (contents) {
        arguments.insert(arguments.end(), {"--contents", "-"});
        input = std::string(contents->begin(), contents->end());
    }
    arguments.insert(arguments.end(), {"--", std::string(path)});
    const auto output = run(arguments, root, 30s, 64 * mebibyte, std::move(input));
    if (!succeeded(output)) return std::nullopt;
    // Output cut at the limit still holds whole records up to there; the lines past it stay unknown.
    return parsePorcelain(text(output->output), maxLines);
}

std::vector<BlameLine> parsePorcelain(std::string_view text, std::size_t maxLines) {
    struct Details {
        std::string author;
        std::optional<std::chrono::sys_seconds> date;
        std::string summary;
    };
    std::unordered_map<std::string, Details> commits;
    std::vector<BlameLine> lines;
    std::string current;
    Details* details = nullptr;
    std::size_t start = 0;
    while (start < text.size() && lines.size() < maxLines) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.front() == '\t') {
            // The content of one file line ends its record; the content itself is not needed.
            if (details == nullptr) continue;
            lines.push_back({current, details->author, details->date, details->summary});
            continue;
        }
        if (const std::string_view commit = headerCommit(line); !commit.empty()) {
            current = std::string(commit);
            details = &commits[current];
            continue;
        }
        if (details == nullptr) continue;
        if (line.starts_with("author ")) {
            details->author = std::string(line.substr(7));
        } else if (line.starts_with("author-time ")) {
            const std::string_view number = line.substr(12);
            std::int64_t seconds = 0;
            const auto [at, error] = std::from_chars(number.data(), number.data() + number.size(), seconds);
            if (error == std::errc() && at == number.data() + number.size()) {
                details->date = std::chrono::sys_seconds(std::chrono::seconds(seconds));
            }
        } else if (line.starts_with("summary ")) {
            details->summary = std::string(line.substr(8));
        }
    }
    return lines;
}

std::optional<std::vector<StatusEntry>> status(const std::filesystem::path& root) {
    const auto output = runIn(root, {"status", "--porcelain=v1", "-z", "--untracked-files=normal"}, 10s, blobLimit);
    if (!succeeded(output) || output->outputLimitReached) return std::nullopt;
    return parseStatus(text(output->output));
}

std::vector<StatusEntry> parseStatus(std::string_view text) {
    std::vector<StatusEntry> entries;
    std::size_t start = 0;
    const auto next = [&]() -> std::optional<std::string_view> {
        if (start >= text.size()) return std::nullopt;
        std::size_t end = text.find('\0', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view field = text.substr(start, end - start);
        start = end + 1;
        return field;
    };
    while (const auto field = next()) {
        if (field->size() < 4 || (*field)[2] != ' ') continue;
        StatusEntry entry;
        entry.index = (*field)[0];
        entry.workTree = (*field)[1];
        entry.path = std::string(field->substr(3));
        // A rename or copy names its origin in the field after.
        if (entry.index == 'R' || entry.index == 'C' || entry.workTree == 'R' || entry.workTree == 'C') {
            if (const auto origin = next()) entry.originalPath = std::string(*origin);
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

ConcurrentQueue& queue() {
    static ConcurrentQueue shared("brim.git", 4);
    return shared;
}

} // namespace brim::Git
