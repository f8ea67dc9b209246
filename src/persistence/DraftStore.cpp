#include "persistence/DraftStore.h"

#include "charsets/EncodingDetector.h"
#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "common/UserResources.h"
#include "language/Language.h"
#include "settings/Settings.h"
#include "store/TextDocument.h"

#include <nlohmann/json.hpp>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <map>
#include <mutex>
#include <random>
#include <signal.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace brim::DraftStore {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// 2001-01-01 00:00:00 UTC in seconds since 1970.
constexpr std::int64_t referenceDateUnix = 978'307'200;
constexpr std::int64_t streamBlockSize = 1'048'576;
constexpr std::int64_t firstLineBytes = 4'096;
constexpr double secondsPerDay = 24.0 * 60 * 60;

std::mutex overrideLock;
std::optional<fs::path> overrideDirectory_;   // guarded by overrideLock

// Writes, renames and deletions of this process happen one at a time, whichever thread asks.
std::recursive_mutex folderLock;

bool sameMicrosecond(double a, double b) { return std::fabs(a - b) < 1e-6; }

double dateOf(const struct timespec& time) {
    return static_cast<double>(time.tv_sec - referenceDateUnix) + static_cast<double>(time.tv_nsec) / 1e9;
}

fs::path jsonPath(const fs::path& folder, std::string_view id) { return folder / (std::string(id) + ".json"); }
fs::path textPath(const fs::path& folder, std::string_view id) { return folder / (std::string(id) + ".text"); }

void writeAll(int fd, std::span<const std::uint8_t> bytes, const fs::path& shownPath) {
    while (!bytes.empty()) {
        const auto written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            throw posixError(L("Could not write %@", shownPath.string()), errno);
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
}

void syncFolder(const fs::path& folderPath) {
    const int fd = ::open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

/// A temporary file beside `dest` that goes away unless it was renamed into place.
class TemporaryFile {
public:
    explicit TemporaryFile(const fs::path& dest) : dest_(dest) {
        static std::atomic<unsigned> counter{0};
        path_ = dest.parent_path() / ("." + dest.filename().string() + "." + std::to_string(::getpid()) + "." +
                                      std::to_string(counter++) + ".tmp");
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd_ < 0) throw posixError(L("Could not write %@", dest.string()), errno);
    }
    ~TemporaryFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!committed_) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    [[nodiscard]] int fd() const { return fd_; }

    /// Synchronises the bytes, swaps the file in and synchronises the folder.
    void commit() {
        if (::fsync(fd_) != 0) throw posixError(L("Could not write %@", dest_.string()), errno);
        const int closing = fd_;
        fd_ = -1;
        if (::close(closing) != 0) throw posixError(L("Could not write %@", dest_.string()), errno);
        if (::rename(path_.c_str(), dest_.c_str()) != 0) throw posixError(L("Could not write %@", dest_.string()), errno);
        committed_ = true;
        syncFolder(dest_.parent_path());
    }

private:
    fs::path dest_;
    fs::path path_;
    int fd_ = -1;
    bool committed_ = false;
};

void replaceFile(const fs::path& dest, std::span<const std::uint8_t> bytes) {
    TemporaryFile temporary(dest);
    writeAll(temporary.fd(), bytes, dest);
    temporary.commit();
}

/// The whole of a regular file, or the reason it can't be read.
std::optional<std::vector<std::uint8_t>> readRegularFile(const fs::path& path, std::int64_t limit, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = S_ISDIR(info.st_mode) ? std::strerror(EISDIR) : L("not a regular file");
        ::close(fd);
        return std::nullopt;
    }
    const auto wanted = std::min<std::int64_t>(info.st_size, limit);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(wanted));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto got = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            error = std::strerror(errno);
            ::close(fd);
            return std::nullopt;
        }
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    ::close(fd);
    bytes.resize(done);
    return bytes;
}

template <typename T>
void putIfPresent(json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = *value;
}

