// Speed and memory of documents: opening at two sizes (the work must not grow with the file), the
// memory a 10 GB document holds open, the first edit (which completes the index) and the keystrokes
// after it, and saving a large document with one edit against `cp` of the same file in the same run.
//
// Files are generated under $TMPDIR (default /tmp) and removed at the end. Sizes:
//   BRIM_BENCH_SMALL_BYTES   the smaller file for opening (default 100 MB, real lines throughout)
//   BRIM_BENCH_HUGE_BYTES    the larger file for opening and memory (default 10 GB). Only its head
//                            (16 MiB), a stretch at the middle and its tail (1 MiB each) hold real
//                            lines; the rest is a hole in the file that reads as zeros, so it costs no
//                            disk. Opening reads only those parts, which is what this measures.
//   BRIM_BENCH_HUGE_FILE     an existing file to use instead of the sparse one (kept afterwards):
//                            scripts/compare-peers documents gives a 10 GB file of real lines here,
//                            so that the first edit's index pass reads real text from the page cache
//   BRIM_BENCH_EDIT_BYTES    the file for first edit and save (default 1 GiB, real lines throughout)

#include "store/TextDocument.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

extern char** environ;

namespace brim {
namespace {

std::int64_t environmentNumber(const char* name, std::int64_t fallback) {
    const char* value = std::getenv(name);
    return value == nullptr ? fallback : std::atoll(value);
}

std::filesystem::path benchmarkFolder() {
    static const std::filesystem::path folder = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = (std::filesystem::path(base == nullptr ? "/tmp" : base) / "brim-store-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        return std::filesystem::path(pattern);
    }();
    return folder;
}

/// 16 MiB of log lines of varied length, the same every run.
const std::string& logBlock() {
    static const std::string block = [] {
        std::mt19937 random(20'240'611);
        const char* words[] = {"GET", "/api/v1/items", "200", "took", "ms", "user", "session", "ERROR", "cache", "miss"};
        std::string out;
        out.reserve(16'900'000);
        std::int64_t line = 0;
        while (out.size() < 16'777'216) {
            out += "2024-06-11T12:00:00Z [" + std::to_string(line++) + "]";
            const auto count = 3 + random() % 12;
            for (unsigned i = 0; i < count; ++i) {
                out += ' ';
                out += words[random() % 10];
            }
            out += '\n';
        }
        return out;
    }();
    return block;
}

void writeLines(int fd, std::int64_t offset, std::int64_t length) {
    const auto& block = logBlock();
    for (std::int64_t done = 0; done < length;) {
        const auto n = std::min<std::int64_t>(length - done, static_cast<std::int64_t>(block.size()));
        if (::pwrite(fd, block.data(), static_cast<std::size_t>(n), offset + done) != n) std::abort();
        done += n;
    }
}

/// A file of real lines throughout.
std::filesystem::path fullFile(std::int64_t size) {
    static std::map<std::int64_t, std::filesystem::path> made;
    if (const auto found = made.find(size); found != made.end()) return found->second;
    const auto path = benchmarkFolder() / ("full-" + std::to_string(size) + ".log");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    writeLines(fd, 0, size);
    ::close(fd);
    made[size] = path;
    return path;
}

/// A file with lines at its head, middle and tail and a hole between them.
std::filesystem::path sparseFile(std::int64_t size) {
    static std::map<std::int64_t, std::filesystem::path> made;
    if (const auto found = made.find(size); found != made.end()) return found->second;
    const auto path = benchmarkFolder() / ("sparse-" + std::to_string(size) + ".log");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (::ftruncate(fd, size) != 0) std::abort();
    writeLines(fd, 0, std::min<std::int64_t>(size, 16 << 20));
    writeLines(fd, size / 2 - (1 << 19), 1 << 20);
    writeLines(fd, size - (1 << 20), 1 << 20);
    ::close(fd);
    made[size] = path;
    return path;
}

/// The large file: the one named by BRIM_BENCH_HUGE_FILE, or the sparse one of BRIM_BENCH_HUGE_BYTES.
std::filesystem::path hugeFile() {
    if (const char* given = std::getenv("BRIM_BENCH_HUGE_FILE"); given != nullptr && *given != 0) return given;
    return sparseFile(environmentNumber("BRIM_BENCH_HUGE_BYTES", 10'000'000'000));
}

std::int64_t residentBytes(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(field) + ":";
    while (std::getline(status, line)) {
        if (line.rfind(prefix, 0) == 0) return std::stoll(line.substr(prefix.size())) * 1'024;
    }
    return 0;
}

/// Starts the peak resident size afresh, so a later read says what happened since.
void resetPeakResident() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
}

TextDocument::OpenOptions benchmarkOptions() {
    TextDocument::OpenOptions options;
    options.fallbackEncoding = TextEncoding::cp1252();
    options.readProjectRules = false;
    return options;
}

void openDocument(benchmark::State& state, const std::filesystem::path& path) {
    const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path));
    std::int64_t resident = 0;
    for (auto _ : state) {
        const auto before = residentBytes("VmRSS");
        auto document = TextDocument::open(path, benchmarkOptions());
        benchmark::DoNotOptimize(document->lineCount());
        resident = std::max(resident, residentBytes("VmRSS") - before);
    }
    state.counters["file_GB"] = static_cast<double>(size) / 1e9;
    state.counters["rss_growth_MB"] = static_cast<double>(resident) / 1e6;
}

void BM_OpenSmall(benchmark::State& state) {
    openDocument(state, fullFile(environmentNumber("BRIM_BENCH_SMALL_BYTES", 100'000'000)));
}

void BM_OpenHuge(benchmark::State& state) {
    openDocument(state, hugeFile());
}

/// What the whole process holds with a 10 GB document open and its first screen read.
void BM_ResidentWithHugeDocumentOpen(benchmark::State& state) {
    const auto path = hugeFile();
    for (auto _ : state) {
        auto document = TextDocument::open(path, benchmarkOptions());
        for (std::int64_t n = 0; n < 60; ++n) benchmark::DoNotOptimize(document->lineText(n));
        state.counters["process_rss_MB"] = static_cast<double>(residentBytes("VmRSS")) / 1e6;
    }
}

/// A fresh document's first edit, in the middle, timed alone: it completes the line index on the spot.
/// The process's resident size after it goes into the counters.
void timeFirstEdit(benchmark::State& state, const std::filesystem::path& path) {
    const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path));
    for (auto _ : state) {
        state.PauseTiming();
        auto document = TextDocument::open(path, benchmarkOptions());
        state.ResumeTiming();
        document->replace({size / 2, size / 2}, "x", size / 2, size / 2 + 1);
        state.PauseTiming();
        state.counters["process_rss_MB"] = static_cast<double>(residentBytes("VmRSS")) / 1e6;
        document.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * size);
}

