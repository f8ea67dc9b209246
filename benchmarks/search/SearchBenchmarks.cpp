// Speed of search: the literal scanner's three strategies, the engine's literal and expression
// paths and the line filter over a log in memory; and, side by side with ripgrep in the same run
// on the same file, a literal, an expression with a literal prefix and a line filter over a
// large log in the page cache.
//
// The large file is generated under $TMPDIR (default /tmp) and removed at the end, unless one is
// given:
//   BRIM_BENCH_SEARCH_FILE    a file to search instead (kept)
//   BRIM_BENCH_SEARCH_BYTES   the size of the generated file (default 2 GiB)
//   BRIM_BENCH_RG             the ripgrep to compare with (default "rg" from PATH)

#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "common/Subprocess.h"
#include "search/LineFilter.h"
#include "search/LiteralMatcher.h"
#include "search/ProjectFiles.h"
#include "search/SearchEngine.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>

namespace brim {
namespace {

std::int64_t environmentNumber(const char* name, std::int64_t fallback) {
    const char* value = std::getenv(name);
    return value == nullptr ? fallback : std::atoll(value);
}

/// About 16 MiB of log lines of varied length, the same every run; one line in about 10,000
/// holds the rare word "needle_xyzzy".
const std::string& logBlock() {
    static const std::string block = [] {
        std::mt19937 engine(20'240'611);
        const auto random = [&engine] { return static_cast<unsigned>(engine()); };
        const char* words[] = {"the",     "of",      "and",    "request", "response", "server", "client",
                               "connection", "timeout", "user", "session", "value",   "count",  "total",
                               "http",    "get",     "post",   "status",  "code",     "module", "function",
                               "return",  "index",   "buffer", "memory",  "thread",   "queue",  "cache"};
        const char* levels[] = {"INFO", "WARN", "DEBUG", "ERROR", "TRACE"};
        std::string out;
        out.reserve(16'900'000);
        char prefix[96];
        while (out.size() < 16'777'216) {
            std::snprintf(prefix, sizeof prefix, "2024-06-%02u %02u:%02u:%02u.%03u [%s] ", random() % 28 + 1,
                          random() % 24, random() % 60, random() % 60, random() % 1000, levels[random() % 5]);
            out += prefix;
            const unsigned count = 4 + random() % 15;
            for (unsigned w = 0; w < count; ++w) {
                out += words[random() % (sizeof words / sizeof *words)];
                out += ' ';
            }
            if (random() % 10'000 == 0) out += "needle_xyzzy ";
            out += "id=" + std::to_string(random() % 1'000'000) + "\n";
        }
        return out;
    }();
    return block;
}

/// 64 MiB of the log in memory.
const MemorySource& memoryLog() {
    static const MemorySource source = [] {
        std::vector<std::uint8_t> bytes;
        bytes.reserve(4 * logBlock().size());
        for (int i = 0; i < 4; ++i) bytes.insert(bytes.end(), logBlock().begin(), logBlock().end());
        return MemorySource(std::move(bytes));
    }();
    return source;
}

SearchQuery makeQuery(const char* pattern, bool isRegex, bool caseSensitive) {
    SearchQuery query;
    query.pattern = pattern;
    query.isRegex = isRegex;
    query.caseSensitive = caseSensitive;
    return query;
}

// MARK: in memory

void scannerStrategy(benchmark::State& state, const char* pattern, LiteralMatcher::Strategy strategy, bool caseless) {
    const MemorySource& source = memoryLog();
    const ByteHistogram histogram = LiteralMatcher::byteHistogram(source);
    LiteralMatcher matcher(pattern, caseless, &histogram);
    matcher.strategy = strategy;
    std::int64_t found = 0;
    for (auto _ : state) {
        found = 0;
        source.withBytes({0, source.count()}, [&](std::span<const std::uint8_t> bytes) {
            LiteralMatcher::Scanner scanner(matcher, bytes);
            for (std::size_t at = scanner.next(); at != LiteralMatcher::Scanner::none; at = scanner.next()) ++found;
        });
        benchmark::DoNotOptimize(found);
    }
    state.counters["matches"] = static_cast<double>(found);
    state.SetBytesProcessed(state.iterations() * source.count());
}

void engine(benchmark::State& state, const char* pattern, bool isRegex, bool caseSensitive) {
    const MemorySource& source = memoryLog();
    const SearchQuery query = makeQuery(pattern, isRegex, caseSensitive);
    std::int64_t total = 0;
    for (auto _ : state) {
        total = SearchEngine::findAll(source, query, 0, 8).total;
        benchmark::DoNotOptimize(total);
    }
    state.counters["matches"] = static_cast<double>(total);
    state.SetBytesProcessed(state.iterations() * source.count());
}

void lineFilter(benchmark::State& state, const char* pattern, bool isRegex) {
    const MemorySource& source = memoryLog();
    const SearchQuery query = makeQuery(pattern, isRegex, true);
    std::int64_t lines = 0;
    for (auto _ : state) {
        lines = LineFilter::matchingRuns(source, query).matchedLines;
        benchmark::DoNotOptimize(lines);
    }
    state.counters["lines"] = static_cast<double>(lines);
    state.SetBytesProcessed(state.iterations() * source.count());
}

void globs(benchmark::State& state) {
    const std::string pattern = "src/**/{test,check}s/**/*.{c,cc,h}";
    const std::string path = "src/drivers/net/ethernet/intel/tests/unit/e1000/hw.cc";
    bool matched = false;
    for (auto _ : state) {
        matched = FileFilter::match(pattern, path);
        benchmark::DoNotOptimize(matched);
    }
    state.counters["matched"] = matched ? 1 : 0;
}

// MARK: beside ripgrep

/// The large log: the file named in the environment, or one generated once and removed at exit.
class LargeLog {
public:
    static const LargeLog& shared() {
        static const LargeLog log;
        return log;
    }

    LargeLog(const LargeLog&) = delete;
    LargeLog& operator=(const LargeLog&) = delete;
    ~LargeLog() {
        if (generated_) {
            std::error_code ignored;
            std::filesystem::remove(path_, ignored);
        }
    }

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] const MappedSource& source() const { return *source_; }

private:
    LargeLog() {
        if (const char* given = std::getenv("BRIM_BENCH_SEARCH_FILE")) {
            path_ = given;
        } else {
            const char* folder = std::getenv("TMPDIR");
            path_ = std::filesystem::path(folder == nullptr ? "/tmp" : folder) / "brim-search-bench.log";
            const std::int64_t bytes = environmentNumber("BRIM_BENCH_SEARCH_BYTES", std::int64_t{2} << 30);
            std::ofstream out(path_, std::ios::binary | std::ios::trunc);
            for (std::int64_t written = 0; written < bytes;) {
                const auto piece = std::min<std::int64_t>(bytes - written, static_cast<std::int64_t>(logBlock().size()));
                out.write(logBlock().data(), piece);
                written += piece;
            }
            generated_ = true;
        }
        source_ = std::make_unique<MappedSource>(path_);
        // Into the page cache before anything is timed.
        std::ifstream in(path_, std::ios::binary);
        std::vector<char> buffer(1 << 20);
        while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
        }
    }