json encode(const Draft& draft) {
    json object = json::object();
    object["id"] = draft.id;
    putIfPresent(object, "path", draft.path);
    putIfPresent(object, "remote", draft.remote);
    object["encodingID"] = draft.encodingID;
    object["fileEncodingID"] = draft.fileEncodingID;
    object["hasBOM"] = draft.hasBOM;
    object["lineEnding"] = draft.lineEnding;
    putIfPresent(object, "languageID", draft.languageID);
    putIfPresent(object, "indentation", draft.indentation);
    putIfPresent(object, "fileSize", draft.fileSize);
    putIfPresent(object, "fileModified", draft.fileModified);
    object["savedAt"] = draft.savedAt;
    putIfPresent(object, "closedAt", draft.closedAt);
    putIfPresent(object, "textSize", draft.textSize);
    putIfPresent(object, "pendingTextSize", draft.pendingTextSize);
    return object;
}

template <typename T>
bool take(const json& object, const char* key, T& into) {
    const auto found = object.find(key);
    if (found == object.end()) return false;
    if constexpr (std::is_same_v<T, std::string>) {
        if (!found->is_string()) return false;
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!found->is_boolean()) return false;
    } else if constexpr (std::is_same_v<T, double>) {
        if (!found->is_number()) return false;
    } else {
        if (!found->is_number_integer()) return false;
    }
    into = found->get<T>();
    return true;
}

template <typename T>
bool takeOptional(const json& object, const char* key, std::optional<T>& into) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) return true;
    T value{};
    if (!take(object, key, value)) return false;
    into = std::move(value);
    return true;
}

std::optional<Draft> decode(std::span<const std::uint8_t> bytes) {
    const auto object = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (object.is_discarded() || !object.is_object()) return std::nullopt;
    Draft draft;
    const bool whole = take(object, "id", draft.id) && takeOptional(object, "path", draft.path) &&
                       takeOptional(object, "remote", draft.remote) && take(object, "encodingID", draft.encodingID) &&
                       take(object, "fileEncodingID", draft.fileEncodingID) && take(object, "hasBOM", draft.hasBOM) &&
                       take(object, "lineEnding", draft.lineEnding) &&
                       takeOptional(object, "languageID", draft.languageID) &&
                       takeOptional(object, "indentation", draft.indentation) &&
                       takeOptional(object, "fileSize", draft.fileSize) &&
                       takeOptional(object, "fileModified", draft.fileModified) &&
                       take(object, "savedAt", draft.savedAt) && takeOptional(object, "closedAt", draft.closedAt) &&
                       takeOptional(object, "textSize", draft.textSize) &&
                       takeOptional(object, "pendingTextSize", draft.pendingTextSize);
    if (!whole) return std::nullopt;
    return draft;
}

std::vector<std::uint8_t> encodedBytes(const Draft& draft) {
    const auto text = encode(draft).dump();
    return {text.begin(), text.end()};
}

/// A description read from the folder, or why it can't be.
struct Description {
    std::optional<Draft> draft;
    std::string problem;   // the whole sentence, with the id
};

Description describe(const fs::path& folderPath, const std::string& id) {
    std::string error;
    const auto bytes = readRegularFile(jsonPath(folderPath, id), 1'048'576, error);
    if (!bytes) {
        if (error == std::strerror(ENOENT)) return {std::nullopt, L("draft %@ cannot be read: its description is missing.", id)};
        return {std::nullopt, L("draft %@ cannot be read: %@", id, error)};
    }
    auto draft = decode(*bytes);
    if (!draft || draft->id != id) return {std::nullopt, L("draft %@ cannot be read: its description is damaged.", id)};
    return {std::move(draft), {}};
}

/// Whether a text of `size` bytes is what the description says was written.
bool sizeIsWhole(const Draft& draft, std::int64_t size) {
    if (!draft.textSize) return true;   // written before sizes were kept
    return size == *draft.textSize || (draft.pendingTextSize && size == *draft.pendingTextSize);
}

