#include "settings/SettingsStore.h"

#include "common/BrimError.h"
#include "common/Localization.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <random>
#include <set>
#include <system_error>
#include <tuple>

namespace brim {

namespace {

// A settings file larger than this is not something the program wrote; it is treated as unreadable
// rather than read into memory.
constexpr std::int64_t largestFile = 16 * 1'048'576;

struct ReadOutcome {
    enum class Kind { missing, read, failed } kind = Kind::missing;
    std::string bytes;
    int error = 0;
};

ReadOutcome readWhole(const std::filesystem::path& path) {
    ReadOutcome outcome;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return outcome;
        outcome.kind = ReadOutcome::Kind::failed;
        outcome.error = errno;
        return outcome;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > largestFile) {
        outcome.kind = ReadOutcome::Kind::failed;
        outcome.error = S_ISDIR(info.st_mode) ? EISDIR : (info.st_size > largestFile ? EFBIG : errno);
        ::close(fd);
        return outcome;
    }
    std::array<char, 65'536> buffer{};
    while (true) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            outcome.kind = ReadOutcome::Kind::failed;
            outcome.error = errno;
            ::close(fd);
            return outcome;
        }
        if (got == 0) break;
        outcome.bytes.append(buffer.data(), static_cast<std::size_t>(got));
        if (static_cast<std::int64_t>(outcome.bytes.size()) > largestFile) {
            outcome.kind = ReadOutcome::Kind::failed;
            outcome.error = EFBIG;
            ::close(fd);
            return outcome;
        }
    }
    ::close(fd);
    outcome.kind = ReadOutcome::Kind::read;
    return outcome;
}

std::string uniqueName() {
    std::random_device device;
    std::array<char, 33> text{};
    for (std::size_t i = 0; i < 4; ++i) {
        std::snprintf(text.data() + i * 8, 9, "%08x", static_cast<unsigned>(device()));
    }
    return ".brim-" + std::string(text.data()) + ".tmp";
}

void syncFolder(const std::filesystem::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd); // best effort: the rename is already visible
    ::close(fd);
}

// Writes `bytes` to a temporary file beside `target`, flushes it to the disk and renames it into
// place, so the file is at every moment either the old one or the new one, whole.
void writeAtomically(const std::filesystem::path& target, std::string_view bytes) {
    const auto folder = target.parent_path();
    std::error_code ignored;
    if (!std::filesystem::is_directory(folder, ignored)) {
        std::filesystem::create_directories(folder, ignored);
        ::chmod(folder.c_str(), 0700);
    }
    const auto temporary = folder / uniqueName();
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw posixError(L("The settings could not be saved to %@", target.string()), errno);
    auto fail = [&](int error) {
        ::close(fd);
        ::unlink(temporary.c_str());
        throw posixError(L("The settings could not be saved to %@", target.string()), error);
    };
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) fail(errno);
        done += static_cast<std::size_t>(wrote);
    }
    if (::fsync(fd) != 0) fail(errno);
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw posixError(L("The settings could not be saved to %@", target.string()), error);
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw posixError(L("The settings could not be saved to %@", target.string()), error);
    }
    syncFolder(folder);
}

// Line and column (from 1) of a byte offset, for a message about where a file went wrong.
std::pair<std::optional<std::int64_t>, std::int64_t> lineAndColumn(std::string_view text, std::size_t offset) {
    std::int64_t line = 1;
    std::int64_t column = 1;
    for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            ++column;
        }
    }
    return {line, column};
}

std::optional<nlohmann::json> parsedObject(std::string_view bytes) {
    nlohmann::json parsed = nlohmann::json::parse(bytes, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
    return parsed;
}

bool onlyBlanks(std::string_view bytes) {
    return bytes.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// A symbolic link to the settings (a user's dotfiles, say) stays a link: the file it names is the
// one that is replaced.
std::filesystem::path resolvedTarget(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_symlink(path, error)) return path;
    auto target = std::filesystem::read_symlink(path, error);
    if (error) return path;
    if (target.is_relative()) target = path.parent_path() / target;
    return target.lexically_normal();
}

} // namespace

SettingsStore::SettingsStore(std::filesystem::path file) : file_(std::move(file)) { load(); }

SettingsStore::~SettingsStore() { flush(); }

std::optional<SettingsStore::Stamp> SettingsStore::stampOnDisk() const {
    struct stat info {};
    if (::stat(file_.c_str(), &info) != 0) return std::nullopt;
    Stamp stamp;
    stamp.device = static_cast<std::uint64_t>(info.st_dev);
    stamp.inode = static_cast<std::uint64_t>(info.st_ino);
    stamp.size = static_cast<std::int64_t>(info.st_size);
    stamp.modified = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    return stamp;
}

