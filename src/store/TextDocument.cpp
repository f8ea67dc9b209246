#include "store/TextDocument.h"

#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "charsets/LossyUTF8.h"
#include "common/Localization.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>

namespace brim {

namespace {

/// The thread that ran the program's static initialisation: the main one.
const std::thread::id processMainThread = std::this_thread::get_id();

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// The length of the character that starts at `bytes[i]` in a double-byte or GB18030 text, by its
/// lead byte: enough to find character starts without a converter.
std::size_t multiByteLength(const TextEncoding& encoding, std::span<const std::uint8_t> bytes, std::size_t i) {
    const std::uint8_t b = bytes[i];
    if (b < 0x80) return 1;
    const std::string& id = encoding.id;
    if (id == "shiftjis" || id == "cp932" || id == "sjis2004") {
        return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC) ? 2 : 1;
    }
    if (id == "eucjp") {
        if (b == 0x8F) return 3;
        return b == 0x8E || (b >= 0xA1 && b <= 0xFE) ? 2 : 1;
    }
    if (id == "gb18030") {
        if (b < 0x81 || b > 0xFE) return 1;
        if (i + 1 < bytes.size() && bytes[i + 1] >= 0x30 && bytes[i + 1] <= 0x39) return 4;
        return 2;
    }
    return b >= 0x81 && b <= 0xFE ? 2 : 1;
}

} // namespace

TextDocument::TextDocument(Passkey, std::shared_ptr<const ByteSource> backing, LoadMode loadMode, LineIndex index)
    : table_(std::make_unique<PieceTable>(backing, std::move(index))), loadMode_(loadMode),
      backing_(std::move(backing)), clock_(steadySeconds) {}

TextDocument::~TextDocument() {
    setWorkingCopy(std::nullopt);
    if (rewriteFile_) {
        std::error_code ignored;
        std::filesystem::remove(*rewriteFile_, ignored);
    }
}

void TextDocument::setWorkingCopy(std::optional<std::filesystem::path> path) {
    if (workingCopy_ && workingCopy_ != path) {
        std::error_code ignored;
        std::filesystem::remove(*workingCopy_, ignored);
    }
    workingCopy_ = std::move(path);
}

double TextDocument::now() const { return clock_ ? clock_() : steadySeconds(); }

void TextDocument::setFieldWidths(std::vector<std::int64_t> widths) {
    // No field can be wider than what a line may hold.
    fieldWidths_ = FixedFields::limited(widths, lineTextLimit);
    logInfo.reset();
}

// MARK: reading

std::int64_t TextDocument::byteCount() const { return table_->byteCount(); }

std::int64_t TextDocument::lineCount() const {
    if (table_->isPristine() && !table_->originalIndex().isComplete()) {
        return table_->originalIndex().estimatedLineCount();
    }
    return table_->newlineCount() + 1;
}

ByteRange TextDocument::lineRange(std::int64_t n) const {
    if (n < 0) return {0, 0};
    // Where the index hasn't reached yet, reach it: an exact answer is wanted.
    if (table_->isPristine() && !table_->originalIndex().isComplete()) {
        table_->originalIndex().extend(table_->original(), n + 1);
    }
    const std::int64_t start = table_->offsetOfLine(n);
    const std::int64_t end = n >= table_->newlineCount() ? table_->byteCount() : table_->offsetOfLine(n + 1);
    return {start, std::max(start, end)};
}

ByteRange TextDocument::lineContentRange(std::int64_t n) const {
    ByteRange range = lineRange(n);
    if (range.empty()) return range;
    const auto tail = table_->bytes({std::max(range.lower, range.upper - 2), range.upper});
    if (!tail.empty() && tail.back() == 0x0A) {
        --range.upper;
        if (tail.size() == 2 && tail.front() == 0x0D) --range.upper;
    }
    return range;
}

std::string TextDocument::lineText(std::int64_t n) {
    if (const auto cached = lineCache_.find(n); cached != lineCache_.end()) return cached->second;
    const ByteRange content = lineContentRange(n);
    const ByteRange cut{content.lower, std::min(content.upper, content.lower + lineTextLimit)};
    const auto raw = table_->bytes(cut);
    std::string decoded = encoding.id == "utf8" ? LossyUTF8::decodeRemembering(raw) : encoding.decode(raw);
    cacheLine(n, decoded);
    return decoded;
}

std::vector<std::string> TextDocument::lines(ByteRange range) const {
    const std::string decoded = text(range);
    std::vector<std::string> result;
    std::size_t at = 0;
    while (at <= decoded.size()) {
        const std::size_t end = std::min(decoded.find('\n', at), decoded.size());
        std::size_t stop = end;
        if (stop > at && decoded[stop - 1] == '\r') --stop;
        if (end < decoded.size() || at < decoded.size()) result.emplace_back(decoded.substr(at, stop - at));
        at = end + 1;
    }
    return result;
}

std::string TextDocument::text(ByteRange range) const {
    const auto raw = table_->bytes(range);
    return encoding.id == "utf8" ? LossyUTF8::repaired(raw) : encoding.decode(raw);
}