/// The ids in the folder with which halves are there; dot files (temporary ones) are left out.
struct Listing {
    std::map<std::string, std::pair<bool, bool>> halves;   // id -> (json, text)
    std::vector<fs::path> temporaries;
};

Listing list(const fs::path& folderPath) {
    Listing listing;
    std::error_code error;
    for (fs::directory_iterator it(folderPath, error), end; !error && it != end; it.increment(error)) {
        const auto name = it->path().filename().string();
        if (name.starts_with(".")) {
            if (name.ends_with(".tmp")) listing.temporaries.push_back(it->path());
            continue;
        }
        const auto stem = it->path().stem().string();
        const auto extension = it->path().extension().string();
        if (!isValidID(stem)) continue;
        if (extension == ".json") listing.halves[stem].first = true;
        if (extension == ".text") listing.halves[stem].second = true;
    }
    return listing;
}

void sortInStoreOrder(std::vector<Draft>& drafts) {
    std::stable_sort(drafts.begin(), drafts.end(), [](const Draft& a, const Draft& b) {
        return a.savedAt != b.savedAt ? a.savedAt < b.savedAt : a.id < b.id;
    });
}

/// The temporary files of writers that are gone: "<name>.<pid>.<n>.tmp".
void removeAbandonedTemporaries(const std::vector<fs::path>& temporaries) {
    for (const auto& path : temporaries) {
        const auto name = path.filename().string();
        const auto end = name.rfind('.', name.size() - 5);
        if (end == std::string::npos) continue;
        const auto start = name.rfind('.', end - 1);
        if (start == std::string::npos) continue;
        const auto pid = std::atol(name.substr(start + 1, end - start - 1).c_str());
        if (pid <= 0 || pid == ::getpid()) continue;
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) ::unlink(path.c_str());
    }
}

void deleteFile(const fs::path& file) {
    std::error_code error;
    if (fs::is_regular_file(fs::symlink_status(file, error))) fs::remove(file, error);
}

std::string percentEncodedPath(const std::string& path) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const char signedChar : path) {
        const auto c = static_cast<unsigned char>(signedChar);
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::vector<std::string> splitLines(std::string_view text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' || text[i] == '\r') {
            lines.emplace_back(text.substr(start, i - start));
            if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
            start = i + 1;
        }
    }
    if (start < text.size()) lines.emplace_back(text.substr(start));
    return lines;
}

std::string trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\f' || c == '\v'; };
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return std::string(text);
}

std::int64_t countOccurrences(const icu::UnicodeString& haystack, const icu::UnicodeString& needle) {
    std::int64_t count = 0;
    for (int32_t at = haystack.indexOf(needle); at >= 0; at = haystack.indexOf(needle, at + needle.length())) ++count;
    return count;
}

std::string indentationWord(const IndentationStyle& style) {
    return style.usesSpaces() ? "spaces:" + std::to_string(style.width) : "tabs";
}

std::optional<IndentationStyle> indentationFromWord(std::string_view word) {
    if (word == "tabs") return IndentationStyle::tabs();
    if (!word.starts_with("spaces:")) return std::nullopt;
    const auto digits = word.substr(7);
    if (digits.empty() || digits.size() > 2 || !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
    const int width = std::atoi(std::string(digits).c_str());
    if (width < 1) return std::nullopt;
    return IndentationStyle::spaces(width);
}

} // namespace

Limits Limits::from(const Settings& settings) {
    return {settings.draftLifetimeDays(), settings.draftTotalLimitMB(), settings.draftSmartDelete()};
}

void setOverrideDirectory(std::optional<std::filesystem::path> directory) {
    const std::lock_guard guard(overrideLock);
    overrideDirectory_ = std::move(directory);
}

std::optional<std::filesystem::path> overrideDirectory() {
    const std::lock_guard guard(overrideLock);
    return overrideDirectory_;
}

std::filesystem::path folder() {
    if (auto chosen = overrideDirectory()) return *chosen;
    return UserResources::path(UserResources::Folder::drafts);
}

