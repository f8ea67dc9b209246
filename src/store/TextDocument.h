#pragma once

#include "bytes/ByteSource.h"
#include "bytes/LineIndex.h"
#include "bytes/PieceTable.h"
#include "charsets/EncodingDetector.h"
#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"
#include "charsets/Transcoder.h"
#include "common/SerialQueue.h"
#include "language/Language.h"
#include "settings/EditorConfig.h"
#include "settings/IndentationStyle.h"
#include "store/DocumentChange.h"
#include "store/FixedFields.h"
#include "store/GitAttributes.h"
#include "store/IndentationDetector.h"
#include "store/LineEndingDetector.h"

#if __has_include("charsets/RecordFormat.h")
#include "charsets/RecordFormat.h"
#define BRIM_HAS_RECORD_FORMAT 1
#else
#define BRIM_HAS_RECORD_FORMAT 0
#endif

// Card decks in six-bit codes open with a card to a line once their codec is part of the build.
#if __has_include("charsets/SixBit.h")
#include "charsets/SixBit.h"
#define BRIM_HAS_SIX_BIT 1
#else
#define BRIM_HAS_SIX_BIT 0
#endif

#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace brim {

class FileWatcher;
struct RemoteFile;

/// How the bytes under a document's table are held.
enum class LoadMode : std::uint8_t { memory, mapped };

/// What the file watcher last reported about a document's file.
struct ExternalChange {
    enum class Kind : std::uint8_t { grew, truncated, modified, deleted, replaced };
    Kind kind = Kind::modified;
    std::int64_t from = 0;   ///< `grew`: the old size
    std::int64_t to = 0;     ///< `grew`, `truncated`: the new size
    friend bool operator==(const ExternalChange&, const ExternalChange&) = default;
};

/// Told how far opening has come: the step's text for people and a fraction from 0 to 1.
using OpenProgress = std::function<void(std::string_view text, double fraction)>;

/// One open text: its bytes in a `PieceTable`, what is known about them, its undo history and its
/// observers.
///
/// A document is made on any thread (`open` runs in the background and touches no shared state) and
/// from then on belongs to the main thread: edits, index commits, the line cache and observers live
/// there. `planIndexExtension` and `writeOut` may run on another thread while the main thread does not
/// edit; they read the table and its sources only.
class TextDocument : public std::enable_shared_from_this<TextDocument> {
    struct Passkey {};

public:
    /// How a file is opened; defaults suit an editor window.
    struct OpenOptions {
        std::int64_t mmapThreshold = 1'048'576;       ///< files this large or larger are mapped, not read
        std::optional<TextEncoding> forcedEncoding;   ///< read the file as this, whatever detection says
        std::int64_t indexStride = defaultIndexStride;
        bool detectIndentation = true;
        int tabWidth = 4;                             ///< the tab width assumed until rules say otherwise
        bool detectFieldWidths = true;
        std::vector<FieldLayout> fieldLayouts;        ///< saved layouts, chosen by file name
        /// The set of last resort for 8-bit text; none means the user's setting (Windows-1252 by default).
        std::optional<TextEncoding> fallbackEncoding;
        /// Read `.editorconfig` and `.gitattributes` files above the document.
        bool readProjectRules = true;
    };

    /// What a finished save wrote, handed from the saving thread to `adoptSaved` on the main thread.
    struct SaveOutcome {
        std::filesystem::path dest;
        TextEncoding encoding;
        LineEnding lineEnding = LineEnding::lf;
        bool hasBOM = false;
        LineIndex index;                                   ///< of the bytes that become the new table
        bool isGzipped = false;
        std::optional<std::filesystem::path> workingCopy;  ///< the new UTF-8 copy, when the text stays in one
        std::optional<Transcoder::Checkpoints> checkpoints;
        bool keepsText = false;    ///< the document's bytes stay as they are; nothing needs re-reading
        /// The new table holds the same bytes as the old one, so the undo history stays valid.
        bool sameBytes = false;
        bool cancelled = false;    ///< nothing was written; the destination is as it was
    };

    /// How `writeOut` writes.
    struct WriteOptions {
        TextEncoding encoding = TextEncoding::utf8();
        LineEnding lineEnding = LineEnding::lf;
        bool writeBOM = false;
        bool inPlace = false;      ///< rewrite the same file rather than swap a new one in
    };

