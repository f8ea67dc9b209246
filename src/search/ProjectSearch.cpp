#include "search/ProjectSearch.h"

#include "bytes/MemorySource.h"
#include "charsets/EncodingDetector.h"
#include "charsets/TextEncoding.h"
#include "search/DocumentText.h"
#include "search/SearchWindow.h"
#include "store/TextDocument.h"
#include "search/ExpressionSyntax.h"
#include "search/SearchEngine.h"

#include <fcntl.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace brim {

namespace {

constexpr std::size_t textSniff = 8'192;

/// A descriptor closed when it goes.
class FileHandle {
public:
    explicit FileHandle(const std::filesystem::path& path) {
        do {
            fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
        } while (fd_ < 0 && errno == EINTR);
    }
    ~FileHandle() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_ = -1;
};

/// Reads up to `count` bytes from the start; fewer when the file is shorter. False on an error.
bool readPrefix(int fd, std::uint8_t* into, std::size_t count, std::size_t& got) {
    got = 0;
    while (got < count) {
        const ssize_t n = ::pread(fd, into + got, count - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

/// The options a project search opens a file with: read into memory up to 16 MiB, nothing
/// detected that a search does not need.
TextDocument::OpenOptions documentOptions() {
    TextDocument::OpenOptions options;
    options.mmapThreshold = 16'777'216;
    options.indexStride = 4'096;
    options.detectIndentation = false;
    options.tabWidth = 4;
    options.detectFieldWidths = false;
    options.readProjectRules = false;
    return options;
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) bool plainASCIIAVX2(std::span<const std::uint8_t> bytes, std::size_t& at) {
    const __m256i vt = _mm256_set1_epi8(0x0B);
    const __m256i two = _mm256_set1_epi8(2);
    for (; at + 32 <= bytes.size(); at += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes.data() + at));
        // VT, FF or CR: the byte less 0x0B is at most 2, unsigned.
        const __m256i shifted = _mm256_sub_epi8(v, vt);
        const __m256i controls = _mm256_cmpeq_epi8(_mm256_min_epu8(shifted, two), shifted);
        if (_mm256_movemask_epi8(_mm256_or_si256(v, controls)) != 0) return false;
    }
    return true;
}
#endif

/// Whether the bytes are ASCII with no VT, FF or CR: one pass, the common case of a project.
bool plainASCII(std::span<const std::uint8_t> bytes) {
    std::size_t at = 0;
#if defined(__x86_64__)
    static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
    if (avx2 && !plainASCIIAVX2(bytes, at)) return false;
#endif
    for (; at < bytes.size(); ++at) {
        const std::uint8_t b = bytes[at];
        if (b >= 0x80 || (b >= 0x0B && b <= 0x0D)) return false;
    }
    return true;
}

/// Whether a file reads the same as a document and as its bytes: well-formed UTF-8 (plain ASCII
/// among it) whose name declares no other set and whose lines end in LF or CR LF alone, so the
/// document would keep the bytes as they are. Most of a project is such, and is searched at once
/// in the bytes already read.
bool readsAsItIs(const std::filesystem::path& file, std::span<const std::uint8_t> bytes) {
    const TextEncoding* named = TextEncoding::namedByFile(file.filename().string());
    if (plainASCII(bytes)) {
        // ASCII reads the same in every set a document keeps in its own bytes.
        return named == nullptr || (named->asciiCompatible && !named->stateful && !named->unicodeUnitWidth());
    }
    const std::size_t firstHigh = UTF8::firstNonASCII(bytes);
    if (firstHigh < bytes.size() && UTF8::firstInvalid(bytes.subspan(firstHigh)) != bytes.size() - firstHigh) return false;
    // CR, VT and FF could make the document turn its line ends into LF; NEL, LS and PS too.
    for (const std::uint8_t rare : {std::uint8_t{0x0D}, std::uint8_t{0x0B}, std::uint8_t{0x0C}}) {
        const void* at = std::memchr(bytes.data(), rare, bytes.size());
        if (at == nullptr) continue;
        if (rare != 0x0D) return false;
        // CR LF is kept as it is; any other CR is not.
        const std::uint8_t* end = bytes.data() + bytes.size();
        for (auto* cr = static_cast<const std::uint8_t*>(at); cr != nullptr;
             cr = static_cast<const std::uint8_t*>(std::memchr(cr + 1, 0x0D, static_cast<std::size_t>(end - cr - 1)))) {
            if (cr + 1 == end || cr[1] != 0x0A) return false;
        }
    }
    if (firstHigh < bytes.size()) {
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        for (const std::string_view rare : {std::string_view("\xC2\x85"), std::string_view("\xE2\x80\xA8"), std::string_view("\xE2\x80\xA9")}) {
            if (text.find(rare, firstHigh) != std::string_view::npos) return false;
        }
    }
    return named == nullptr || named->id == "utf8";
}

} // namespace

bool ProjectSearch::isProbablyText(const std::filesystem::path& file) {
    const FileHandle handle(file);
    if (handle.fd() < 0) return false;
    std::uint8_t buffer[textSniff];
    std::size_t got = 0;
    if (!readPrefix(handle.fd(), buffer, sizeof buffer, got)) return false;
    return std::memchr(buffer, 0, got) == nullptr;
}

ProjectSearch::FileOutcome ProjectSearch::examine(const std::filesystem::path& file, const SearchQuery& query,
                                                  const IsCancelled& isCancelled) {
    FileOutcome outcome;
    // One open, one stat and one read: the sniff for NUL looks at the start of what was read.
    const FileHandle handle(file);
    if (handle.fd() < 0) {
        if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    struct stat status {};
    if (::fstat(handle.fd(), &status) != 0) {
        outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    if (!S_ISREG(status.st_mode) || status.st_size < 1 || status.st_size > maxFileBytes) return outcome;
    // Each thread reads into a buffer of its own that only ever grows to the largest file, so a
    // project of many files costs no allocation a file.
    thread_local MemorySource source;
    std::vector<std::uint8_t>& bytes = source.bytes();
    bytes.resize(static_cast<std::size_t>(status.st_size));
    std::size_t got = 0;
    if (!readPrefix(handle.fd(), bytes.data(), bytes.size(), got)) {
        outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    bytes.resize(got);  // a file that shrank since the stat
    if (bytes.empty()) return outcome;
    const std::span<const std::uint8_t> head(bytes.data(), std::min(bytes.size(), textSniff));
    const bool hasNUL = std::memchr(head.data(), 0, head.size()) != nullptr;
    // A NUL means binary, unless the file is text in UTF-16 or UTF-32, which is full of them.
    if (hasNUL && !EncodingDetector::detectBOM(head) && !EncodingDetector::detectUTF16WithoutBOM(head)) return outcome;

    outcome.status = FileOutcome::Status::searched;
    const auto finish = [&](SearchText text) {
        const FindAllResult found = SearchEngine::findAll(text, query, maxListedHits, 0, {}, isCancelled);
        if (found.timedOut) outcome.status = FileOutcome::Status::timedOut;
        if (found.total == 0) return;
        FileHit hit;
        hit.url = file;
        hit.total = found.total;
        hit.results = SearchResultsView::build(text, found.matches, maxListedHits);
        for (auto& row : hit.results) row.file = file;
        outcome.hit = std::move(hit);
    };
    if (!hasNUL && readsAsItIs(file, bytes)) {
        finish(source);
        return outcome;
    }

    // Any other file is opened as a document, in its own character set: a file kept in its own
    // bytes is searched in them, one in UTF-16 or with rare line ends through its UTF-8 copy.
    std::shared_ptr<TextDocument> document;
    try {
        document = TextDocument::open(file, documentOptions());
    } catch (const std::exception&) {
        outcome.status = FileOutcome::Status::unreadable;
        return outcome;
    }
    finish(DocumentText(*document));
    return outcome;
}

std::optional<ProjectSearch::FileHit> ProjectSearch::search(const std::filesystem::path& file, const SearchQuery& query,
                                                            const IsCancelled& isCancelled) {
    try {
        return examine(file, query, isCancelled).hit;
    } catch (const BrimError&) {
        return std::nullopt;  // a bad expression: every file gives nothing
    }
}

ProjectSearch::ProjectSearch() = default;

ProjectSearch::~ProjectSearch() {
    stop();
    queue_.cancelAll();
}

bool ProjectSearch::isRunning() const {
    std::lock_guard guard(lock_);
    return isRunning_;
}

void ProjectSearch::stop() {
    std::lock_guard guard(lock_);
    stoppedRun_ = runNumber_;
}

void ProjectSearch::run(std::vector<std::string> paths, SearchQuery query, std::function<void(std::vector<FileHit>)> onBatch, std::function<void(double)> onProgress,
                        std::function<void(const Outcome&)> onFinish) {
    std::uint64_t number = 0;
    {
        std::lock_guard guard(lock_);
        number = ++runNumber_;
        isRunning_ = true;
    }
    if (paths.size() > maxFiles) paths.resize(maxFiles);
    queue_.async([this, number, paths = std::move(paths), query = std::move(query), onBatch = std::move(onBatch),
                  onProgress = std::move(onProgress), onFinish = std::move(onFinish)](const IsCancelled& queueCancelled) {
        using Clock = std::chrono::steady_clock;
        enum class State : std::uint8_t { current, replaced, stopped };
        const auto state = [this, number, &queueCancelled] {
            std::lock_guard guard(lock_);
            if (runNumber_ != number || queueCancelled()) return State::replaced;
            return stoppedRun_ == number ? State::stopped : State::current;
        };
        const IsCancelled isOver = [&state] { return state() != State::current; };
        Outcome outcome;
        std::vector<FileHit> batch;
        auto lastFlush = Clock::now();
        const auto flush = [&](std::size_t index) {
            if (!batch.empty() && onBatch) {
                MainQueue::post([this, number, onBatch, hits = std::move(batch)]() mutable {
                    bool current = false;
                    {
                        std::lock_guard guard(lock_);
                        current = runNumber_ == number;
                    }
                    if (current) onBatch(std::move(hits));
                });
            }
            batch.clear();
            if (onProgress) {
                const double fraction = static_cast<double>(index + 1) / static_cast<double>(std::max<std::size_t>(paths.size(), 1));
                MainQueue::post([onProgress, fraction] { onProgress(fraction); });
            }
            lastFlush = Clock::now();
        };
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const State now = state();
            if (now == State::replaced) return;  // a newer run speaks for itself
            if (now == State::stopped) {
                outcome.wasCancelled = true;
                break;
            }
            if (outcome.matches >= matchLimit) {
                outcome.stoppedAtLimit = true;
                break;
            }
            FileOutcome file;
            try {
                file = examine(paths[i], query, isOver);
            } catch (const BrimError&) {
                file = {};  // a bad expression: every file gives nothing
            }
            ++outcome.searched;
            if (file.status == FileOutcome::Status::unreadable) ++outcome.unreadable;
            if (file.hit && !file.hit->results.empty()) {
                ++outcome.files;
                outcome.matches += file.hit->total;
                batch.push_back(std::move(*file.hit));
            }
            if (Clock::now() - lastFlush > std::chrono::milliseconds(150)) flush(i);
        }
        flush(paths.empty() ? 0 : paths.size() - 1);
        MainQueue::post([this, number, onFinish, outcome] {
            {
                std::lock_guard guard(lock_);
                if (runNumber_ != number) return;
                isRunning_ = false;
            }
            if (onFinish) onFinish(outcome);
        });
    });
}

} // namespace brim