std::filesystem::path directory() {
    const auto path = folder();
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        fs::create_directories(path, error);
        if (error) throw BrimError(L("Could not make the folder %@: %@", path.string(), error.message()));
        ::chmod(path.c_str(), 0700);
    }
    return path;
}

std::string newID() {
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        const auto value = generator();
        for (std::size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<std::uint8_t>(value >> (8 * j));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string id;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) id += '-';
        id += hex[bytes[i] >> 4];
        id += hex[bytes[i] & 15];
    }
    return id;
}

bool isValidID(std::string_view id) {
    if (id.size() != 36) return false;
    for (std::size_t i = 0; i < id.size(); ++i) {
        const char c = id[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return true;
}

double now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return dateFromUnixNanoseconds(std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

double dateFromUnixNanoseconds(std::int64_t nanoseconds) {
    const auto seconds = nanoseconds / 1'000'000'000;
    const auto rest = nanoseconds % 1'000'000'000;
    return static_cast<double>(seconds - referenceDateUnix) + static_cast<double>(rest) / 1e9;
}

Draft write(const std::string& id, const TextDocument& document, std::optional<std::string> remote) {
    if (!isValidID(id)) throw BrimError(L("draft %@ cannot be written: that is not a draft's name.", id));
    const std::lock_guard guard(folderLock);
    const auto folderPath = directory();
    const auto size = document.byteCount();

    // A description already there first learns the size about to land, so that a crash between the
    // two renames leaves a text it still accepts as whole.
    if (auto previous = describe(folderPath, id).draft) {
        if (previous->textSize != size) {
            previous->pendingTextSize = size;
            replaceFile(jsonPath(folderPath, id), encodedBytes(*previous));
        }
    }

    const auto textFile = textPath(folderPath, id);
    {
        TemporaryFile temporary(textFile);
        document.table().stream(streamBlockSize, {}, [&](std::span<const std::uint8_t> block) {
            writeAll(temporary.fd(), block, textFile);
        });
        temporary.commit();
    }

    Draft draft;
    draft.id = id;
    if (remote) {
        draft.remote = std::move(remote);
    } else if (document.url) {
        draft.path = document.url->string();
    }
    draft.encodingID = document.encoding.id;
    draft.fileEncodingID = document.fileEncoding.id;
    draft.hasBOM = document.hasBOM;
    draft.lineEnding = std::string(word(document.lineEnding));
    draft.languageID = document.language.id;
    if (document.indentation) draft.indentation = indentationWord(*document.indentation);
    if (document.url && !draft.remote) {
        struct stat info {};
        if (::stat(document.url->c_str(), &info) == 0) {
            draft.fileSize = static_cast<std::int64_t>(info.st_size);
            draft.fileModified = dateOf(info.st_mtim);
        }
    }
    draft.savedAt = now();
    draft.textSize = size;
    replaceFile(jsonPath(folderPath, id), encodedBytes(draft));
    return draft;
}

bool exists(const std::string& id) {
    if (!isValidID(id)) return false;
    const auto folderPath = folder();
    std::error_code error;
    return fs::is_regular_file(jsonPath(folderPath, id), error) && fs::is_regular_file(textPath(folderPath, id), error);
}

std::pair<std::optional<std::pair<Draft, std::vector<std::uint8_t>>>, std::string>
readExplaining(const std::string& id) {
    if (!isValidID(id)) return {std::nullopt, L("draft %@ cannot be read: that is not a draft's name.", id)};
    const auto folderPath = folder();
    auto description = describe(folderPath, id);
    if (!description.draft) return {std::nullopt, description.problem};
    std::string error;
    auto bytes = readRegularFile(textPath(folderPath, id), std::numeric_limits<std::int64_t>::max(), error);
    if (!bytes) {
        if (error == std::strerror(ENOENT)) return {std::nullopt, L("draft %@ cannot be read: its text is missing.", id)};
        return {std::nullopt, L("draft %@ cannot be read: %@", id, error)};
    }
    if (!sizeIsWhole(*description.draft, static_cast<std::int64_t>(bytes->size()))) {
        return {std::nullopt, L("draft %@ cannot be read: its text is not the size that was written.", id)};
    }
    return {std::make_pair(std::move(*description.draft), std::move(*bytes)), {}};
}

std::optional<std::pair<Draft, std::vector<std::uint8_t>>> read(const std::string& id) {
    return readExplaining(id).first;
}

std::vector<Draft> all() {
    const auto folderPath = folder();
    std::vector<Draft> drafts;
    for (const auto& [id, halves] : list(folderPath).halves) {
        if (!halves.first) continue;
        if (auto draft = describe(folderPath, id).draft) drafts.push_back(std::move(*draft));
    }
    sortInStoreOrder(drafts);
    return drafts;
}

Survey survey() {
    const auto folderPath = folder();
    Survey result;
    std::vector<Draft> drafts;
    for (const auto& [id, halves] : list(folderPath).halves) {
        if (!halves.first) {
            result.damaged.push_back({id, L("draft %@ cannot be read: its description is missing.", id)});
            continue;
        }
        auto description = describe(folderPath, id);
        if (!description.draft) {
            result.damaged.push_back({id, description.problem});
            continue;
        }
        drafts.push_back(std::move(*description.draft));
    }
    sortInStoreOrder(drafts);
    for (auto& draft : drafts) {
        struct statx info {};
        const auto path = textPath(folderPath, draft.id);
        if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &info) != 0) {
            result.damaged.push_back({draft.id, errno == ENOENT ? L("draft %@ cannot be read: its text is missing.", draft.id)
                                                                : L("draft %@ cannot be read: %@", draft.id, std::strerror(errno))});
            continue;
        }
        if (!S_ISREG(info.stx_mode)) {
            result.damaged.push_back({draft.id, L("draft %@ cannot be read: %@", draft.id, std::strerror(EISDIR))});
            continue;
        }
        const auto size = static_cast<std::int64_t>(info.stx_size);
        if (!sizeIsWhole(draft, size)) {
            result.damaged.push_back({draft.id, L("draft %@ cannot be read: its text is not the size that was written.", draft.id)});
            continue;
        }
        const auto dateOfStatx = [](const struct statx_timestamp& time) {
            return dateOf(timespec{static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)});
        };
        Stored stored{std::move(draft), size, 0, dateOfStatx(info.stx_mtime)};
        stored.created = (info.stx_mask & STATX_BTIME) ? std::min(dateOfStatx(info.stx_btime), stored.edited) : stored.edited;
        result.stored.push_back(std::move(stored));
    }
    return result;
}

