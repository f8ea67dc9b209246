#pragma once

#include "common/SerialQueue.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brim {

class Settings;
class TextDocument;

/// Unsaved work kept on disk apart from the file it belongs to, so that a closed window, a quit or a
/// crash loses nothing. Two files per draft in the "Drafts" folder of the support folder: "X.text",
/// the document's bytes exactly as the buffer holds them, and "X.json", the `Draft` record.
///
/// Every file is replaced whole (temporary file, fsync, rename, folder fsync), never written in place,
/// and the ".text" lands before the ".json": a reader that sees a description sees complete bytes.
/// Dates are seconds since 2001-01-01 00:00 UTC, as doubles; compare them at microseconds.
namespace DraftStore {

/// The record of "X.json"; its JSON keys are the field names, unset optionals are left out.
struct Draft {
    std::string id;                           ///< a UUID in upper case
    std::optional<std::string> path;          ///< the file the work belongs to; unset when untitled
    std::optional<std::string> remote;        ///< the location of a remote document, as text
    std::string encodingID;                   ///< of the bytes in "X.text"
    std::string fileEncodingID;               ///< what the file is written in
    bool hasBOM = false;
    std::string lineEnding = "lf";            ///< the stored word of the line ending
    std::optional<std::string> languageID;
    std::optional<std::string> indentation;   ///< "tabs" or "spaces:4"
    std::optional<std::int64_t> fileSize;     ///< the file's size when the draft was written
    std::optional<double> fileModified;       ///< the file's modification date then
    double savedAt = 0;                       ///< the draft's last write
    std::optional<double> closedAt;           ///< set: its window closed with the work unsaved
    /// The size of "X.text" as written, so that a file cut short is recognised. While a rewrite is under
    /// way `pendingTextSize` holds the size of the bytes about to land, and either size is whole.
    std::optional<std::int64_t> textSize;
    std::optional<std::int64_t> pendingTextSize;

    /// The file's last path component; else the first line of the text; else "Untitled".
    [[nodiscard]] std::string label() const;
    [[nodiscard]] bool isOrphaned() const { return closedAt.has_value(); }
    /// True when the draft has a path and the file's size or modification date is no longer what it was
    /// when the draft was written (a file that has gone counts as changed). False with no file.
    [[nodiscard]] bool fileChangedSince() const;