/// The first edit of a file in the page cache.
void BM_FirstEdit(benchmark::State& state) {
    const auto path = fullFile(environmentNumber("BRIM_BENCH_EDIT_BYTES", 1'073'741'824));
    { std::ifstream warm(path, std::ios::binary); std::vector<char> buffer(1 << 20); while (warm.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {} }
    timeFirstEdit(state, path);
}

/// The first edit of the 10 GB file: the index pass over all of it. The sparse file is mostly a hole,
/// which reads as zero pages straight from memory (few lines); a real file in the page cache is the
/// honest case, and BRIM_BENCH_HUGE_FILE gives one.
void BM_FirstEditHuge(benchmark::State& state) { timeFirstEdit(state, hugeFile()); }

/// Keystrokes after the first edit: each one a line lookup, a piece split and an insertion.
void BM_Keystroke(benchmark::State& state) {
    const auto path = fullFile(environmentNumber("BRIM_BENCH_EDIT_BYTES", 1'073'741'824));
    auto document = TextDocument::open(path, benchmarkOptions());
    const auto size = document->byteCount();
    std::mt19937_64 random(3);
    document->replace({0, 0}, "x", 0, 1);
    std::int64_t caret = size / 3;
    for (auto _ : state) {
        if (random() % 64 == 0) caret = static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(document->byteCount()));
        const std::uint8_t letter = 'a';
        caret = document->replaceBytes({caret, caret}, std::span(&letter, 1), caret, caret + 1, true);
    }
}

std::int64_t freeBytes(const std::filesystem::path& folder) {
    struct statvfs info {};
    if (::statvfs(folder.c_str(), &info) != 0) return 0;
    return static_cast<std::int64_t>(info.f_bavail) * static_cast<std::int64_t>(info.f_frsize);
}

double copySeconds(const std::filesystem::path& from, const std::filesystem::path& to) {
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    std::string cp = "/bin/cp";
    std::string source = from.string();
    std::string dest = to.string();
    char* argv[] = {cp.data(), source.data(), dest.data(), nullptr};
    if (::posix_spawn(&child, cp.c_str(), nullptr, nullptr, argv, environ) != 0) return 0;
    int status = 0;
    ::waitpid(child, &status, 0);
    // `cp` leaves the data in the cache; what a save adds beyond that is its fsync.
    const int fd = ::open(dest.c_str(), O_RDONLY);
    ::fsync(fd);
    ::close(fd);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Saving a large document with one edit, against `cp` (and an fsync) of the same file.
void BM_SaveWithOneEdit(benchmark::State& state) {
    const auto path = fullFile(environmentNumber("BRIM_BENCH_EDIT_BYTES", 1'073'741'824));
    const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path));
    if (freeBytes(benchmarkFolder()) < 3 * size) {
        state.SkipWithError("not enough free space for two more copies of the file");
        return;
    }
    const auto dest = benchmarkFolder() / "saved.log";
    const auto copied = benchmarkFolder() / "copied.log";
    auto document = TextDocument::open(path, benchmarkOptions());
    document->replace({size / 2, size / 2}, "one edit", size / 2, size / 2 + 8);
    double saveTotal = 0;
    double copyTotal = 0;
    std::int64_t peakGrowth = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(dest);
        std::filesystem::remove(copied);
        copyTotal += copySeconds(path, copied);
        resetPeakResident();
        const auto before = residentBytes("VmRSS");
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        auto outcome = document->writeOut(dest, {TextEncoding::utf8(), LineEnding::lf, false, false});
        saveTotal += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        benchmark::DoNotOptimize(outcome.index.byteCount());
        state.PauseTiming();
        peakGrowth = std::max(peakGrowth, residentBytes("VmHWM") - before);
        state.ResumeTiming();
    }
    std::filesystem::remove(dest);
    std::filesystem::remove(copied);
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["save_over_cp"] = copyTotal > 0 ? saveTotal / copyTotal : 0;
    state.counters["peak_rss_growth_MB"] = static_cast<double>(peakGrowth) / 1e6;
}

BENCHMARK(BM_OpenSmall)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_OpenHuge)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_ResidentWithHugeDocumentOpen)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_FirstEdit)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_FirstEditHuge)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Keystroke)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SaveWithOneEdit)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
} // namespace brim

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(brim::benchmarkFolder(), ignored);
    return 0;
}