std::vector<Stored> stored() { return survey().stored; }

namespace {

bool setClosedAt(const std::string& id, std::optional<double> closedAt) {
    if (!isValidID(id)) return false;
    const std::lock_guard guard(folderLock);
    const auto folderPath = folder();
    auto description = describe(folderPath, id);
    if (!description.draft) return false;
    description.draft->closedAt = closedAt;
    try {
        replaceFile(jsonPath(folderPath, id), encodedBytes(*description.draft));
    } catch (const BrimError&) {
        return false;
    }
    return true;
}

} // namespace

bool orphan(const std::string& id) { return setClosedAt(id, now()); }
bool adopt(const std::string& id) { return setClosedAt(id, std::nullopt); }

void remove(const std::string& id) {
    if (!isValidID(id)) return;
    const std::lock_guard guard(folderLock);
    const auto folderPath = folder();
    // The description goes first: a text left alone is a half that nothing lists.
    discard(jsonPath(folderPath, id));
    discard(textPath(folderPath, id));
}

std::filesystem::path trashFolder() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data) return fs::path(data) / "Trash";
    const char* home = std::getenv("HOME");
    return fs::path(home && *home ? home : "/") / ".local/share/Trash";
}

void moveToTrash(const std::filesystem::path& file, const std::filesystem::path& trashRoot) {
    const auto files = trashRoot / "files";
    const auto info = trashRoot / "info";
    std::error_code error;
    fs::create_directories(files, error);
    fs::create_directories(info, error);
    if (error) throw BrimError(L("Could not make the folder %@: %@", trashRoot.string(), error.message()));
    ::chmod(trashRoot.c_str(), 0700);

    const auto absolute = fs::absolute(file, error);
    std::time_t clock = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&clock, &local);
    char deleted[32];
    std::strftime(deleted, sizeof deleted, "%Y-%m-%dT%H:%M:%S", &local);
    const std::string record =
        "[Trash Info]\nPath=" + percentEncodedPath(absolute.string()) + "\nDeletionDate=" + deleted + "\n";

    const auto base = file.filename().string();
    for (int attempt = 0; attempt < 10'000; ++attempt) {
        const auto name = attempt == 0 ? base : base + "." + std::to_string(attempt);
        const auto infoFile = info / (name + ".trashinfo");
        // The info file is claimed first, with O_EXCL: that is what reserves the name.
        const int fd = ::open(infoFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            throw posixError(L("Could not put %@ in the Trash", file.string()), errno);
        }
        const std::span<const std::uint8_t> recordBytes(reinterpret_cast<const std::uint8_t*>(record.data()), record.size());
        bool written = true;
        try {
            writeAll(fd, recordBytes, infoFile);
        } catch (const BrimError&) {
            written = false;
        }
        ::close(fd);
        const auto target = files / name;
        if (written && ::rename(file.c_str(), target.c_str()) == 0) return;
        const int renameError = errno;
        if (written && renameError == EXDEV) {
            fs::copy_file(file, target, error);
            if (!error && ::unlink(file.c_str()) == 0) return;
            fs::remove(target, error);
        }
        ::unlink(infoFile.c_str());
        throw posixError(L("Could not put %@ in the Trash", file.string()), written ? renameError : EIO);
    }
    throw BrimError(L("Could not put %@ in the Trash", file.string()));
}