    std::filesystem::path path_;
    std::unique_ptr<MappedSource> source_;
    bool generated_ = false;
};

struct PeerRun {
    double seconds = 0;
    std::string output;
};

PeerRun runPeer(const std::vector<std::string>& arguments) {
    const char* rg = std::getenv("BRIM_BENCH_RG");
    Subprocess::Options options;
    options.timeout = std::chrono::minutes(5);
    const auto started = std::chrono::steady_clock::now();
    const auto result = Subprocess::run(rg == nullptr ? "rg" : rg, arguments, options);
    PeerRun run;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    run.output.assign(result.output.begin(), result.output.end());
    return run;
}

/// Times our work and ripgrep's alternately on the same file, the best of each, and reports both
/// with their ratio (ours over ripgrep's: below 1 is faster).
template <typename Ours>
void besidePeer(benchmark::State& state, Ours ours, const std::vector<std::string>& peerArguments) {
    const LargeLog& log = LargeLog::shared();
    std::vector<std::string> arguments = peerArguments;
    arguments.push_back(log.path().string());
    double bestOurs = 1e9;
    double bestPeer = 1e9;
    std::int64_t count = 0;
    std::string peerOutput;
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        count = ours(log.source());
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        state.SetIterationTime(seconds);
        bestOurs = std::min(bestOurs, seconds);
        const PeerRun peer = runPeer(arguments);
        bestPeer = std::min(bestPeer, peer.seconds);
        peerOutput = peer.output;
    }
    state.counters["brim_s"] = bestOurs;
    state.counters["rg_s"] = bestPeer;
    state.counters["ratio"] = bestOurs / bestPeer;
    state.counters["brim_GBps"] = static_cast<double>(log.source().count()) / bestOurs / 1e9;
    state.counters["count"] = static_cast<double>(count);
    state.counters["rg_count"] = std::atof(peerOutput.c_str());
    state.SetBytesProcessed(state.iterations() * log.source().count());
}

void peerLiteral(benchmark::State& state, const char* pattern) {
    const SearchQuery query = makeQuery(pattern, false, true);
    // `rg -c` counts lines; a pattern at most once a line makes the two counts comparable.
    besidePeer(state, [&](const ByteSource& source) { return SearchEngine::findAll(source, query, 0, 8).total; },
               {"-c", "-F", pattern});
}

