#include "search/ProjectFiles.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <unicode/ubrk.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <system_error>

namespace brim {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto rootLifetime = std::chrono::seconds(10);
constexpr auto listingLifetime = std::chrono::seconds(30);

fs::path standardised(const fs::path& path) {
    std::error_code error;
    fs::path absolute = fs::absolute(path, error);
    if (error) absolute = path;
    fs::path normal = absolute.lexically_normal();
    // "a/b/" and "a/b" are the same folder.
    if (!normal.has_filename() && normal.has_parent_path() && normal != normal.root_path()) normal = normal.parent_path();
    return normal;
}

std::vector<std::string> gitPaths(const fs::path& root, const std::string& output, bool& capped) {
    std::vector<std::string> paths;
    std::size_t start = 0;
    while (start < output.size()) {
        std::size_t end = output.find('\0', start);
        if (end == std::string::npos) end = output.size();
        if (end > start) {
            if (paths.size() >= ProjectFiles::maxPaths) {
                capped = true;
                break;
            }
            paths.push_back((root / output.substr(start, end - start)).string());
        }
        start = end + 1;
    }
    return paths;
}

ProjectFiles::Listing walk(const fs::path& root, const ProjectFiles::PathsFound& found) {
    ProjectFiles::Listing listing;
    listing.root = root;
    const auto& skipped = ProjectFiles::skippedDirectories();
    std::deque<std::pair<std::string, int>> folders{{root.string(), 0}};
    while (!folders.empty()) {
        auto [folder, depth] = std::move(folders.front());
        folders.pop_front();
        if (depth > ProjectFiles::maxDepth) continue;
        DIR* directory = ::opendir(folder.c_str());
        if (directory == nullptr) continue;  // unreadable: its files are simply not listed
        const std::size_t before = listing.paths.size();
        const auto tell = [&] {
            if (found && listing.paths.size() > before) {
                found(std::span<const std::string>(listing.paths).subspan(before));
            }
        };
        const std::string prefix = folder.back() == '/' ? folder : folder + "/";
        while (const dirent* entry = ::readdir(directory)) {
            const std::string_view name(entry->d_name);
            if (name.empty() || name.front() == '.') continue;
            std::string path = prefix;
            path += name;
            unsigned char type = entry->d_type;
            if (type == DT_UNKNOWN) {
                // Some file systems do not say in the listing: ask, without following a link.
                struct stat status {};
                if (::lstat(path.c_str(), &status) != 0) continue;
                type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISLNK(status.st_mode) ? DT_LNK : DT_REG;
            }
            if (type == DT_LNK) continue;
            if (type == DT_DIR) {
                if (std::find(skipped.begin(), skipped.end(), name) == skipped.end()) {
                    folders.emplace_back(std::move(path), depth + 1);
                }
                continue;
            }
            if (listing.paths.size() >= ProjectFiles::maxPaths) {
                listing.isCapped = true;
                ::closedir(directory);
                tell();
                return listing;
            }
            listing.paths.push_back(std::move(path));
        }
        ::closedir(directory);
        tell();
    }
    return listing;
}

} // namespace

const std::vector<std::string_view>& ProjectFiles::skippedDirectories() {
    static const std::vector<std::string_view> names = {
        ".git",  ".hg",    ".svn",  "node_modules", ".build", "build", "DerivedData", ".venv",
        "venv",  "__pycache__", ".next", ".nuxt",   "dist",   "target", ".gradle",   ".idea",
        ".cache", "Pods",  "vendor", ".terraform",  ".tox",   ".mypy_cache", ".pytest_cache",
    };
    return names;
}

ProjectFiles::ProjectFiles(GitAccess git) : git_(std::move(git)) {}

ProjectFiles::~ProjectFiles() { queue_.cancelAll(); }

bool ProjectFiles::isOnNetworkVolume(const fs::path& folder) {
    struct statfs info {};
    if (::statfs(folder.c_str(), &info) != 0) return false;
    switch (static_cast<std::uint32_t>(info.f_type)) {
    case 0x6969:      // NFS
    case 0x517B:      // SMB
    case 0xFF534D42:  // CIFS
    case 0xFE534D42:  // SMB2
    case 0x5346414F:  // AFS
    case 0x73757245:  // Coda
    case 0x564C:      // NCP
    case 0x01021997:  // 9P
    case 0x00C36400:  // Ceph
        return true;
    default:
        return false;
    }
}

