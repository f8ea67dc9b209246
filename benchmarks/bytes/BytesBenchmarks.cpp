// Speed of the byte store: the line index against `wc -l` on the same file in the same run,
// opening with a partial index at two sizes, random edits at two document sizes, and the
// newline count itself.
//
// Files are generated under $TMPDIR (default /tmp) and removed at the end. Sizes:
//   BRIM_BENCH_INDEX_BYTES   the file for the index and `wc -l` (default 2 GiB)
//   BRIM_BENCH_INDEX_FILE    an existing file to use for them instead
//   BRIM_BENCH_EDIT_BYTES    the large document for random edits (default 1 GiB)
//   BRIM_BENCH_EDITS         edits per run (default 100,000)

#include "bytes/ByteScan.h"
#include "bytes/LineIndex.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "bytes/PieceTable.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>

extern char** environ;

namespace brim {
namespace {

std::int64_t environmentNumber(const char* name, std::int64_t fallback) {
    const char* value = std::getenv(name);
    return value == nullptr ? fallback : std::atoll(value);
}

std::filesystem::path temporaryFolder() {
    const char* folder = std::getenv("TMPDIR");
    return folder == nullptr ? std::filesystem::path("/tmp") : std::filesystem::path(folder);
}

/// About 16 MiB of log lines of varied length, the same every run.
const std::string& logBlock() {
    static const std::string block = [] {
        std::mt19937 random(20'240'301);
        const char* levels[] = {"INFO ", "DEBUG", "WARN ", "ERROR", "TRACE"};
        const char* paths[] = {"/api/v1/items",
                               "/api/v1/users/profile",
                               "/health",
                               "/static/app.js",
                               "/api/v2/orders/search?q=widget&page=3",
                               "/login"};
        std::string out;
        out.reserve(16'900'000);
        char line[512];
        while (out.size() < 16'777'216) {
            const auto r = static_cast<unsigned>(random());
            const int length = std::snprintf(
                line, sizeof line,
                "2024-03-%02uT%02u:%02u:%02u.%03uZ %s [worker-%u] request id=%u path=%s status=%u took=%ums",
                1 + r % 28, (r >> 3) % 24, (r >> 5) % 60, (r >> 7) % 60, (r >> 9) % 1'000,
                levels[(r >> 11) % 5], (r >> 13) % 16, static_cast<unsigned>(random() % 1'000'000),
                paths[(r >> 15) % 6], (r >> 17) % 5 < 3 ? 200u : ((r >> 17) % 5 == 3 ? 404u : 500u),
                static_cast<unsigned>(random() % 2'000));
            out.append(line, static_cast<std::size_t>(length));
            if (r % 7 == 0) out += " note=" + std::string(random() % 120, 'x');
            out.push_back('\n');
        }
        return out;
    }();
    return block;
}

/// A generated file, removed when the run ends.
class GeneratedFile {
public:
    /// `realBytes` of log lines; past them, up to `size`, a hole that reads as zeros.
    GeneratedFile(const std::string& name, std::int64_t size, std::int64_t realBytes) {
        path_ = temporaryFolder() / ("brim-bench-" + std::to_string(::getpid()) + "-" + name);
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        const std::string& block = logBlock();
        for (std::int64_t written = 0; written < realBytes;) {
            const auto take = static_cast<std::size_t>(
                std::min<std::int64_t>(realBytes - written, static_cast<std::int64_t>(block.size())));
            out.write(block.data(), static_cast<std::streamsize>(take));
            written += static_cast<std::int64_t>(take);
        }
        out.close();
        if (size > realBytes) std::filesystem::resize_file(path_, static_cast<std::uintmax_t>(size));
    }
    ~GeneratedFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    GeneratedFile(const GeneratedFile&) = delete;
    GeneratedFile& operator=(const GeneratedFile&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

std::mutex filesLock;
std::map<std::string, std::unique_ptr<GeneratedFile>> files;  // guarded by filesLock

/// The file of that name, made on first use.
const std::filesystem::path& generated(const std::string& name, std::int64_t size, std::int64_t realBytes) {
    std::lock_guard guard(filesLock);
    auto& file = files[name];
    if (!file) file = std::make_unique<GeneratedFile>(name, size, realBytes);
    return file->path();
}

const std::filesystem::path& indexFile() {
    // A file given by the caller (scripts/compare-peers makes one) is used as it is.
    static const std::filesystem::path given = [] {
        const char* path = std::getenv("BRIM_BENCH_INDEX_FILE");
        return path == nullptr ? std::filesystem::path() : std::filesystem::path(path);
    }();
    if (!given.empty()) return given;
    const std::int64_t size = environmentNumber("BRIM_BENCH_INDEX_BYTES", 2'147'483'648);
    return generated("index.log", size, size);
}

/// Runs a program with its output thrown away and waits for it.
void runQuietly(const std::vector<std::string>& arguments) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        int status = 0;
        ::waitpid(child, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}

std::int64_t residentBytes(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) return std::stoll(line.substr(std::string(field).size())) * 1'024;
    }
    return 0;
}

/// A mapped file read straight through its map, to compare with the buffered reads the index
/// uses for mapped files.
class MappedWalk final : public ByteSource {
public:
    explicit MappedWalk(const std::filesystem::path& path) : mapped_(path) {}
    [[nodiscard]] std::int64_t count() const override { return mapped_.count(); }
    [[nodiscard]] bool prefersBufferedReads() const override { return false; }
    void read(ByteRange range, std::uint8_t* destination) const override { mapped_.read(range, destination); }
    void withBytes(ByteRange range,
                   const std::function<void(std::span<const std::uint8_t>)>& body) const override {
        mapped_.withBytes(range, body);
    }

private:
    MappedSource mapped_;
};

// --- The line index against wc -l -------------------------------------------------------

void BM_IndexLargeFile(benchmark::State& state) {
    const auto& path = indexFile();
    const MappedSource source(path);
    std::int64_t lines = 0;
    for (auto _ : state) {
        auto index = LineIndex::build(source);
        lines = index->estimatedLineCount();
        benchmark::DoNotOptimize(lines);
    }
    state.SetBytesProcessed(state.iterations() * source.count());
    state.counters["lines"] = static_cast<double>(lines);
}
BENCHMARK(BM_IndexLargeFile)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

void BM_WcLines(benchmark::State& state) {
    const auto& path = indexFile();
    const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path));
    for (auto _ : state)
        runQuietly({"wc", "-l", path.string()});
    state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_WcLines)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

/// The same index through the map instead of buffered reads, kept to check that choice.
void BM_IndexLargeFileThroughTheMap(benchmark::State& state) {
    std::int64_t size = 0;
    for (auto _ : state) {
        // A fresh map each time, as a document gets: its pages are faulted in by the walk.
        const MappedWalk source(indexFile());
        benchmark::DoNotOptimize(LineIndex::build(source));
        size = source.count();
    }
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["peak-rss-MB"] = static_cast<double>(residentBytes("VmHWM:")) / 1e6;
}
BENCHMARK(BM_IndexLargeFileThroughTheMap)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

// --- Opening with a partial index -----------------------------------------------------

/// What a large document's opening costs in the byte store: the map, the first megabyte
/// indexed, the table. Bounded work: the same for 100 MB and 10 GB.
void BM_OpenPartial(benchmark::State& state) {
    const std::int64_t size = state.range(0);
    const auto& path =
        generated("open-" + std::to_string(size), size, std::min<std::int64_t>(size, 104'857'600));
    const std::int64_t residentBefore = residentBytes("VmRSS:");
    std::int64_t residentOpen = 0;
    for (auto _ : state) {
        auto source = std::make_shared<MappedSource>(path);
        LineIndex index(source->count());
        auto extension = index.plan(*source, 1'048'576);
        index.commit(std::move(*extension));
        PieceTable table(source, std::move(index));
        benchmark::DoNotOptimize(table.offsetOfLine(1'000));
        residentOpen = residentBytes("VmRSS:");
    }
    state.counters["resident-growth-MB"] = static_cast<double>(residentOpen - residentBefore) / 1e6;
    state.counters["peak-rss-MB"] = static_cast<double>(residentBytes("VmHWM:")) / 1e6;
}
BENCHMARK(BM_OpenPartial)
    ->Arg(104'857'600)
    ->Arg(10'737'418'240)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// --- Random edits ---------------------------------------------------------------------

/// 100,000 random edits (inserts, deletes and replacements at uniform positions) on a fresh
/// table; the figure is microseconds per edit.
void BM_RandomEdits(benchmark::State& state) {
    const std::int64_t size = state.range(0);
    const std::int64_t edits = environmentNumber("BRIM_BENCH_EDITS", 100'000);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    const std::string& block = logBlock();
    for (std::int64_t at = 0; at < size; at += static_cast<std::int64_t>(block.size())) {
        const auto take = std::min<std::size_t>(block.size(), static_cast<std::size_t>(size - at));
        std::copy_n(block.begin(), take, bytes.begin() + at);
    }
    auto source = std::make_shared<MemorySource>(std::move(bytes));
    const LineIndex index = *LineIndex::build(*source);
    double microsecondsPerEdit = 0;
    std::size_t pieces = 0;
    for (auto _ : state) {
        state.PauseTiming();
        PieceTable table(source, index);
        std::mt19937_64 random(42);
        const std::uint8_t text[] = "abc\ndef ghi\njkl";
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        for (std::int64_t edit = 0; edit < edits; ++edit) {
            const auto count = static_cast<std::uint64_t>(table.byteCount());
            const auto lo = static_cast<std::int64_t>(random() % (count + 1));
            const auto kind = random() % 3;
            const std::int64_t removed = kind == 0 ? 0 : static_cast<std::int64_t>(1 + random() % 32);
            const std::size_t inserted = kind == 1 ? 0 : 1 + random() % 15;
            benchmark::DoNotOptimize(table.replace({lo, lo + removed}, std::span(text, inserted)));
        }
        microsecondsPerEdit =
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() /
            static_cast<double>(edits);
        pieces = table.pieces().size();
        benchmark::DoNotOptimize(table.lineContainingOffset(table.byteCount() / 2));
    }
    state.counters["us-per-edit"] = microsecondsPerEdit;
    state.counters["pieces"] = static_cast<double>(pieces);
}
BENCHMARK(BM_RandomEdits)
    ->Arg(1'048'576)
    ->Arg(environmentNumber("BRIM_BENCH_EDIT_BYTES", 1'073'741'824))
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

// --- The count itself -----------------------------------------------------------------

void BM_CountNewlinesInCache(benchmark::State& state) {
    const std::string& block = logBlock();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(block.data());
    const std::int64_t length = state.range(0);
    for (auto _ : state)
        benchmark::DoNotOptimize(ByteScan::countNewlines(bytes, length));
    state.SetBytesProcessed(state.iterations() * length);
}
BENCHMARK(BM_CountNewlinesInCache)->Arg(65'536);

void BM_ScanWithCheckpoints(benchmark::State& state) {
    const std::string& block = logBlock();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(block.data());
    for (auto _ : state) {
        LineIndex::ChunkScanner scanner(defaultIndexStride);
        for (std::size_t at = 0; at < block.size(); at += 524'288) {
            scanner.scan(bytes + at,
                         static_cast<std::int64_t>(std::min<std::size_t>(524'288, block.size() - at)));
        }
        benchmark::DoNotOptimize(scanner.newlines);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(block.size()));
}
BENCHMARK(BM_ScanWithCheckpoints);

/// Keeps each benchmark's time per iteration, to print the ratios with the peer at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colour only for a terminal; counters as "name=value", which scripts can pick out.
    RatioReporter() : ConsoleReporter(::isatty(1) != 0 ? OO_Color : OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                seconds[run.benchmark_name()] =
                    run.real_accumulated_time / static_cast<double>(run.iterations);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> seconds;
};

}  // namespace
}  // namespace brim

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    brim::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto& seconds = reporter.seconds;
    const auto ratio = [&](const char* ours, const char* peer, const char* what) {
        const auto a = seconds.find(ours);
        const auto b = seconds.find(peer);
        if (a == seconds.end() || b == seconds.end() || a->second <= 0) return;
        std::printf("ratio: %s is %.2fx as fast as %s (%.3f s against %.3f s)\n", what, b->second / a->second,
                    peer, a->second, b->second);
    };
    ratio("BM_IndexLargeFile/min_time:2.000/real_time", "BM_WcLines/min_time:2.000/real_time",
          "the full line index");
    ratio("BM_IndexLargeFileThroughTheMap/min_time:2.000/real_time", "BM_WcLines/min_time:2.000/real_time",
          "the index through the map");
    {
        std::lock_guard guard(brim::filesLock);
        brim::files.clear();
    }
    benchmark::Shutdown();
    return 0;
}