void peerExpression(benchmark::State& state, const char* pattern) {
    const SearchQuery query = makeQuery(pattern, true, true);
    besidePeer(state, [&](const ByteSource& source) { return SearchEngine::findAll(source, query, 0, 8).total; },
               {"-c", pattern});
}

// A pattern whose lines form fewer than the filter's 1,000,000 separate stretches, so the whole
// file is filtered and the counts compare.
void peerLineFilter(benchmark::State& state, const char* pattern) {
    const SearchQuery query = makeQuery(pattern, false, true);
    besidePeer(state, [&](const ByteSource& source) { return LineFilter::matchingRuns(source, query).matchedLines; },
               {"-c", "-F", pattern});
}

/// How long a line filter over the large log takes to tell its first screen of 60 rows.
void firstScreen(benchmark::State& state, const char* pattern) {
    const LargeLog& log = LargeLog::shared();
    const SearchQuery query = makeQuery(pattern, false, true);
    double first = 0;
    double whole = 0;
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        std::int64_t rows = 0;
        first = -1;
        const auto result = LineFilter::matchingRuns(log.source(), query, std::nullopt, [&](std::span<const LineRun> runs) {
            for (const auto& run : runs) rows += run.lineCount();
            if (first < 0 && rows >= 60) {
                first = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            }
        });
        whole = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        state.SetIterationTime(whole);
        benchmark::DoNotOptimize(result.matchedLines);
    }
    state.counters["first_screen_s"] = first;
    state.counters["whole_s"] = whole;
}

void registerAll() {
    using Strategy = LiteralMatcher::Strategy;
    // Work spread over threads is timed by the whole process's processor time, which also
    // keeps the figures steady on a busy machine; bytes per second follow that time.
    benchmark::RegisterBenchmark("Scanner/rare/memchr", scannerStrategy, "needle_xyzzy", Strategy::rareByte, false);
    benchmark::RegisterBenchmark("Scanner/rare/vector", scannerStrategy, "needle_xyzzy", Strategy::vector, false);
    benchmark::RegisterBenchmark("Scanner/rare/wordAtATime", scannerStrategy, "needle_xyzzy", Strategy::wordAtATime, false);
    benchmark::RegisterBenchmark("Scanner/common/vector", scannerStrategy, "connection", Strategy::vector, false);
    benchmark::RegisterBenchmark("Scanner/common/wordAtATime", scannerStrategy, "connection", Strategy::wordAtATime, false);
    benchmark::RegisterBenchmark("Scanner/caseless/vector", scannerStrategy, "Connection", Strategy::vector, true);
    benchmark::RegisterBenchmark("Scanner/caseless/wordAtATime", scannerStrategy, "Connection", Strategy::wordAtATime, true);
    benchmark::RegisterBenchmark("FindAll/literal/rare", engine, "needle_xyzzy", false, true)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("FindAll/literal/common", engine, "connection", false, true)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("FindAll/literal/caseless", engine, "Connection", false, false)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("FindAll/regex/prefix", engine, "connection \\w+", true, true)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("FindAll/regex/noPrefix", engine, "\\w+tion\\b", true, true)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("FindAll/regex/caseless", engine, "error\\]", true, false)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("LineFilter/literal", lineFilter, "ERROR", false)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("LineFilter/regex", lineFilter, "time(out)? \\w+", true)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("FileFilter/glob", globs);

    const int rounds = static_cast<int>(environmentNumber("BRIM_BENCH_PEER_ROUNDS", 5));
    benchmark::RegisterBenchmark("Peer/findLiteral/rare", peerLiteral, "needle_xyzzy")->UseManualTime()->Iterations(rounds)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Peer/findLiteral/common", peerLiteral, "timeout")->UseManualTime()->Iterations(rounds)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Peer/regexPrefix", peerExpression, "needle_\\w+")->UseManualTime()->Iterations(rounds)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Peer/regexPrefix/common", peerExpression, "ERROR\\] \\w+")->UseManualTime()->Iterations(rounds)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Peer/lineFilter", peerLineFilter, "ERROR] connection")->UseManualTime()->Iterations(rounds)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Peer/lineFilter/firstScreen", firstScreen, "needle_xyzzy")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
}

} // namespace
} // namespace brim

int main(int argc, char** argv) {
    // `--write-log path bytes` writes the generated log and exits, so a script can time other
    // programs on the very same text.
    if (argc == 4 && std::string(argv[1]) == "--write-log") {
        std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
        const std::int64_t bytes = std::atoll(argv[3]);
        for (std::int64_t written = 0; written < bytes;) {
            const auto piece = std::min<std::int64_t>(bytes - written, static_cast<std::int64_t>(brim::logBlock().size()));
            out.write(brim::logBlock().data(), piece);
            written += piece;
        }
        return out ? 0 : 1;
    }
    brim::registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
