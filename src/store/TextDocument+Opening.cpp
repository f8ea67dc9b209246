#include "bytes/ByteScan.h"
#include "bytes/Gzip.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "settings/Settings.h"
#include "store/TextDocument.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace brim {

namespace {

constexpr std::int64_t densityWindow = 262'144;
constexpr std::int64_t recordSampleLimit = 268'435'456;
constexpr std::int64_t bomHead = 4'096;
constexpr std::int64_t lineEndingSample = 1'048'576;
constexpr std::int64_t indentationLines = 5'000;
constexpr std::int64_t indentationBytes = 1'048'576;
constexpr std::int64_t fieldSampleLines = 500;

/// A source that reads another with one byte value replaced: an EBCDIC file that ends its lines with
/// ASCII's 0x0A is read as if it used EBCDIC's own line feed, 0x25.
class ByteReplacingSource final : public ByteSource {
public:
    ByteReplacingSource(std::shared_ptr<const ByteSource> base, std::uint8_t from, std::uint8_t to)
        : base_(std::move(base)), from_(from), to_(to) {}
    [[nodiscard]] std::int64_t count() const override { return base_->count(); }
    [[nodiscard]] std::int64_t readableCount() const override { return base_->readableCount(); }
    [[nodiscard]] bool prefersBufferedReads() const override { return true; }
    void read(ByteRange range, std::uint8_t* destination) const override {
        base_->read(range, destination);
        std::replace(destination, destination + range.clampedTo(count()).length(), from_, to_);
    }
    void withBytes(ByteRange range, const std::function<void(std::span<const std::uint8_t>)>& body) const override {
        std::vector<std::uint8_t> copy(static_cast<std::size_t>(range.clampedTo(count()).length()));
        read(range, copy.data());
        body(copy);
    }

private:
    std::shared_ptr<const ByteSource> base_;
    std::uint8_t from_;
    std::uint8_t to_;
};

/// Everything `open` learns before the document object exists.
struct Opened {
    std::shared_ptr<const ByteSource> source;
    LoadMode loadMode = LoadMode::memory;
    std::optional<std::filesystem::path> workingCopy;
    std::optional<Transcoder::Checkpoints> checkpoints;
    bool isGzipped = false;
    int gzipLevel = 6;
    std::int64_t compressedSize = 0;
    std::int64_t fileSize = 0;
    std::int64_t modified = 0;
    bool normalisedToLF = false;
    bool ebcdicASCIINewlines = false;
    bool textInWorkingCopy = false;   ///< the working copy already holds UTF-8 text (six-bit codes)
    std::optional<std::int64_t> sixBitRecordWidth;
#if BRIM_HAS_RECORD_FORMAT
    std::optional<RecordFormat> recordFormat;
#endif

    /// Removes a working copy made on the way when the open fails after it.
    ~Opened() {
        if (!handedOver && workingCopy) {
            std::error_code ignored;
            std::filesystem::remove(*workingCopy, ignored);
        }
    }
    Opened() = default;
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    bool handedOver = false;

    void replaceWorkingCopy(std::filesystem::path path) {
        if (workingCopy) {
            std::error_code ignored;
            std::filesystem::remove(*workingCopy, ignored);
        }
        workingCopy = std::move(path);
    }
};

std::vector<std::uint8_t> head(const ByteSource& source, std::int64_t length) {
    return source.data({0, std::min(length, source.count())});
}

bool startsWith(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> prefix) {
    return !prefix.empty() && bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin());
}

TextEncoding fallbackFor(const TextDocument::OpenOptions& options) {
    if (options.fallbackEncoding) return *options.fallbackEncoding;
    if (const auto* named = TextEncoding::byId(Settings::shared().fallbackEncoding())) return *named;
    return TextEncoding::cp1252();
}

/// A deferred index over `source` with the first megabyte (or the whole) indexed at once.
LineIndex initialIndex(const ByteSource& source, std::int64_t stride) {
    LineIndex index(source.count(), stride);
    if (auto extension = index.plan(source, std::min(source.count(), TextDocument::initialIndexBytes))) {
        index.commit(std::move(*extension));
    }
    index.setDensityHint(TextDocument::sampleLineDensity(source));
    return index;
}

