#pragma once

#include "bytes/ByteSource.h"
#include "charsets/LineEnding.h"
#include "charsets/TextEncoding.h"
#include "common/BrimError.h"
#include "common/SerialQueue.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// Moves whole files between character sets in bounded memory: a file in a set the editor cannot hold
/// as bytes becomes a UTF-8 working copy on disk, and text is written back in any set on saving.
///
/// Every converter here is a stream: a character or an escape sequence split between two blocks is
/// joined again, and a stateful set keeps its shift state from the first block to the last.
namespace brim::Transcoder {

/// Bytes read per block when transcoding a file.
inline constexpr std::int64_t blockSize = 4'194'304;

/// A conversion that could not be done. The text says what, in the program's own words.
class Failure : public BrimError {
public:
    enum class Kind : std::uint8_t { cannotCreate, cannotWrite, unreadable, invalidInput };
    static Failure cannotCreate();
    static Failure cannotWrite(const std::filesystem::path& path, int errnoValue);
    static Failure invalidInput(const TextEncoding& encoding, std::int64_t offset);
    [[nodiscard]] Kind kind() const { return kind_; }

private:
    Failure(Kind kind, std::string text) : BrimError(std::move(text)), kind_(kind) {}
    Kind kind_;
};

/// Pairs of positions that mean the same place in a working copy (`copy`) and in the file it came
/// from (`file`), in step and rising. Saving copies the stretches between them that no edit touched.
struct Checkpoints {
    std::vector<std::uint32_t> copy;
    std::vector<std::uint32_t> file;
    /// False once an offset passed 4 GiB, or for a set with a shift state whose clean places cannot be
    /// told (ISO-2022-KR, ISCII, the codecs of our own); the pairs then stop growing and must not be
    /// used. For ISO-2022 (Japanese, Chinese) and HZ, pairs stand only at line starts where the state
    /// is the initial one, so a stretch between two pairs converts on its own to the same bytes.
    bool isUsable = true;

    /// Records a pair unless it equals the last one. Offsets past 32 bits make the record unusable.
    void add(std::int64_t copyOffset, std::int64_t fileOffset);
    /// Appends the pairs of `other` whose copy offset lies in `range` (both ends included), moved so
    /// that `other`'s pair at `range.lower` lands on (`copyOffset`, `fileOffset`). `range.lower` must
    /// be one of `other`'s copy offsets; otherwise nothing is appended.
    void append(const Checkpoints& other, ByteRange range, std::int64_t copyOffset, std::int64_t fileOffset);
    /// The last pair whose copy offset is at or before `copyOffset`.
    [[nodiscard]] std::optional<std::pair<std::int64_t, std::int64_t>> atOrBefore(std::int64_t copyOffset) const;
    /// The first pair whose copy offset is at or after `copyOffset`.
    [[nodiscard]] std::optional<std::pair<std::int64_t, std::int64_t>> atOrAfter(std::int64_t copyOffset) const;
    [[nodiscard]] std::size_t count() const { return copy.size(); }
};

/// What a conversion met: bytes it could not read (each stretch written as U+FFFD) and characters the
/// target could not hold (each written as "?"), with the first few of those as examples.
struct ConversionReport {
    std::int64_t invalid = 0;
    std::int64_t unwritable = 0;
    std::vector<std::string> unwritableExamples;    ///< UTF-8, each once, in order of appearance
    std::optional<std::int64_t> firstInvalidOffset; ///< input offset of the first unreadable byte
};

/// The conversion of blocks from one set to another, shared by `transcodeToWorkingCopy` and
/// `StreamingConverter`. Input that ends inside a character (or an escape sequence) is held back and
/// joined to the next block; `finish` converts what is left and closes any shift state.
///
/// One converter belongs to one stream and one thread.
class BlockConverter {
public:
    /// From `from` to `to`; either may be UTF-8, in which case that side costs nothing.
    BlockConverter(const TextEncoding& from, const TextEncoding& to);
    ~BlockConverter();
    BlockConverter(BlockConverter&&) noexcept;
    BlockConverter& operator=(BlockConverter&&) noexcept;

    /// Converts one block and appends the result to `out`. Never fails: unreadable bytes become
    /// U+FFFD and unwritable characters "?", both counted in `report`.
    void convert(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t>& out);
    /// Converts what was held back, as if the input ended here, and closes the shift state.
    void finish(std::vector<std::uint8_t>& out);
    /// Input bytes read but not yet converted: the start of an unfinished character.
    [[nodiscard]] std::int64_t pending() const;
    /// Whether the position after the last converted byte is a safe place to cut the input: no shift
    /// state is in force there. Always true for sets without one.
    [[nodiscard]] bool isAtCleanCut() const;
    [[nodiscard]] const ConversionReport& report() const;

    class Side;
private:
    std::unique_ptr<Side> decoder_;     // from -> UTF-8; null when `from` is UTF-8
    std::unique_ptr<Side> encoder_;     // UTF-8 -> to; null when `to` is UTF-8
    std::vector<std::uint8_t> middle_;  // UTF-8 between the two
    mutable ConversionReport report_;
};

/// Converts text being saved: any set to any set, with line endings optionally rewritten to the one
/// asked for, spelled in the target set.
class StreamingConverter {
public:
    /// Memory bound for input that must be held back: a stateful stretch with no safe cut is converted
    /// regardless once it reaches this size.
    static constexpr std::int64_t forceFlushLimit = 67'108'864;

    StreamingConverter(const TextEncoding& from, const TextEncoding& to, std::optional<LineEnding> lineEnding);

    /// Converts the next stretch of input. Empty input returns nothing and keeps what is held back.
    [[nodiscard]] std::vector<std::uint8_t> convert(std::span<const std::uint8_t> bytes);
    /// Converts what is held back and ends the stream.
    [[nodiscard]] std::vector<std::uint8_t> flush();