std::int64_t TextDocument::textStart() const {
    if (encoding.id != "utf8" || !hasBOM || table_->byteCount() < 3) return 0;
    const auto head = table_->bytes({0, 3});
    return head[0] == 0xEF && head[1] == 0xBB && head[2] == 0xBF ? 3 : 0;
}

std::int64_t TextDocument::characterStartAtOrBefore(std::int64_t offset) const {
    offset = std::clamp<std::int64_t>(offset, 0, table_->byteCount());
    if (offset == 0 || offset == table_->byteCount()) return offset;
    if (encoding.id == "utf8") {
        const auto before = table_->bytes({std::max<std::int64_t>(0, offset - 3), offset + 1});
        std::int64_t at = offset;
        std::size_t i = before.size() - 1;
        while (at > 0 && i > 0 && offset - at < 3 && (before[i] & 0xC0) == 0x80) {
            --at;
            --i;
        }
        return (before[i] & 0xC0) == 0x80 ? offset : at;
    }
    if (const auto width = encoding.unicodeUnitWidth()) return offset - offset % *width;
    if (encoding.stateful || encoding.isSingleByte() || !encoding.asciiCompatible) return offset;
    // A double-byte set: walk from the line's start, where a character surely begins.
    const std::int64_t lineStart =
        std::max(table_->offsetOfLine(table_->lineContainingOffset(offset)), offset - lineTextLimit);
    const auto bytes = table_->bytes({lineStart, offset + 1});
    std::size_t i = 0;
    std::int64_t start = lineStart;
    while (i < bytes.size()) {
        const std::size_t length = multiByteLength(encoding, bytes, i);
        if (lineStart + static_cast<std::int64_t>(i + length) > offset) {
            start = lineStart + static_cast<std::int64_t>(i);
            break;
        }
        i += length;
    }
    return start;
}

std::string TextDocument::displayName() const {
    if (streamName) return *streamName;
    if (url) return url->filename().string();
    return L("Untitled");
}

std::int64_t TextDocument::indexFootprint() const {
    const LineIndex& index = table_->originalIndex();
    std::int64_t bytes = static_cast<std::int64_t>(index.chunkStartLine().size() * sizeof(std::int64_t));
    for (const auto& chunk : index.chunks()) {
        bytes += static_cast<std::int64_t>(sizeof(LineIndex::Chunk) + chunk.checkpoints.size() * sizeof(std::int64_t));
    }
    return bytes;
}

std::int64_t TextDocument::indexedLineCount() const {
    if (table_->isPristine()) {
        const LineIndex& index = table_->originalIndex();
        return index.knownNewlines() + (index.isComplete() ? 1 : 0);
    }
    return table_->newlineCount() + 1;
}

// MARK: indexing

void TextDocument::indexReachingLine(std::int64_t n) {
    if (!table_->isPristine() || table_->originalIndex().isComplete()) return;
    table_->originalIndex().extend(table_->original(), n);
}

void TextDocument::indexReachingByte(std::int64_t offset) {
    if (!table_->isPristine()) return;
    LineIndex& index = table_->originalIndex();
    if (index.indexedBytes() >= std::min(offset, index.byteCount())) return;
    if (auto extension = index.plan(table_->original(), offset)) index.commit(std::move(*extension));
}

bool TextDocument::ensureIndexedThroughLine(std::int64_t n, std::int64_t budget) {
    if (!table_->isPristine()) return true;
    const LineIndex& index = table_->originalIndex();
    const std::int64_t known = index.knownNewlines();
    if (known + 1 > n || index.isComplete()) return true;
    const double bytesPerLine =
        known < 1 ? 64.0 : static_cast<double>(index.indexedBytes()) / static_cast<double>(known);
    const double estimate = bytesPerLine * static_cast<double>(n - known) * 1.25;
    if (estimate > static_cast<double>(budget)) return false;
    indexReachingLine(n);
    return true;
}

bool TextDocument::ensureIndexedThroughByte(std::int64_t offset, std::int64_t budget) {
    if (!table_->isPristine()) return true;
    const LineIndex& index = table_->originalIndex();
    const std::int64_t target = std::min(offset, index.byteCount());
    if (index.indexedBytes() >= target) return true;
    if (target - index.indexedBytes() > budget) return false;
    indexReachingByte(target);
    return true;
}

std::optional<LineIndex::Extension> TextDocument::planIndexExtension(std::int64_t throughByte,
                                                                     const Progress& progress,
                                                                     const IsCancelled& isCancelled) const {
    const LineIndex& index = table_->originalIndex();
    const ByteSource& source = table_->original();
    const auto* mapped = dynamic_cast<const MappedSource*>(&source);
    const std::int64_t from = index.indexedBytes();
    const std::int64_t target = std::clamp<std::int64_t>(throughByte, 0, index.byteCount());
    const double total = static_cast<double>(std::max<std::int64_t>(index.byteCount(), 1));

    // One pass from front to back: read ahead, then let the pages go, so that indexing a file far
    // larger than memory does not push everything else out.
    if (mapped != nullptr && target > from) {
        mapped->adviseSequential(true);
        ::posix_fadvise(mapped->fd(), from, target - from, POSIX_FADV_SEQUENTIAL);
    }
    auto extension = index.plan(
        source, target,
        [&](double fraction) {
            if (progress) progress((static_cast<double>(from) + fraction * static_cast<double>(target - from)) / total);
        },
        isCancelled);
    if (mapped != nullptr && target > from) {
        ::madvise(const_cast<std::uint8_t*>(mapped->base()), static_cast<std::size_t>(mapped->count()),
                  MADV_DONTNEED);
        ::posix_fadvise(mapped->fd(), from, target - from, POSIX_FADV_NORMAL);
        mapped->adviseSequential(false);
    }
    return extension;
}