std::shared_ptr<const ByteSource> readBack(const std::filesystem::path& copy, const std::string& fileName) {
    auto source = TextDocument::readWorkingCopy(copy);
    if (!source) throw BrimError(L("The copy of %@ Brim made to read it could not be read back.", fileName));
    return source;
}

#if BRIM_HAS_RECORD_FORMAT
/// A file of fixed or length-prefixed records becomes lines in a working copy.
void readRecords(Opened& opened, const std::vector<std::uint8_t>& sample, const TextEncoding* named,
                 const OpenProgress& progress) {
    const auto format = RecordFormat::detect(sample, opened.source->count());
    if (!format) return;
    if (progress) progress(L("Reading records…"), 0.03);
    const bool ebcdic = (named != nullptr && named->isEBCDIC()) || EncodingDetector::detectEBCDIC(sample).has_value();
    const auto all = opened.source->data({0, opened.source->count()});
    const auto lines = RecordFormat::linesFrom(all, *format, ebcdic ? 0x15 : 0x0A, true);
    opened.replaceWorkingCopy(Transcoder::writeWorkingCopy(lines));
    auto mapped = TextDocument::readWorkingCopy(*opened.workingCopy);
    opened.source = mapped ? mapped : std::make_shared<MemorySource>(lines);
    opened.recordFormat = format;
}
#endif

/// The bytes at the end of an ASCII-compatible text that don't yet make a whole UTF-8 character.
std::vector<std::uint8_t> unfinishedTail(const ByteSource& source) {
    const std::int64_t count = source.readableCount();
    const auto tail = source.data({std::max<std::int64_t>(0, count - 4), count});
    for (std::size_t back = 1; back <= tail.size(); ++back) {
        const std::uint8_t b = tail[tail.size() - back];
        if ((b & 0xC0) == 0x80) continue;
        std::size_t need = 1;
        if (b >= 0xC2 && b <= 0xDF) need = 2;
        else if (b >= 0xE0 && b <= 0xEF) need = 3;
        else if (b >= 0xF0 && b <= 0xF4) need = 4;
        if (need > back) return {tail.end() - static_cast<std::ptrdiff_t>(back), tail.end()};
        return {};
    }
    return {};
}

} // namespace

double TextDocument::sampleLineDensity(const ByteSource& source) {
    const std::int64_t size = source.count();
    if (size < 1) return 0;
    std::vector<std::int64_t> starts = {0};
    if (size > 3 * densityWindow) starts = {0, size / 2 - densityWindow / 2, size - densityWindow};
    std::int64_t sampled = 0;
    std::int64_t newlines = 0;
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(std::min(size, densityWindow)));
    for (const auto start : starts) {
        const ByteRange window = ByteRange{start, start + densityWindow}.clampedTo(size);
        source.read(window, buffer.data());
        newlines += ByteScan::countNewlines(buffer.data(), window.length());
        sampled += window.length();
    }
    return newlines == 0 ? 0 : static_cast<double>(sampled) / static_cast<double>(newlines);
}

std::shared_ptr<const ByteSource> TextDocument::readWorkingCopy(const std::filesystem::path& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) return nullptr;
    if (size == 0) return std::make_shared<MemorySource>();
    try {
        return std::make_shared<MappedSource>(path);
    } catch (const BrimError&) {
        return nullptr;
    }
}