    friend bool operator==(const Draft&, const Draft&) = default;
};

/// A draft with what the folder says of its ".text" file, read from the file system alone.
struct Stored {
    Draft draft;
    std::int64_t bytes = 0;
    double created = 0;
    double edited = 0;
};

/// One draft found by `search`.
struct Match {
    std::string id;
    std::int64_t count = 0;       ///< hits in that draft
    std::string line;             ///< the first matching line, trimmed
    std::int64_t lineNumber = 0;  ///< from 1
};

/// A draft that could not be read, and why, in the user's words.
struct Damage {
    std::string id;
    std::string reason;
};

/// Every draft of the folder that reads whole, and those that do not.
struct Survey {
    std::vector<Stored> stored;
    std::vector<Damage> damaged;
};

/// The limits the user set for drafts that no open window holds.
struct Limits {
    int lifetimeDays = 0;    ///< orphaned drafts older than this go; 0 keeps them
    int totalLimitMB = 0;    ///< the size of them all; 0 is no limit
    bool smartDelete = true; ///< over the limit, the biggest go first; else the oldest
    [[nodiscard]] static Limits from(const Settings& settings);
};

/// Replaces the folder, for tests and checks: made on first use; what is discarded there is deleted
/// rather than put in the Trash.
void setOverrideDirectory(std::optional<std::filesystem::path> directory);
[[nodiscard]] std::optional<std::filesystem::path> overrideDirectory();

/// The folder, without making it.
[[nodiscard]] std::filesystem::path folder();
/// The folder, made (mode 0700) if missing. Throws `BrimError` when it can't be made.
[[nodiscard]] std::filesystem::path directory();

/// A new id: a random UUID in upper case.
[[nodiscard]] std::string newID();
/// Whether `id` has the shape of an id; anything else is never used to name a file.
[[nodiscard]] bool isValidID(std::string_view id);

/// Now, in seconds since 2001-01-01.
[[nodiscard]] double now();
/// Seconds since 2001-01-01 from nanoseconds since 1970.
[[nodiscard]] double dateFromUnixNanoseconds(std::int64_t nanoseconds);

/// Stores both files of the draft of `document`: the bytes streamed from its table in blocks (memory
/// stays constant whatever the size), then the description. `remote` is the text form of a remote
/// document's location. Throws `BrimError`; on failure the previous draft is as it was.
Draft write(const std::string& id, const TextDocument& document, std::optional<std::string> remote = {});

/// Whether "id.json" and "id.text" are both there.
[[nodiscard]] bool exists(const std::string& id);

/// The description and the bytes; none when either file is missing, can't be read or decoded, or the
/// text is not the size that was written.
[[nodiscard]] std::optional<std::pair<Draft, std::vector<std::uint8_t>>> read(const std::string& id);
/// The same, with the reason in the user's words when it fails.
[[nodiscard]] std::pair<std::optional<std::pair<Draft, std::vector<std::uint8_t>>>, std::string>
readExplaining(const std::string& id);

/// Every ".json" of the folder that decodes, oldest write first (ties by id): the store's order.
[[nodiscard]] std::vector<Draft> all();
/// `all()` with the facts of each ".text" file; a draft whose text is missing is left out.
[[nodiscard]] std::vector<Stored> stored();
/// Everything in the folder: the drafts that are whole and the damaged ones, each named. A ".text" with
/// no description is damaged only while it is not a write under way. Reads nothing but descriptions.
[[nodiscard]] Survey survey();

/// Marks the draft orphaned (closed now) / held again, rewriting "id.json" only. False when it can't.
bool orphan(const std::string& id);
bool adopt(const std::string& id);

/// Discards both files. Never fails.
void remove(const std::string& id);

/// Lets a file go: into the freedesktop Trash, or deleted when an override directory is set or no
/// Trash can take it. Never fails.
void discard(const std::filesystem::path& file);
/// Moves `file` into the freedesktop Trash at `trashRoot` ("files" and "info/*.trashinfo"). Throws
/// `BrimError` when it can't.
void moveToTrash(const std::filesystem::path& file, const std::filesystem::path& trashRoot);
/// `${XDG_DATA_HOME:-~/.local/share}/Trash`.
[[nodiscard]] std::filesystem::path trashFolder();

/// Keeps the drafts in `keeping` and the orphaned ones younger than the lifetime (0 days: no age
/// limit); discards every other ".json" and ".text", the halves a crash left among them. A description
/// that can't be read is never discarded. Returns the ids that went.
std::vector<std::string> prune(const std::set<std::string>& keeping, int lifetimeDays, double now);

/// The user's limits on drafts no window holds: `protectedIDs` (those the session names) survive
/// whatever the limits say. Returns the ids that went, in the order they went.
std::vector<std::string> enforceLimits(double now, const std::set<std::string>& protectedIDs, const Limits& limits);

/// Drafts holding `text`, one match each, in the store's order. Case is ignored unless asked.
[[nodiscard]] std::vector<Match> search(std::string_view text, bool caseSensitive);

/// The first non-blank line of the first 4096 bytes of "id.text", decoded and trimmed.
[[nodiscard]] std::optional<std::string> firstLine(const std::string& id);

/// What a rewrite must notice: edit generation, encodings, line ending, BOM, language, path.
[[nodiscard]] std::string signature(const TextDocument& document);

/// The queue ("brim.drafts") on which session saves and limit enforcement run, one after the other,
/// so that a tidy pass never deletes a draft that was just written.
[[nodiscard]] SerialQueue& queue();

/// Runs `enforceLimits` on the queue with the ids `loadProtectedIDs` gives there (the session's), now.
void tidyDrafts(std::function<std::set<std::string>()> loadProtectedIDs, Limits limits);

/// A document rebuilt from a draft: dirty, pointing at its file; names that are unknown keep what
/// detection gives.
[[nodiscard]] std::shared_ptr<TextDocument> documentFromDraft(const Draft& draft, std::vector<std::uint8_t> bytes);

/// What a window knows of its draft.
struct WindowDraft {
    std::optional<std::string> draftID;
    std::optional<std::string> writtenDraftSignature;
    bool discardedByUser = false;
};

/// Keeps the window's unsaved work: nothing (and any held draft removed) when there is nothing to keep;
/// no write when the signature says the disk is up to date. Returns the id held. Throws `BrimError`
/// when the draft can't be written; the previous one stays.
std::optional<std::string> writeDraft(WindowDraft& window, const TextDocument& document,
                                      std::optional<std::string> remote = {});

/// The window is closing: unless the user discarded the work, its draft is written and orphaned, to
/// wait for recovery; else it is removed. The window forgets the id. Returns the orphaned id.
std::optional<std::string> closeWindow(WindowDraft& window, const TextDocument& document,
                                       std::optional<std::string> remote = {});

/// After a successful save: the draft is no longer needed.
void savedSuccessfully(WindowDraft& window);

/// Opens a draft into a window: the document, dirty; the window holds the id, and the signature is set
/// when the draft is on disk so that the next session save writes nothing.
[[nodiscard]] std::shared_ptr<TextDocument> adoptDraft(WindowDraft& window, const Draft& draft,
                                                       std::vector<std::uint8_t> bytes);

/// Recovers every orphaned draft: `open` is given each one that reads whole (the window builds its
/// document with `adoptDraft`), which is then held again (`adopt`). Damaged drafts stay in the store,
/// untouched, and are returned; they never stop the others.
std::vector<Damage> recoverAll(const std::function<void(const Draft&, std::vector<std::uint8_t>)>& open);

} // namespace DraftStore
} // namespace brim