    [[nodiscard]] const TextEncoding& from() const { return from_; }
    [[nodiscard]] const TextEncoding& to() const { return to_; }
    [[nodiscard]] const std::optional<LineEnding>& lineEnding() const { return lineEnding_; }
    /// The wanted ending can be recognised and written in the source bytes themselves, so line
    /// endings are rewritten before any conversion.
    [[nodiscard]] bool endingSpelledInSource() const { return endingSpelledInSource_; }
    /// Input bytes held back for the next call (a CR that may start a CR LF, an unfinished character).
    [[nodiscard]] std::int64_t carry() const;
    [[nodiscard]] const ConversionReport& report() const { return report_; }
    ~StreamingConverter();
    StreamingConverter(StreamingConverter&&) noexcept;
    StreamingConverter& operator=(StreamingConverter&&) noexcept;

    class LineRewriter;
private:
    void updateReport();

    TextEncoding from_;
    TextEncoding to_;
    std::optional<LineEnding> lineEnding_;
    bool endingSpelledInSource_ = false;
    bool passThrough_ = false;
    // Endings rewritten in the source: rewriter, then `first_` (from -> to). Otherwise `first_`
    // (from -> UTF-8), the rewriter over UTF-8, then `second_` (UTF-8 -> to).
    std::unique_ptr<BlockConverter> first_;
    std::unique_ptr<BlockConverter> second_;
    std::unique_ptr<LineRewriter> rewriter_;
    std::vector<std::uint8_t> scratch_;
    ConversionReport report_;
};

/// Whether escape or shift sequences change what later bytes mean (ISO-2022, HZ, UTF-7, ISCII, the
/// mixed EBCDIC pages, MARC-8): such a set cannot be edited as bytes, even where its ASCII reads as
/// ASCII, and must be held in a UTF-8 working copy.
[[nodiscard]] bool hasShiftState(const TextEncoding& encoding);

// MARK: working copies

/// The folder of working copies: "WorkingCopies" in the support folder.
[[nodiscard]] std::filesystem::path workingCopiesDirectory();

/// Creates an empty working copy, "<UUID>.utf8", making the folder if needed.
/// Throws `Failure` "cannot create working copy".
[[nodiscard]] std::filesystem::path makeWorkingCopy();

/// A new working copy holding `bytes`, written in full (not synchronised: a working copy is never read
/// after a crash). Throws `Failure`; nothing is left behind on failure.
[[nodiscard]] std::filesystem::path writeWorkingCopy(std::span<const std::uint8_t> bytes);

struct TranscodeOptions {
    bool stripBOM = false;          ///< skip the set's byte order mark at the start
    bool substituting = true;       ///< unreadable bytes become U+FFFD; otherwise they fail the conversion
    Checkpoints* checkpoints = nullptr;
    std::int64_t blockSize = Transcoder::blockSize;
    Progress progress = {};
    IsCancelled isCancelled = {};
};

/// The result of a transcoding: the working copy, or nothing when cancelled.
struct TranscodeOutcome {
    std::optional<std::filesystem::path> workingCopy;    ///< absent when cancelled; nothing is left behind
    std::int64_t bytesWritten = 0;
    ConversionReport report;
    bool cancelled = false;
};

/// Converts the whole of `source` from `from` into a new UTF-8 working copy, block by block, in memory
/// bounded by the block size. Checkpoints, when asked for, pair file and copy offsets at each block
/// edge that is a clean cut (for a set with a shift state, at the last line start in each block where
/// the state is the initial one). Throws `Failure` when the copy cannot be made or written, or (without
/// `substituting`) at the first unreadable byte; the copy is then removed.
[[nodiscard]] TranscodeOutcome transcodeToWorkingCopy(const ByteSource& source, const TextEncoding& from,
                                                      const TranscodeOptions& options = {});

/// Writes a working copy of `source` (bytes in `encoding`) with each break of `kinds` turned into a
/// line feed spelled in `encoding`; CR LF pairs are one break and are never split. The copy stays in
/// `encoding`. Throws `Failure`.
[[nodiscard]] TranscodeOutcome normalizeBreaksToWorkingCopy(const ByteSource& source,
                                                            std::span<const LineEnding> kinds,
                                                            const TextEncoding& encoding,
                                                            const TranscodeOptions& options = {});

/// Every line break in `bytes` (LF, CR LF, CR, LF CR, NEL, LS, PS; VT and FF too when
/// `treatingPageBreaksAsLines`) rewritten as `to`, all in `encoding`. A CR LF pair is one break.
[[nodiscard]] std::vector<std::uint8_t> normalizeLineEndings(std::span<const std::uint8_t> bytes, LineEnding to,
                                                             const TextEncoding& encoding,
                                                             bool treatingPageBreaksAsLines);

/// Where a UTF-8 buffer may be cut without dividing a character or a CR LF pair: after the last plain
/// ASCII byte (not 0x0A-0x0D) among the last 16, else before the last character's lead byte, backed off
/// any CR or LF next to its partner. 0 for a buffer under 4 bytes with no such byte.
[[nodiscard]] std::size_t safeCut(std::span<const std::uint8_t> bytes);

/// Working copies older than `age` that no process holds open (by descriptor or by map).
[[nodiscard]] std::vector<std::filesystem::path> abandonedWorkingCopies(std::chrono::seconds olderThan);

/// Deletes the abandoned working copies (and half-written ones) older than `olderThan`; returns how
/// many went. Never fails: a file that cannot be removed stays for the next time.
std::size_t removeAbandonedWorkingCopies(std::chrono::seconds olderThan = std::chrono::hours(1));

} // namespace brim::Transcoder