    /// One replacement of `replaceMany`.
    struct Replacement {
        ByteRange range;
        std::vector<std::uint8_t> bytes;
    };

    /// Where an undo or redo leaves the caret, and what it changed.
    struct Replay {
        std::int64_t caret = 0;
        DocumentChange change;
    };

    /// The facts of a stored draft that a document is rebuilt with.
    struct DraftFacts {
        std::optional<std::filesystem::path> url;
        TextEncoding encoding = TextEncoding::utf8();
        TextEncoding fileEncoding = TextEncoding::utf8();
        bool hasBOM = false;
        LineEnding lineEnding = LineEnding::lf;
        std::optional<Language> language;
        std::optional<IndentationStyle> indentation;
    };

    /// What the log view learnt of the text; computed by it on first use and kept here.
    struct LogInfo {
        bool isLog = false;
        std::string format;
        std::optional<int> year;
    };

    /// Characters a save in some set would lose.
    struct Unwritable {
        std::int64_t count = 0;
        std::vector<std::string> examples;
    };

    /// Size of the pieces `open` reads for detection, and the index made at once.
    static constexpr std::int64_t headSize = 65'536;
    static constexpr std::int64_t initialIndexBytes = 1'048'576;
    static constexpr std::int64_t gzipLimit = 536'870'912;
    static constexpr std::int64_t lineTextLimit = 1'048'576;
    static constexpr std::size_t lineCacheLimit = 4'096;
    static constexpr std::int64_t defaultUndoByteBudget = 268'435'456;
    static constexpr std::int64_t saveBlockSize = 8'388'608;
    static constexpr std::int64_t unwritableExamineLimit = 67'108'864;

    // MARK: construction

    /// Opens a file through the whole pipeline: source, character set, working copy if one is needed,
    /// the first megabyte of the line index, line endings, indentation, fields, language and project
    /// rules. The work is bounded whatever the file's size. Throws `BrimError` (a missing file or no
    /// permission gives the system's message unchanged), `Gzip::Failure` or `Transcoder::Failure`.
    [[nodiscard]] static std::shared_ptr<TextDocument> open(const std::filesystem::path& path,
                                                            const OpenOptions& options,
                                                            const OpenProgress& progress = {});
    [[nodiscard]] static std::shared_ptr<TextDocument> open(const std::filesystem::path& path);

    /// An untitled document over bytes in memory, fully indexed, line endings detected.
    [[nodiscard]] static std::shared_ptr<TextDocument> inMemory(std::vector<std::uint8_t> bytes,
                                                                const TextEncoding& encoding, std::string reason);

    /// An untitled, empty document.
    [[nodiscard]] static std::shared_ptr<TextDocument> empty();

    /// A document rebuilt from a stored draft: dirty, with the draft's facts.
    [[nodiscard]] static std::shared_ptr<TextDocument> fromDraft(std::vector<std::uint8_t> bytes,
                                                                 const DraftFacts& facts);

    /// The source of a working copy: mapped, or in memory when the copy is empty. None if it can't
    /// be read.
    [[nodiscard]] static std::shared_ptr<const ByteSource> readWorkingCopy(const std::filesystem::path& path);

    /// The bytes per line of three windows of the source (head, middle, tail): 0 when there is no newline.
    [[nodiscard]] static double sampleLineDensity(const ByteSource& source);

    /// Use the factories; this is public only for `std::make_shared`.
    TextDocument(Passkey, std::shared_ptr<const ByteSource> backing, LoadMode loadMode, LineIndex index);
    ~TextDocument();
    TextDocument(const TextDocument&) = delete;
    TextDocument& operator=(const TextDocument&) = delete;

    // MARK: what the document is