fs::path ProjectFiles::root(const fs::path& file) {
    const fs::path folder = standardised(file).parent_path();
    {
        std::lock_guard guard(rootsLock_);
        if (const auto it = roots_.find(folder); it != roots_.end() && Clock::now() - it->second.second < rootLifetime) {
            return it->second.first;
        }
    }
    fs::path answer = folder;
    if (!isOnNetworkVolume(folder) && git_.repositoryRoot) {
        if (const auto repository = git_.repositoryRoot(standardised(file))) answer = standardised(*repository);
    }
    std::lock_guard guard(rootsLock_);
    roots_[folder] = {answer, Clock::now()};
    return answer;
}

ProjectFiles::Listing ProjectFiles::list(const fs::path& folder, const GitAccess& git) { return list(folder, git, {}); }

ProjectFiles::Listing ProjectFiles::list(const fs::path& folder, const GitAccess& git, const PathsFound& found) {
    const fs::path root = standardised(folder);
    std::error_code error;
    if (git.listFiles && fs::exists(root / ".git", error)) {
        if (const auto output = git.listFiles(root)) {
            Listing listing;
            listing.root = root;
            listing.usedGit = true;
            listing.paths = gitPaths(root, *output, listing.isCapped);
            listing.scannedAt = Clock::now();
            if (found && !listing.paths.empty()) found(listing.paths);
            return listing;
        }
    }
    Listing listing = walk(root, found);
    listing.scannedAt = Clock::now();
    return listing;
}

std::optional<ProjectFiles::Listing> ProjectFiles::listing(const fs::path& file) {
    const fs::path project = root(file);
    std::lock_guard guard(cacheLock_);
    const auto it = cache_.find(project);
    const bool fresh = it != cache_.end() && Clock::now() - it->second.scannedAt < listingLifetime;
    if (!fresh) scan(project);
    if (it == cache_.end()) return std::nullopt;
    return it->second;
}

void ProjectFiles::whenListed(const fs::path& file, std::string token, std::function<void(const Listing&)> then) {
    const fs::path project = root(file);
    std::lock_guard guard(cacheLock_);
    if (const auto it = cache_.find(project); it != cache_.end() && Clock::now() - it->second.scannedAt < listingLifetime) {
        MainQueue::post([then = std::move(then), listing = it->second] { then(listing); });
        return;
    }
    listeners_[project][std::move(token)] = std::move(then);
    scan(project);
}

void ProjectFiles::scan(const fs::path& project) {
    // Called with cacheLock_ held.
    if (!inFlight_.insert(project).second) return;
    queue_.async([this, project](const IsCancelled&) {
        Listing fresh = list(project, git_);
        std::map<std::string, std::function<void(const Listing&)>> waiting;
        {
            std::lock_guard guard(cacheLock_);
            cache_[project] = fresh;
            inFlight_.erase(project);
            if (const auto it = listeners_.find(project); it != listeners_.end()) {
                waiting = std::move(it->second);
                listeners_.erase(it);
            }
        }
        for (auto& [token, then] : waiting) {
            MainQueue::post([then = std::move(then), fresh] { then(fresh); });
        }
    });
}

// MARK: FileFilter