void discard(const std::filesystem::path& file) {
    std::error_code error;
    if (!fs::is_regular_file(fs::symlink_status(file, error))) return;
    if (!overrideDirectory()) {
        try {
            moveToTrash(file, trashFolder());
            return;
        } catch (const BrimError&) {
            // No Trash could take it: deleting is the only way to let it go.
        } catch (const fs::filesystem_error&) {
        }
    }
    deleteFile(file);
}

std::vector<std::string> prune(const std::set<std::string>& keeping, int lifetimeDays, double now) {
    const std::lock_guard guard(folderLock);
    const auto folderPath = folder();
    const auto listing = list(folderPath);
    removeAbandonedTemporaries(listing.temporaries);
    const double lifetime = lifetimeDays * secondsPerDay;
    std::vector<std::string> gone;
    for (const auto& [id, halves] : listing.halves) {
        if (keeping.contains(id)) continue;
        if (halves.first) {
            const auto description = describe(folderPath, id);
            // What can't be read is not thrown away unseen.
            if (!description.draft) continue;
            const auto& draft = *description.draft;
            if (draft.closedAt && (lifetimeDays == 0 || now - *draft.closedAt < lifetime)) continue;
        }
        remove(id);
        gone.push_back(id);
    }
    return gone;
}

std::vector<std::string> enforceLimits(double now, const std::set<std::string>& protectedIDs, const Limits& limits) {
    const std::lock_guard guard(folderLock);
    std::vector<Stored> candidates;
    for (auto& entry : stored()) {
        if (!protectedIDs.contains(entry.draft.id)) candidates.push_back(std::move(entry));
    }
    std::vector<std::string> gone;
    if (limits.lifetimeDays >= 1) {
        const double lifetime = limits.lifetimeDays * secondsPerDay;
        std::erase_if(candidates, [&](const Stored& entry) {
            if (!entry.draft.closedAt || now - *entry.draft.closedAt < lifetime) return false;
            remove(entry.draft.id);
            gone.push_back(entry.draft.id);
            return true;
        });
    }
    if (limits.totalLimitMB >= 1) {
        const std::int64_t limit = std::int64_t{limits.totalLimitMB} << 20;
        std::int64_t sum = 0;
        for (const auto& entry : candidates) sum += entry.bytes;
        if (sum > limit) {
            if (limits.smartDelete) {
                std::stable_sort(candidates.begin(), candidates.end(),
                                 [](const Stored& a, const Stored& b) { return a.bytes > b.bytes; });
            } else {
                std::stable_sort(candidates.begin(), candidates.end(),
                                 [](const Stored& a, const Stored& b) { return a.edited < b.edited; });
            }
            for (const auto& entry : candidates) {
                if (sum <= limit) break;
                remove(entry.draft.id);
                gone.push_back(entry.draft.id);
                sum -= entry.bytes;
            }
        }
    }
    return gone;
}