    std::optional<std::filesystem::path> url;
    TextEncoding encoding = TextEncoding::utf8();       ///< of the bytes in the table
    TextEncoding fileEncoding = TextEncoding::utf8();   ///< of the file on disk
    bool hasBOM = false;
    LineEnding lineEnding = LineEnding::lf;             ///< what a new line break is written as
    LineEndingReport lineEndingReport;
    bool normalisedToLF = false;
    bool ebcdicASCIINewlines = false;
    bool isGzipped = false;
    int gzipLevel = 6;
    std::int64_t compressedSize = 0;
    std::shared_ptr<const RemoteFile> remote;
    std::optional<std::string> streamName;
    EncodingDetection detection{TextEncoding::utf8(), false, 1.0, "empty file", std::nullopt};
    Language language = Language::plain();
    std::optional<IndentationStyle> indentation;
    std::optional<IndentationReport> indentationReport;
    bool isReadOnly = false;
#if BRIM_HAS_RECORD_FORMAT
    std::optional<RecordFormat> recordFormat;
#endif
    /// The card width of a six-bit deck read a card to a line; saving writes cards of this width.
    std::optional<std::int64_t> sixBitRecordWidth;
    std::vector<std::string> fieldNames;
    GitAttributes::Rules gitAttributes;
    EditorConfig::Rules editorConfig;
    std::optional<int> tabWidth;
    std::optional<Transcoder::Checkpoints> checkpoints;
    std::optional<std::pair<std::int64_t, std::int64_t>> checkpointedFile;   ///< size and mtime (ns)
    std::optional<std::int64_t> followedFileSize;
    std::vector<std::uint8_t> followedTail;
    bool bufferDiffersFromFile = false;
    bool acceptsSubstitutes = false;
    std::optional<ExternalChange> externalChange;
    std::function<void(const ExternalChange&)> onExternalChange;
    std::shared_ptr<FileWatcher> watcher;
    std::optional<LogInfo> logInfo;
    /// Told how far the index has come while an edit waits for it (the first edit of a partly
    /// indexed file), so the window can show the wait.
    Progress editIndexingProgress;

    [[nodiscard]] const PieceTable& table() const { return *table_; }
    [[nodiscard]] LoadMode loadMode() const { return loadMode_; }
    [[nodiscard]] const std::shared_ptr<const ByteSource>& backing() const { return backing_; }
    [[nodiscard]] const std::optional<std::filesystem::path>& workingCopy() const { return workingCopy_; }
    [[nodiscard]] const std::optional<DocumentChange>& lastChange() const { return lastChange_; }
    [[nodiscard]] bool isDirty() const { return isDirty_; }
    /// For a document rebuilt from a draft, or a view that discards changes; edits set it themselves.
    void setDirty(bool dirty) { isDirty_ = dirty; }
    [[nodiscard]] std::int64_t editGeneration() const { return editGeneration_; }

    /// Column widths of fixed-width records; setting them limits them to the longest line's width
    /// and drops derived state.
    [[nodiscard]] const std::vector<std::int64_t>& fieldWidths() const { return fieldWidths_; }
    void setFieldWidths(std::vector<std::int64_t> widths);

    // MARK: reading

    [[nodiscard]] std::int64_t byteCount() const;
    /// Exact once the index is complete; an estimate before.
    [[nodiscard]] std::int64_t lineCount() const;
    /// The bytes of line `n` with its break.
    [[nodiscard]] ByteRange lineRange(std::int64_t n) const;
    /// The bytes of line `n` without its break (LF, a CR before it, or the encoding's own).
    [[nodiscard]] ByteRange lineContentRange(std::int64_t n) const;
    /// The decoded text of line `n`, at most 1 MiB of it (a longer line shows cut). Cached.
    [[nodiscard]] std::string lineText(std::int64_t n);
    /// The decoded lines that lie in `range`, without their breaks, decoded in one piece. Not cached.
    [[nodiscard]] std::vector<std::string> lines(ByteRange range) const;
    /// The decoded text of `range`.
    [[nodiscard]] std::string text(ByteRange range) const;
    /// 3 for a UTF-8 document whose table starts with its byte order mark; else 0.
    [[nodiscard]] std::int64_t textStart() const;
    /// The start of the character that holds the byte at `offset`, by the encoding's unit.
    [[nodiscard]] std::int64_t characterStartAtOrBefore(std::int64_t offset) const;
    /// The stream's name, the file's name, or "Untitled".
    [[nodiscard]] std::string displayName() const;
    /// Bytes the line index takes in memory.
    [[nodiscard]] std::int64_t indexFootprint() const;
    /// Lines known to the index so far.
    [[nodiscard]] std::int64_t indexedLineCount() const;

    // MARK: indexing