std::shared_ptr<TextDocument> TextDocument::open(const std::filesystem::path& path, const OpenOptions& options,
                                                 const OpenProgress& progress) {
    const auto report = [&](const std::string& text, double fraction) {
        if (progress) progress(text, fraction);
    };
    const std::string fileName = path.filename().string();
    Opened opened;

    // 1. What the file is.
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) throw posixError(path.string(), errno);
    if (S_ISDIR(info.st_mode)) throw posixError(path.string(), EISDIR);
    opened.fileSize = static_cast<std::int64_t>(info.st_size);
    opened.modified = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    removeAbandonedTemporaryFiles(std::filesystem::absolute(path).parent_path());

    // 2. The bytes: mapped, read, or unpacked.
    std::string detectionName = fileName;
    if (opened.fileSize < 1) {
        opened.source = std::make_shared<MemorySource>();
    } else if (Gzip::looksCompressed(path)) {
        if (opened.fileSize > gzipLimit) throw Gzip::Failure::tooLarge(gzipLimit);
        report(L("Unpacking…"), 0.02);
        const auto packed = MemorySource::bytesOfFile(path);
        opened.gzipLevel = Gzip::level(packed);
        opened.source = std::make_shared<MemorySource>(Gzip::decompress(packed, gzipLimit));
        opened.isGzipped = true;
        opened.compressedSize = opened.fileSize;
        detectionName = Gzip::uncompressedName(fileName);
    } else if (opened.fileSize >= options.mmapThreshold) {
        opened.source = std::make_shared<MappedSource>(path);
        opened.loadMode = LoadMode::mapped;
    } else {
        opened.source = std::make_shared<MemorySource>(MemorySource::bytesOfFile(path));
    }
    const std::int64_t size = opened.source->count();

    // 3. The set asked for: forced, or named by the file ("data.cp1047.txt").
    const TextEncoding* named = options.forcedEncoding ? &*options.forcedEncoding
                                                       : TextEncoding::namedByFile(detectionName);

#if BRIM_HAS_SIX_BIT
    // A deck of cards in a six-bit code: no line ends of its own, one card to a line.
    if (named != nullptr && named->sixBitSet && size > 0) {
        const auto sample = head(*opened.source, headSize);
        if (std::find(sample.begin(), sample.end(), 0x0A) == sample.end()) {
            const auto space = named->sixBitSet->space;
            if (const auto width = SixBit::recordWidth(sample, size, space)) {
                report(L("Reading records…"), 0.03);
                const auto all = opened.source->data({0, size});
                const std::string text = SixBit::text(all, *width, *named, space);
                const auto lines = std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
                opened.replaceWorkingCopy(Transcoder::writeWorkingCopy(lines));
                opened.source = readBack(*opened.workingCopy, fileName);
                opened.loadMode = opened.source->count() == 0 ? LoadMode::memory : LoadMode::mapped;
                opened.textInWorkingCopy = true;
                opened.sixBitRecordWidth = *width;
            }
        }
    }