namespace {

constexpr std::size_t braceDepth = 3;

/// The first "{...}" expanded into one pattern per comma-separated choice, to three levels.
std::vector<std::string> expandBraces(const std::string& pattern, std::size_t depth) {
    const std::size_t open = pattern.find('{');
    if (depth == 0 || open == std::string::npos) return {pattern};
    int level = 0;
    std::size_t close = std::string::npos;
    std::vector<std::size_t> commas;
    for (std::size_t i = open; i < pattern.size(); ++i) {
        if (pattern[i] == '{') {
            ++level;
        } else if (pattern[i] == '}') {
            if (--level == 0) {
                close = i;
                break;
            }
        } else if (pattern[i] == ',' && level == 1) {
            commas.push_back(i);
        }
    }
    if (close == std::string::npos) return {pattern};
    std::vector<std::string> expanded;
    std::size_t choiceStart = open + 1;
    commas.push_back(close);
    for (const std::size_t comma : commas) {
        const std::string choice = pattern.substr(choiceStart, comma - choiceStart);
        const std::string joined = pattern.substr(0, open) + choice + pattern.substr(close + 1);
        for (auto& more : expandBraces(joined, depth - 1)) expanded.push_back(std::move(more));
        choiceStart = comma + 1;
    }
    return expanded;
}

/// The text lowered and cut into grapheme clusters, each as UTF-8.
std::vector<std::string> clusters(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8WithSub(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
    status = U_ZERO_ERROR;
    std::u16string wide(static_cast<std::size_t>(length), u'\0');
    u_strFromUTF8WithSub(reinterpret_cast<UChar*>(wide.data()), length, &length, text.data(),
                         static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
    wide.resize(static_cast<std::size_t>(std::max(length, 0)));
    std::u16string lowered(wide.size() + 16, u'\0');
    status = U_ZERO_ERROR;
    int32_t loweredLength = u_strToLower(reinterpret_cast<UChar*>(lowered.data()), static_cast<int32_t>(lowered.size()),
                                         reinterpret_cast<const UChar*>(wide.data()), length, "", &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
        lowered.assign(static_cast<std::size_t>(loweredLength), u'\0');
        status = U_ZERO_ERROR;
        loweredLength = u_strToLower(reinterpret_cast<UChar*>(lowered.data()), loweredLength,
                                     reinterpret_cast<const UChar*>(wide.data()), length, "", &status);
    }
    if (U_FAILURE(status)) {
        lowered = wide;
        loweredLength = length;
    }
    lowered.resize(static_cast<std::size_t>(loweredLength));

    const auto toUTF8 = [](std::u16string_view piece) {
        std::string out;
        UErrorCode error = U_ZERO_ERROR;
        int32_t size = 0;
        u_strToUTF8(nullptr, 0, &size, reinterpret_cast<const UChar*>(piece.data()), static_cast<int32_t>(piece.size()), &error);
        out.assign(static_cast<std::size_t>(size), '\0');
        error = U_ZERO_ERROR;
        u_strToUTF8(out.data(), size, nullptr, reinterpret_cast<const UChar*>(piece.data()), static_cast<int32_t>(piece.size()), &error);
        return out;
    };

    std::vector<std::string> pieces;
    status = U_ZERO_ERROR;
    UBreakIterator* breaks = ubrk_open(UBRK_CHARACTER, "", reinterpret_cast<const UChar*>(lowered.data()),
                                       static_cast<int32_t>(lowered.size()), &status);
    if (U_FAILURE(status) || breaks == nullptr) {
        for (const char16_t unit : lowered) pieces.push_back(toUTF8(std::u16string_view(&unit, 1)));
        return pieces;
    }
    int32_t start = ubrk_first(breaks);
    for (int32_t end = ubrk_next(breaks); end != UBRK_DONE; start = end, end = ubrk_next(breaks)) {
        pieces.push_back(toUTF8(std::u16string_view(lowered).substr(static_cast<std::size_t>(start),
                                                                      static_cast<std::size_t>(end - start))));
    }
    ubrk_close(breaks);
    return pieces;
}

/// A glob matcher with no backtracking limit: a table over (pattern place, path place).
class Glob {
public:
    Glob(const std::vector<std::string>& pattern, const std::vector<std::string>& path) : path_(path) {
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            if (pattern[i] == "*" && i + 1 < pattern.size() && pattern[i + 1] == "*") {
                const bool slash = i + 2 < pattern.size() && pattern[i + 2] == "/";
                tokens_.push_back({slash ? Kind::anyFolders : Kind::anything, {}});
                i += slash ? 2 : 1;
                while (!slash && i + 1 < pattern.size() && pattern[i + 1] == "*") ++i;  // "***" is "**"
            } else if (pattern[i] == "*") {
                tokens_.push_back({Kind::withinFolder, {}});
            } else if (pattern[i] == "?") {
                tokens_.push_back({Kind::one, {}});
            } else {
                tokens_.push_back({Kind::literal, pattern[i]});
            }
        }
        memo_.assign((tokens_.size() + 1) * (path_.size() + 1), unknown);
    }

    bool matches() { return at(0, 0); }

private:
    enum class Kind : std::uint8_t { literal, one, withinFolder, anything, anyFolders };
    struct Token {
        Kind kind;
        std::string text;
    };
    static constexpr signed char unknown = -1;

    bool at(std::size_t p, std::size_t s) {
        signed char& known = memo_[p * (path_.size() + 1) + s];
        if (known != unknown) return known == 1;
        const bool result = compute(p, s);
        known = result ? 1 : 0;
        return result;
    }

    bool compute(std::size_t p, std::size_t s) {
        const std::size_t n = path_.size();
        if (p == tokens_.size()) return s == n;
        const Token& token = tokens_[p];
        switch (token.kind) {
        case Kind::literal: return s < n && path_[s] == token.text && at(p + 1, s + 1);
        case Kind::one: return s < n && path_[s] != "/" && at(p + 1, s + 1);
        case Kind::withinFolder:
            for (std::size_t k = s; k <= n; ++k) {
                if (at(p + 1, k)) return true;
                if (k < n && path_[k] == "/") break;
            }
            return false;
        case Kind::anything:
            for (std::size_t k = s; k <= n; ++k) {
                if (at(p + 1, k)) return true;
            }
            return false;
        case Kind::anyFolders:
            // No folders at all, or any run of them ending in "/".
            if (at(p + 1, s)) return true;
            for (std::size_t k = s; k < n; ++k) {
                if (path_[k] == "/" && at(p + 1, k + 1)) return true;
            }
            return false;
        }
        return false;
    }

    const std::vector<std::string>& path_;
    std::vector<Token> tokens_;
    std::vector<signed char> memo_;
};

std::string trimmed(std::string_view text) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return std::string(text);
}

} // namespace