    /// Extends the index at once until line `n` is known (or the source ends). Blocks.
    void indexReachingLine(std::int64_t n);
    /// Extends the index at once through byte `offset`. Blocks.
    void indexReachingByte(std::int64_t offset);
    /// True when line `n` can be reached now: at once if indexed, or after extending when the bytes
    /// to scan (estimated) are within `budget`. False means the caller schedules background work.
    bool ensureIndexedThroughLine(std::int64_t n, std::int64_t budget);
    bool ensureIndexedThroughByte(std::int64_t offset, std::int64_t budget);
    /// The next stretch of the index, planned on any thread. A mapped file is read with sequential
    /// advice and its pages let go afterwards, so a pass through a huge file evicts little. Progress is
    /// the fraction of the document indexed.
    [[nodiscard]] std::optional<LineIndex::Extension> planIndexExtension(std::int64_t throughByte,
                                                                         const Progress& progress = {},
                                                                         const IsCancelled& isCancelled = {}) const;
    /// Adds a plan to the index; a stale one is ignored. Main thread.
    bool commitIndexExtension(LineIndex::Extension extension);
    /// Indexes to the end.
    void completeIndex();

    // MARK: changing what the document is

    /// Reads the same bytes through another character set: nothing is rewritten, the line cache goes,
    /// observers hear of a wholesale change.
    void reinterpret(const TextEncoding& newEncoding);
    /// Takes the tab width, indentation and line ending for new breaks from the rules, where they say so.
    void applyEditorConfig(const EditorConfig::Rules& rules);
    /// The mapped file may have shrunk: look again, and report a truncation through `externalChange`.
    /// Returns the readable size. Nothing faults either way: reads past the end see zeros.
    std::int64_t refreshReadableSize();

    // MARK: editing

    /// Replaces `range` with `bytes` as one edit; with `coalesce`, typing runs on into the last undo
    /// step while it makes sense (a word, not a letter nor a paragraph). Returns the offset after the
    /// inserted bytes. The first edit of a partly indexed document completes the index.
    std::int64_t replaceBytes(ByteRange range, std::span<const std::uint8_t> bytes, std::int64_t caretBefore,
                              std::int64_t caretAfter, bool coalesce = false);
    /// The same with text, encoded in the document's set.
    std::int64_t replace(ByteRange range, std::string_view text, std::int64_t caretBefore, std::int64_t caretAfter);
    /// Several non-overlapping replacements as one undo step (or joined to the last one). Returns the
    /// offset after the last replacement in the document, in the new numbering; `caretBefore` when there
    /// is nothing to do.
    std::int64_t replaceMany(std::vector<Replacement> edits, std::int64_t caretBefore, bool joiningLastUndo = false);
    /// A second thought of the last edit: one undo goes back to before the whole series.
    std::int64_t replaceAmendingUndo(ByteRange range, std::string_view text, std::int64_t caretBefore,
                                     std::int64_t caretAfter);
    /// Changes bytes inside what the last edit inserted, in place; false (and nothing done) when the
    /// range is not inside it.
    bool replaceBytesWithinLastEdit(ByteRange range, std::span<const std::uint8_t> bytes, std::int64_t caretAfter);

    std::optional<Replay> undo();
    std::optional<Replay> redo();
    [[nodiscard]] bool canUndo() const { return !undoStack_.empty(); }
    [[nodiscard]] bool canRedo() const { return !redoStack_.empty(); }
    [[nodiscard]] const std::vector<UndoGroup>& undoStack() const { return undoStack_; }
    [[nodiscard]] const std::vector<UndoGroup>& redoStack() const { return redoStack_; }
    [[nodiscard]] std::int64_t undoBytes() const { return undoBytes_; }
    [[nodiscard]] std::int64_t undoByteBudget() const { return undoByteBudget_; }
    void setUndoByteBudget(std::int64_t budget) { undoByteBudget_ = budget; }
    /// Forgets undo and redo: a save that converted the text, a rewrite.
    void clearUndoHistory();

    /// The clock undo groups are stamped with, in seconds; steady time by default.
    void setClock(std::function<double()> clock) { clock_ = std::move(clock); }

    /// Whether typing `bytes` after the byte `previous` starts a new undo step: a new line does, and a
    /// letter after a blank does; a blank after a letter does not.
    [[nodiscard]] static bool startsNewUndoStep(std::span<const std::uint8_t> bytes,
                                                std::optional<std::uint8_t> previous);

    // MARK: line cache and observers

    /// Drops cached lines from `line` on, or all of them.
    void invalidateLineCache(std::int64_t line, bool all = false);
    [[nodiscard]] std::size_t cachedLineCount() const { return lineCache_.size(); }
    [[nodiscard]] bool isLineCached(std::int64_t line) const { return lineCache_.contains(line); }