#endif

    // 4. Records: a file with no line breaks that is made of fixed or length-prefixed records.
    if (size >= 1 && size <= recordSampleLimit && !opened.textInWorkingCopy &&
        !(options.forcedEncoding && options.forcedEncoding->unicodeUnitWidth())) {
        const auto sample = head(*opened.source, headSize);
        const auto firstBytes = std::span<const std::uint8_t>(sample).first(
            std::min<std::size_t>(sample.size(), static_cast<std::size_t>(bomHead)));
        if (!EncodingDetector::detectBOM(firstBytes) && !EncodingDetector::detectUTF16WithoutBOM(firstBytes)) {
#if BRIM_HAS_RECORD_FORMAT
            readRecords(opened, sample, named, progress);
#endif
        }
    }

    // 5. The character set.
    report(L("Detecting character set…"), 0.05);
    EncodingDetection detection = EncodingDetector::detect(*opened.source, fallbackFor(options), detectionName);
    const auto head64 = head(*opened.source, headSize);
    if (options.forcedEncoding) {
        const bool bom = startsWith(head64, options.forcedEncoding->bom());
        detection = EncodingDetection{*options.forcedEncoding, bom, 1.0, L("chosen by user"), std::nullopt};
    } else if (named != nullptr && detection.encoding == *named) {
        detection.confidence = 1.0;
        detection.reason = L("named by the file: %@", named->localisedName());
    }
    if (opened.textInWorkingCopy && named != nullptr) {
        // The copy holds the deck's text in UTF-8; the file is in the set that named it.
        detection = EncodingDetection{*named, false, 1.0,
                                      options.forcedEncoding ? L("chosen by user")
                                                             : L("named by the file: %@", named->localisedName()),
                                      std::nullopt};
    }
    const TextEncoding fileEncoding = detection.encoding;
    TextEncoding encoding = opened.textInWorkingCopy ? TextEncoding::utf8() : fileEncoding;

    // 6. An EBCDIC file that ends its lines with ASCII's line feed.
    if (fileEncoding.isEBCDIC()) {
        const bool asciiFeeds = std::find(head64.begin(), head64.end(), 0x0A) != head64.end();
        const bool ebcdicFeeds = std::any_of(head64.begin(), head64.end(), [](auto b) { return b == 0x25 || b == 0x15; });
        opened.ebcdicASCIINewlines = asciiFeeds && !ebcdicFeeds;
    }

    // 7. What can't be edited as bytes goes through a UTF-8 working copy.
    if ((!fileEncoding.asciiCompatible || fileEncoding.stateful || Transcoder::hasShiftState(fileEncoding)) && !opened.textInWorkingCopy && size > 0) {
        report(L("Converting %@ to a UTF-8 working copy…", fileEncoding.localisedName()), 0.1);
        Transcoder::Checkpoints checkpoints;
        Transcoder::TranscodeOptions transcode;
        transcode.stripBOM = detection.hasBOM;
        transcode.substituting = true;
        transcode.checkpoints = &checkpoints;
        transcode.progress = [&](double fraction) { report(L("Converting %@ to a UTF-8 working copy…",
                                                              fileEncoding.localisedName()),
                                                            0.1 + 0.75 * fraction); };
        std::shared_ptr<const ByteSource> input = opened.source;
        if (opened.ebcdicASCIINewlines) input = std::make_shared<ByteReplacingSource>(input, 0x0A, 0x25);
        auto outcome = Transcoder::transcodeToWorkingCopy(*input, fileEncoding, transcode);
        if (!outcome.workingCopy) throw BrimError(L("The copy of %@ Brim made to read it could not be read back.", fileName));
        opened.replaceWorkingCopy(*outcome.workingCopy);
        opened.source = readBack(*opened.workingCopy, fileName);
        opened.loadMode = LoadMode::mapped;
        if (opened.source->count() == 0) opened.loadMode = LoadMode::memory;
        if (checkpoints.isUsable && !opened.isGzipped) opened.checkpoints = std::move(checkpoints);
        encoding = TextEncoding::utf8();
    }

    // 8. The first megabyte of the index.
    report(L("Preparing…"), 0.9);
    LineIndex index = initialIndex(*opened.source, options.indexStride);

    // 9. Line endings: the table only ever sees 0x0A as a line end.
    LineEndingReport endings = LineEndingDetector::detect(*opened.source, lineEndingSample, encoding);
    if (const auto rare = LineEndingDetector::rareKinds(endings); !rare.empty()) {
        report(L("Converting line endings…"), 0.85);
        auto outcome = Transcoder::normalizeBreaksToWorkingCopy(*opened.source, rare, encoding);
        if (!outcome.workingCopy) throw BrimError(L("The copy of %@ Brim made to read it could not be read back.", fileName));
        opened.source.reset();
        opened.replaceWorkingCopy(*outcome.workingCopy);
        opened.source = readBack(*opened.workingCopy, fileName);
        opened.loadMode = opened.source->count() == 0 ? LoadMode::memory : LoadMode::mapped;
        opened.checkpoints.reset();   // positions in the copy moved
        opened.normalisedToLF = true;
        index = initialIndex(*opened.source, options.indexStride);
    }

    // 10. Indentation.
    std::optional<IndentationReport> indentationReport;
    if (options.detectIndentation) {
        indentationReport = IndentationDetector::detect(*opened.source, indentationLines, indentationBytes);
    }

    report(L("Ready"), 1.0);

    // 12. The record.
    auto document = std::make_shared<TextDocument>(Passkey{}, opened.source, opened.loadMode, std::move(index));
    document->url = std::filesystem::absolute(path).lexically_normal();
    document->encoding = encoding;
    document->fileEncoding = fileEncoding;
    document->hasBOM = detection.hasBOM;
    document->detection = detection;
    document->lineEndingReport = endings;
    document->lineEnding = endings.dominant;
    document->normalisedToLF = opened.normalisedToLF;
    document->ebcdicASCIINewlines = opened.ebcdicASCIINewlines;
    document->isGzipped = opened.isGzipped;
    document->gzipLevel = opened.gzipLevel;
    document->compressedSize = opened.compressedSize;
    document->checkpoints = opened.checkpoints;
    if (opened.checkpoints) document->checkpointedFile = std::make_pair(opened.fileSize, opened.modified);