std::vector<Match> search(std::string_view text, bool caseSensitive) {
    std::vector<Match> matches;
    if (text.empty()) return matches;
    auto needle = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    if (!caseSensitive) needle.foldCase();
    for (const auto& draft : all()) {
        const auto* encoding = TextEncoding::byId(draft.encodingID);
        if (!encoding) continue;
        auto reading = read(draft.id);
        if (!reading) continue;
        const auto decoded = encoding->decode(reading->second);
        Match match{draft.id, 0, {}, 0};
        std::int64_t number = 0;
        for (const auto& line : splitLines(decoded)) {
            ++number;
            auto haystack = icu::UnicodeString::fromUTF8(icu::StringPiece(line.data(), static_cast<int32_t>(line.size())));
            if (!caseSensitive) haystack.foldCase();
            const auto hits = countOccurrences(haystack, needle);
            if (hits == 0) continue;
            if (match.count == 0) {
                match.line = trimmed(line);
                match.lineNumber = number;
            }
            match.count += hits;
        }
        if (match.count > 0) matches.push_back(std::move(match));
    }
    return matches;
}

std::optional<std::string> firstLine(const std::string& id) {
    if (!isValidID(id)) return std::nullopt;
    const auto folderPath = folder();
    const auto description = describe(folderPath, id);
    const auto* encoding = description.draft ? TextEncoding::byId(description.draft->encodingID) : nullptr;
    if (!encoding) encoding = &TextEncoding::utf8();
    std::string error;
    const auto head = readRegularFile(textPath(folderPath, id), firstLineBytes, error);
    if (!head) return std::nullopt;
    for (const auto& line : splitLines(encoding->decode(*head))) {
        auto kept = trimmed(line);
        if (!kept.empty()) return kept;
    }
    return std::nullopt;
}

std::string Draft::label() const {
    if (path) {
        const auto name = fs::path(*path).filename().string();
        if (!name.empty()) return name;
    }
    if (remote) {
        const auto slash = remote->find_last_of('/');
        const auto name = slash == std::string::npos ? *remote : remote->substr(slash + 1);
        if (!name.empty()) return name;
    }
    if (auto line = firstLine(id)) return *line;
    return L("Untitled");
}

bool Draft::fileChangedSince() const {
    if (!path) return false;
    struct stat info {};
    if (::stat(path->c_str(), &info) != 0) return fileSize.has_value() || fileModified.has_value();
    if (!fileSize || *fileSize != static_cast<std::int64_t>(info.st_size)) return true;
    return !fileModified || !sameMicrosecond(*fileModified, dateOf(info.st_mtim));
}

std::string signature(const TextDocument& document) {
    std::string result = std::to_string(document.editGeneration());
    result += "|" + document.encoding.id;
    result += "|" + document.fileEncoding.id;
    result += "|" + std::string(word(document.lineEnding));
    result += document.hasBOM ? "|true" : "|false";
    result += "|" + document.language.id;
    result += "|" + (document.url ? document.url->string() : std::string());
    return result;
}

