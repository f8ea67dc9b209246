#pragma once

#include "common/SerialQueue.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace brim {

/// The flat key-value store behind `Settings`: one JSON object in one file, read once when the
/// store is made and written, whole and atomically, after every change. The write happens at once
/// on a queue of the store's own, so a setter never waits for the disk; changes that come while a
/// write is under way are written together right after it. `flush` (and the destructor) wait.
///
/// A file that cannot be parsed is never overwritten: it is renamed to "settings.json.bad" (or
/// "settings.json.bad.2" and so on when that name is taken), the store starts empty, and
/// `problem()` says so in the user's words. A file that cannot even be read leaves the store
/// read-only for the rest of the process, so the unreadable file is never replaced by defaults.
/// When another process rewrote the file since it was last read, a change re-reads it first, so
/// that keys the other process set are kept.
///
/// Thread-safe: any thread may read and write.
class SettingsStore {
public:
    explicit SettingsStore(std::filesystem::path file);
    /// Waits for the last write.
    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    [[nodiscard]] const std::filesystem::path& file() const { return file_; }

    /// The stored value, if there is one.
    [[nodiscard]] std::optional<nlohmann::json> value(std::string_view key) const;
    [[nodiscard]] bool contains(std::string_view key) const;

    /// Stores `value` under `key` and has the file written. Returns false, and writes nothing, when
    /// the same value was stored already. A failed write keeps the value in memory and sets `problem`.
    bool set(std::string_view key, nlohmann::json value);

    /// Removes `key` and has the file written; false when it was not stored.
    bool remove(std::string_view key);

    /// Waits until every change made so far is on the disk (or has failed to get there).
    void flush();

    /// Re-reads the file when another process replaced it since this one last read or wrote it.
    /// Returns whether any stored value changed. A file that no longer parses is left alone.
    bool reloadIfChanged();

    /// What went wrong with the last read or write, in the user's words; none when all is well.
    [[nodiscard]] std::optional<std::string> problem() const;

    /// Grows whenever the value stored under `key` changes, from this process or from disk, so a
    /// cache of something decoded from the value knows when it is stale.
    [[nodiscard]] std::uint64_t revision(std::string_view key) const;

    /// The whole store as one JSON object.
    [[nodiscard]] nlohmann::json snapshot() const;

private:
    struct Stamp {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::int64_t size = -1;
        std::int64_t modified = 0; // nanoseconds
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };

    void load();
    void scheduleWriteLocked();
    void writeNow();
    void mergeFromDiskLocked();
    void bumpChangedLocked(const nlohmann::json& before, const nlohmann::json& after);
    [[nodiscard]] std::optional<Stamp> stampOnDisk() const;

    std::filesystem::path file_;
    mutable std::mutex lock_;
    nlohmann::json values_ = nlohmann::json::object();        // guarded by lock_
    std::map<std::string, std::uint64_t, std::less<>> revisions_; // guarded by lock_
    std::uint64_t nextRevision_ = 1;                           // guarded by lock_
    std::optional<Stamp> stamp_;                               // guarded by lock_; the file as last seen
    std::optional<std::string> loadProblem_;                   // guarded by lock_
    std::optional<std::string> writeProblem_;                  // guarded by lock_
    bool writable_ = true;                                     // guarded by lock_
    bool pending_ = false;                                     // guarded by lock_; a change waits to be written
    bool writing_ = false;                                     // guarded by lock_; a write is under way
    SerialQueue queue_{"brim.settings"};                       // last: its thread goes first
};

} // namespace brim