void SettingsStore::load() {
    std::lock_guard guard(lock_);
    const auto stamp = stampOnDisk();
    ReadOutcome outcome = readWhole(file_);
    if (outcome.kind == ReadOutcome::Kind::missing) return;
    if (outcome.kind == ReadOutcome::Kind::failed) {
        writable_ = false;
        loadProblem_ = L("The settings file %@ could not be read: %@. The defaults are in use, and changes are not "
                     "saved until the program is started again.",
                     file_.string(), std::string(std::strerror(outcome.error)));
        return;
    }
    if (onlyBlanks(outcome.bytes)) {
        stamp_ = stamp;
        return;
    }
    nlohmann::json parsed;
    std::optional<std::int64_t> faultLine;
    std::int64_t faultColumn = 0;
    try {
        parsed = nlohmann::json::parse(outcome.bytes);
    } catch (const nlohmann::json::parse_error& error) {
        std::tie(faultLine, faultColumn) = lineAndColumn(outcome.bytes, error.byte > 0 ? error.byte - 1 : 0);
    }
    if (!faultLine && parsed.is_object()) {
        values_ = std::move(parsed);
        stamp_ = stamp;
        return;
    }
    // Keep the file the user may have written by hand; never overwrite it with defaults.
    std::filesystem::path aside = file_;
    aside += ".bad";
    for (int n = 2; std::filesystem::exists(aside) && n < 100; ++n) {
        aside = file_;
        aside += ".bad." + std::to_string(n);
    }
    const auto source = resolvedTarget(file_);
    if (::rename(source.c_str(), aside.c_str()) != 0) {
        writable_ = false;
        loadProblem_ = L("The settings file %@ could not be read, and it could not be kept aside: %@. The defaults are in "
                     "use, and changes are not saved until the program is started again.",
                     file_.string(), std::string(std::strerror(errno)));
        return;
    }
    if (faultLine) {
        loadProblem_ = L("The settings file %@ is not valid JSON (line %d, column %d). It was kept as %@ and the "
                     "defaults are in use.",
                     file_.string(), *faultLine, faultColumn, aside.string());
    } else {
        loadProblem_ = L("The settings file %@ does not hold a JSON object. It was kept as %@ and the defaults are in use.",
                     file_.string(), aside.string());
    }
}

std::optional<nlohmann::json> SettingsStore::value(std::string_view key) const {
    std::lock_guard guard(lock_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return *found;
}

bool SettingsStore::contains(std::string_view key) const {
    std::lock_guard guard(lock_);
    return values_.contains(key);
}

nlohmann::json SettingsStore::snapshot() const {
    std::lock_guard guard(lock_);
    return values_;
}

std::uint64_t SettingsStore::revision(std::string_view key) const {
    std::lock_guard guard(lock_);
    const auto found = revisions_.find(key);
    return found == revisions_.end() ? 0 : found->second;
}

std::optional<std::string> SettingsStore::problem() const {
    std::lock_guard guard(lock_);
    return writeProblem_ ? writeProblem_ : loadProblem_;
}

void SettingsStore::bumpChangedLocked(const nlohmann::json& before, const nlohmann::json& after) {
    std::set<std::string, std::less<>> keys;
    for (const auto& item : before.items()) keys.insert(item.key());
    for (const auto& item : after.items()) keys.insert(item.key());
    for (const auto& key : keys) {
        const auto old = before.find(key);
        const auto now = after.find(key);
        const bool same = (old == before.end()) == (now == after.end()) && (old == before.end() || *old == *now);
        if (!same) revisions_[key] = nextRevision_++;
    }
}

void SettingsStore::mergeFromDiskLocked() {
    // While a write of this process is waiting or under way, what is on the disk is older than
    // what is in memory, and the stamp is not yet the one this process will leave.
    if (!writable_ || pending_ || writing_) return;
    const auto stamp = stampOnDisk();
    if (stamp == stamp_) return;
    if (!stamp) {
        // Removed by someone else: what this process holds is written back at the next change.
        stamp_.reset();
        return;
    }
    const ReadOutcome outcome = readWhole(file_);
    if (outcome.kind != ReadOutcome::Kind::read) return;
    auto parsed = onlyBlanks(outcome.bytes) ? std::optional(nlohmann::json::object()) : parsedObject(outcome.bytes);
    if (!parsed) return; // a half-edited file: ours stands, and the next write replaces it
    bumpChangedLocked(values_, *parsed);
    values_ = std::move(*parsed);
    stamp_ = stamp;
}

void SettingsStore::scheduleWriteLocked() {
    if (!writable_ || pending_) return;
    pending_ = true;
    if (writing_) return; // the write under way takes this change with it when it ends
    queue_.async([this](const IsCancelled&) { writeNow(); });
}

void SettingsStore::writeNow() {
    std::string bytes;
    {
        std::lock_guard guard(lock_);
        if (!pending_) return;
        pending_ = false;
        writing_ = true;
        bytes = values_.dump(2) + "\n";
    }
    std::optional<std::string> failure;
    try {
        writeAtomically(resolvedTarget(file_), bytes);
    } catch (const BrimError& error) {
        failure = error.what();
    }
    std::lock_guard guard(lock_);
    writing_ = false;
    stamp_ = stampOnDisk();
    writeProblem_ = std::move(failure);
    if (pending_) queue_.async([this](const IsCancelled&) { writeNow(); });
}

void SettingsStore::flush() {
    while (true) {
        {
            std::lock_guard guard(lock_);
            if (!pending_ && !writing_) return;
        }
        queue_.drain();
    }
}

bool SettingsStore::set(std::string_view key, nlohmann::json value) {
    std::lock_guard guard(lock_);
    mergeFromDiskLocked();
    const auto found = values_.find(key);
    if (found != values_.end() && *found == value) return false;
    values_[std::string(key)] = std::move(value);
    revisions_[std::string(key)] = nextRevision_++;
    scheduleWriteLocked();
    return true;
}

bool SettingsStore::remove(std::string_view key) {
    std::lock_guard guard(lock_);
    mergeFromDiskLocked();
    const auto found = values_.find(key);
    if (found == values_.end()) return false;
    values_.erase(found);
    revisions_[std::string(key)] = nextRevision_++;
    scheduleWriteLocked();
    return true;
}

bool SettingsStore::reloadIfChanged() {
    std::lock_guard guard(lock_);
    const nlohmann::json before = values_;
    mergeFromDiskLocked();
    return before != values_;
}

} // namespace brim