std::vector<std::string> FileFilter::patterns(std::string_view field) {
    std::vector<std::string> out;
    int depth = 0;
    std::string current;
    const auto flush = [&] {
        std::string piece = trimmed(current);
        if (!piece.empty()) out.push_back(std::move(piece));
        current.clear();
    };
    for (const char c : field) {
        if (c == '{') ++depth;
        if (c == '}' && depth > 0) --depth;
        if (depth == 0 && (c == ',' || c == ' ' || c == '\t' || c == '\n')) {
            flush();
        } else {
            current += c;
        }
    }
    flush();
    return out;
}

bool FileFilter::isEmpty() const { return patterns(include).empty() && patterns(exclude).empty(); }

std::string FileFilter::summary() const {
    std::vector<std::string> parts;
    std::string included;
    for (const auto& pattern : patterns(include)) included += (included.empty() ? "" : " ") + pattern;
    if (!included.empty()) parts.push_back(included);
    for (const auto& pattern : patterns(exclude)) parts.push_back("\xE2\x88\x92" + pattern);
    std::string out;
    for (const auto& part : parts) out += (out.empty() ? "" : "  ") + part;
    return out;
}

bool FileFilter::match(std::string_view pattern, std::string_view path) {
    std::string_view subject = path;
    if (pattern.find('/') == std::string_view::npos) {
        const std::size_t slash = subject.rfind('/');
        if (slash != std::string_view::npos) subject.remove_prefix(slash + 1);
    }
    const std::vector<std::string> pathClusters = clusters(subject);
    for (const auto& expanded : expandBraces(std::string(pattern), braceDepth)) {
        if (Glob(clusters(expanded), pathClusters).matches()) return true;
    }
    return false;
}

bool FileFilter::matches(std::string_view path, std::string_view root) const {
    std::string_view relative = path;
    std::string_view base = root;
    while (base.size() > 1 && base.back() == '/') base.remove_suffix(1);
    if (!base.empty() && relative.size() > base.size() && relative.substr(0, base.size()) == base &&
        relative[base.size()] == '/') {
        relative.remove_prefix(base.size() + 1);
    }
    const auto included = patterns(include);
    if (!included.empty() &&
        std::none_of(included.begin(), included.end(), [&](const std::string& p) { return match(p, relative); })) {
        return false;
    }
    const auto excluded = patterns(exclude);
    return std::none_of(excluded.begin(), excluded.end(), [&](const std::string& p) { return match(p, relative); });
}

} // namespace brim