    /// Records the change, advances `editGeneration` and tells the observers: at once on the main
    /// thread, else through the main queue.
    void notifyChanged(std::int64_t line, const DocumentChange& change);

    /// Observers are held weakly and told in the order they came; one that has gone is dropped.
    void addObserver(const std::shared_ptr<TextDocumentObserver>& observer);
    void removeObserver(const TextDocumentObserver* observer);
    [[nodiscard]] std::size_t observerCount() const { return observers_.size(); }

    // MARK: saving

    /// Writes the document to `dest` so that the file there is at every moment the old one or the new
    /// one, whole: into a temporary file beside it, synchronised, with the old file's permissions, then
    /// swapped in (or copied into the same file when `inPlace` is asked and allowed). Reads the table
    /// only; runs on a background thread while the window blocks editing. Throws `BrimError`; on any
    /// failure the temporary files are gone and `dest` is as it was. A cancel between blocks gives an
    /// outcome marked `cancelled`.
    [[nodiscard]] SaveOutcome writeOut(const std::filesystem::path& dest, const WriteOptions& options,
                                       const Progress& progress = {}, const IsCancelled& isCancelled = {}) const;
    /// Removes the temporary files of saves into `folder` that died before they finished (no live
    /// process holds them); returns how many went. Never fails. Opening and saving call it.
    static std::size_t removeAbandonedTemporaryFiles(const std::filesystem::path& folder);
    /// Takes a finished save in: main thread. Throws `BrimError` "Could not save the file" when the new
    /// file can't be read back; the document keeps its old table then.
    void adoptSaved(SaveOutcome outcome);
    /// Takes in a whole rewritten text (a streamed replace): a file of bytes in the document's set and
    /// its index. The history starts again. False, and nothing changed, when the file can't be read.
    bool adoptRewrite(const std::filesystem::path& workingFile, LineIndex index);
    /// The file was renamed: the document follows it.
    void adoptRenamed(const std::filesystem::path& to);
    /// The file went away and the document keeps its text as an untitled one.
    void becameUntitled();
    /// Characters that saving in `target` would turn into "?": none at once for the sets that hold every
    /// character, and nothing examined for a document over 64 MiB.
    [[nodiscard]] Unwritable unwritableCharacters(const TextEncoding& target, std::size_t examples) const;
    /// The bytes as last opened or saved (in the table's set), for comparison.
    [[nodiscard]] std::shared_ptr<const ByteSource> savedSnapshot() const { return backing_; }
    /// At most `limit` bytes of the table, for comparison.
    [[nodiscard]] std::vector<std::uint8_t> rawBytesForComparison(std::int64_t limit) const;

private:
    [[nodiscard]] double now() const;
    void completeIndexForEditing();
    void pushUndo(DocumentEdit edit, bool coalesce);
    void trimUndoToBudget();
    std::optional<Replay> replay(std::vector<UndoGroup>& from, std::vector<UndoGroup>& to);
    void cacheLine(std::int64_t n, std::string text);
    void deliverChange(std::int64_t line);
    void replaceTable(std::shared_ptr<const ByteSource> source, LoadMode mode, LineIndex index);
    void setWorkingCopy(std::optional<std::filesystem::path> path);

    std::unique_ptr<PieceTable> table_;
    LoadMode loadMode_ = LoadMode::memory;
    std::shared_ptr<const ByteSource> backing_;
    std::optional<std::filesystem::path> workingCopy_;
    std::optional<std::filesystem::path> rewriteFile_;   // a streamed rewrite of a document with no copy
    std::int64_t mmapThreshold_ = 1'048'576;
    std::optional<DocumentChange> lastChange_;
    std::vector<std::int64_t> fieldWidths_;
    bool isDirty_ = false;
    std::int64_t editGeneration_ = 0;
    std::vector<UndoGroup> undoStack_;
    std::vector<UndoGroup> redoStack_;
    std::int64_t undoBytes_ = 0;
    std::int64_t undoByteBudget_ = defaultUndoByteBudget;
    std::vector<std::weak_ptr<TextDocumentObserver>> observers_;
    std::unordered_map<std::int64_t, std::string> lineCache_;
    std::deque<std::int64_t> lineCacheOrder_;
    std::function<double()> clock_;
};

} // namespace brim