#if BRIM_HAS_RECORD_FORMAT
    document->recordFormat = opened.recordFormat;
#endif
    document->sixBitRecordWidth = opened.sixBitRecordWidth;
    document->workingCopy_ = opened.workingCopy;
    document->mmapThreshold_ = options.mmapThreshold;
    opened.handedOver = true;
    document->followedFileSize = opened.fileSize;
    if (!opened.normalisedToLF && !opened.isGzipped && fileEncoding.asciiCompatible && !fileEncoding.unicodeUnitWidth()) {
        document->followedTail = unfinishedTail(*opened.source);
    }
    if (indentationReport) {
        document->indentationReport = indentationReport;
        if (indentationReport->useSpaces) {
            document->indentation = *indentationReport->useSpaces
                                        ? IndentationStyle::spaces(indentationReport->width.value_or(options.tabWidth))
                                        : IndentationStyle::tabs();
        }
    }

    // 13. Columns of fixed-width records.
    if (const auto layout = FieldLayouts::layout(fileName, options.fieldLayouts)) {
        document->setFieldWidths(layout->widths);
        document->fieldNames = layout->names;
    } else if (options.detectFieldWidths && document->indexedLineCount() >= 3) {
        const auto& firstIndex = document->table().originalIndex();
        const std::int64_t end = std::min(document->table().offsetOfLine(fieldSampleLines),
                                          std::max(firstIndex.indexedBytes(), std::int64_t{0}));
        const auto sample = document->lines({0, std::min(end, initialIndexBytes)});
        if (sample.size() >= 3 && FixedFields::looksLikeRecords(sample)) {
            if (auto widths = FixedFields::detect(sample); widths.size() >= 3) document->setFieldWidths(std::move(widths));
        }
    }

    // 14. Language, from the name (without ".gz") and the decoded head.
    document->language = Language::detect(detectionName, document->text({0, headSize}));

    // 15. Project rules.
    if (options.readProjectRules) {
        document->gitAttributes = GitAttributes::rules(*document->url);
        if (document->gitAttributes.lineEnding) document->lineEnding = *document->gitAttributes.lineEnding;
        document->applyEditorConfig(EditorConfig::rules(*document->url));
    }
    return document;
}

std::shared_ptr<TextDocument> TextDocument::open(const std::filesystem::path& path) {
    return open(path, OpenOptions{});
}

std::shared_ptr<TextDocument> TextDocument::inMemory(std::vector<std::uint8_t> bytes, const TextEncoding& encoding,
                                                     std::string reason) {
    auto source = std::make_shared<MemorySource>(std::move(bytes));
    auto index = LineIndex::build(*source).value_or(LineIndex(source->count()));
    auto document = std::make_shared<TextDocument>(Passkey{}, source, LoadMode::memory, std::move(index));
    document->encoding = encoding;
    document->fileEncoding = encoding;
    document->hasBOM = startsWith(source->bytes(), encoding.bom());
    document->detection = EncodingDetection{encoding, document->hasBOM, 1.0, std::move(reason), std::nullopt};
    document->lineEndingReport = LineEndingDetector::detect(*source, lineEndingSample, encoding);
    document->lineEnding = document->lineEndingReport.dominant;
    return document;
}

std::shared_ptr<TextDocument> TextDocument::empty() {
    auto source = std::make_shared<MemorySource>();
    return std::make_shared<TextDocument>(Passkey{}, source, LoadMode::memory, LineIndex(0));
}

std::shared_ptr<TextDocument> TextDocument::fromDraft(std::vector<std::uint8_t> bytes, const DraftFacts& facts) {
    auto document = inMemory(std::move(bytes), facts.encoding, L("from a draft"));
    document->url = facts.url;
    document->fileEncoding = facts.fileEncoding;
    document->hasBOM = facts.hasBOM;
    document->lineEnding = facts.lineEnding;
    document->language = facts.language.value_or(
        facts.url ? Language::detect(facts.url->filename().string(), document->text({0, headSize}))
                  : Language::plain());
    document->indentation = facts.indentation;
    document->bufferDiffersFromFile = true;
    document->isDirty_ = true;
    return document;
}

} // namespace brim