bool TextDocument::commitIndexExtension(LineIndex::Extension extension) {
    if (!table_->isPristine()) return false;
    return table_->originalIndex().commit(std::move(extension));
}

void TextDocument::completeIndex() {
    if (!table_->isPristine() || table_->originalIndex().isComplete()) return;
    if (auto extension = planIndexExtension(table_->originalIndex().byteCount())) {
        table_->originalIndex().commit(std::move(*extension));
    }
}

// MARK: changing what the document is

void TextDocument::reinterpret(const TextEncoding& newEncoding) {
    encoding = newEncoding;
    fileEncoding = newEncoding;
    const auto bom = newEncoding.bom();
    const auto head = table_->bytes({0, static_cast<std::int64_t>(bom.size())});
    hasBOM = !bom.empty() && std::equal(bom.begin(), bom.end(), head.begin(), head.end());
    detection = EncodingDetection{newEncoding, hasBOM, 1.0, L("chosen by user"), std::nullopt};
    invalidateLineCache(0, true);
    notifyChanged(0, DocumentChange::wholesale());
}

void TextDocument::applyEditorConfig(const EditorConfig::Rules& rules) {
    editorConfig = rules;
    const auto application = EditorConfig::application(rules);
    if (application.tabWidth) tabWidth = application.tabWidth;
    if (application.indentation) indentation = application.indentation;
    if (application.lineEnding) {
        if (const auto ending = lineEndingForWord(*application.lineEnding)) lineEnding = *ending;
    }
}

std::int64_t TextDocument::refreshReadableSize() {
    const auto* mapped = dynamic_cast<const MappedSource*>(backing_.get());
    if (mapped == nullptr) return backing_->readableCount();
    // The source is shared read-only; its readable size is the one thing that may move, under its lock.
    const std::int64_t readable = const_cast<MappedSource*>(mapped)->refreshReadableSize();
    if (readable < mapped->count()) {
        ExternalChange change{ExternalChange::Kind::truncated, mapped->count(), readable};
        if (externalChange != change) {
            externalChange = change;
            if (onExternalChange) onExternalChange(change);
        }
    }
    return readable;
}

// MARK: line cache and observers

void TextDocument::cacheLine(std::int64_t n, std::string text) {
    auto [entry, inserted] = lineCache_.insert_or_assign(n, std::move(text));
    if (!inserted) return;
    lineCacheOrder_.push_back(n);
    if (lineCacheOrder_.size() > lineCacheLimit) {
        lineCache_.erase(lineCacheOrder_.front());
        lineCacheOrder_.pop_front();
    }
}

void TextDocument::invalidateLineCache(std::int64_t line, bool all) {
    if (all) {
        lineCache_.clear();
        lineCacheOrder_.clear();
        return;
    }
    std::erase_if(lineCacheOrder_, [&](std::int64_t n) { return n >= line; });
    std::erase_if(lineCache_, [&](const auto& entry) { return entry.first >= line; });
}

void TextDocument::notifyChanged(std::int64_t line, const DocumentChange& change) {
    lastChange_ = change;
    ++editGeneration_;
    if (std::this_thread::get_id() == processMainThread) {
        deliverChange(line);
        return;
    }
    MainQueue::post([weak = weak_from_this(), line] {
        if (const auto document = weak.lock()) document->deliverChange(line);
    });
}

void TextDocument::deliverChange(std::int64_t line) {
    std::erase_if(observers_, [](const auto& observer) { return observer.expired(); });
    // A copy: an observer may add or remove observers while it is told.
    const auto current = observers_;
    for (const auto& weak : current) {
        if (const auto observer = weak.lock()) observer->documentDidChange(*this, line);
    }
}

void TextDocument::addObserver(const std::shared_ptr<TextDocumentObserver>& observer) {
    if (observer) observers_.push_back(observer);
}

void TextDocument::removeObserver(const TextDocumentObserver* observer) {
    std::erase_if(observers_, [&](const auto& weak) {
        const auto held = weak.lock();
        return !held || held.get() == observer;
    });
}

std::vector<std::uint8_t> TextDocument::rawBytesForComparison(std::int64_t limit) const {
    return table_->bytes({0, std::min(limit, table_->byteCount())});
}

void TextDocument::replaceTable(std::shared_ptr<const ByteSource> source, LoadMode mode, LineIndex index) {
    table_ = std::make_unique<PieceTable>(source, std::move(index));
    backing_ = std::move(source);
    loadMode_ = mode;
    invalidateLineCache(0, true);
}

} // namespace brim