SerialQueue& queue() {
    static SerialQueue shared("brim.drafts");
    return shared;
}

void tidyDrafts(std::function<std::set<std::string>()> loadProtectedIDs, Limits limits) {
    queue().async([load = std::move(loadProtectedIDs), limits](const IsCancelled&) {
        const auto protectedIDs = load ? load() : std::set<std::string>{};
        enforceLimits(now(), protectedIDs, limits);
    });
}

std::shared_ptr<TextDocument> documentFromDraft(const Draft& draft, std::vector<std::uint8_t> bytes) {
    TextDocument::DraftFacts facts;
    if (draft.path) facts.url = fs::path(*draft.path);
    if (const auto* encoding = TextEncoding::byId(draft.encodingID)) {
        facts.encoding = *encoding;
    } else {
        const auto name = facts.url ? facts.url->filename().string() : std::string();
        facts.encoding = EncodingDetector::detect(bytes, TextEncoding::cp1252(), name).encoding;
    }
    const auto* fileEncoding = TextEncoding::byId(draft.fileEncodingID);
    facts.fileEncoding = fileEncoding ? *fileEncoding : facts.encoding;
    facts.hasBOM = draft.hasBOM;
    const auto lineEnding = lineEndingForWord(draft.lineEnding);
    facts.lineEnding = lineEnding.value_or(LineEnding::lf);
    if (draft.languageID) facts.language = Language::named(*draft.languageID);
    if (draft.indentation) facts.indentation = indentationFromWord(*draft.indentation);
    auto document = TextDocument::fromDraft(std::move(bytes), facts);
    if (!lineEnding) document->lineEnding = document->lineEndingReport.dominant;
    return document;
}

std::optional<std::string> writeDraft(WindowDraft& window, const TextDocument& document, std::optional<std::string> remote) {
    const bool hasFile = document.url.has_value() || remote.has_value();
    if ((!document.isDirty() && hasFile) || (!hasFile && document.byteCount() == 0)) {
        window.writtenDraftSignature.reset();
        if (window.draftID) remove(*window.draftID);
        window.draftID.reset();
        return std::nullopt;
    }
    if (!window.draftID) window.draftID = newID();
    const auto& id = *window.draftID;
    auto now = signature(document);
    if (window.writtenDraftSignature == now && exists(id)) return id;
    write(id, document, std::move(remote));
    window.writtenDraftSignature = std::move(now);
    return id;
}

std::optional<std::string> closeWindow(WindowDraft& window, const TextDocument& document, std::optional<std::string> remote) {
    std::optional<std::string> kept;
    if (window.discardedByUser) {
        if (window.draftID) remove(*window.draftID);
    } else if (auto id = writeDraft(window, document, std::move(remote))) {
        if (orphan(*id)) kept = *id;
    }
    window.draftID.reset();
    window.writtenDraftSignature.reset();
    return kept;
}

void savedSuccessfully(WindowDraft& window) {
    if (window.draftID) remove(*window.draftID);
    window.draftID.reset();
    window.writtenDraftSignature.reset();
}

std::shared_ptr<TextDocument> adoptDraft(WindowDraft& window, const Draft& draft, std::vector<std::uint8_t> bytes) {
    auto document = documentFromDraft(draft, std::move(bytes));
    window.draftID = draft.id;
    window.writtenDraftSignature.reset();
    if (exists(draft.id)) window.writtenDraftSignature = signature(*document);
    return document;
}

std::vector<Damage> recoverAll(const std::function<void(const Draft&, std::vector<std::uint8_t>)>& open) {
    auto found = survey();
    for (const auto& entry : found.stored) {
        if (!entry.draft.isOrphaned()) continue;
        auto [reading, problem] = readExplaining(entry.draft.id);
        if (!reading) {
            found.damaged.push_back({entry.draft.id, problem});
            continue;
        }
        open(reading->first, std::move(reading->second));
        adopt(entry.draft.id);
    }
    return found.damaged;
}

} // namespace brim::DraftStore
