// The line diff against git's own, on the same pair of files in the same run:
//
//   brim_compare_benchmarks                       two versions of a 100 MB file, and smaller cases
//   BRIM_DIFF_BENCH_MB=20 brim_compare_benchmarks  a smaller pair
//
// The pair is made here, in a temporary folder removed at the end: log-like lines, mostly unique,
// the second version with 2,000 scattered edits (lines changed, inserted and removed). Brim's side
// is what `brim --diff` does with the two texts: read both, hash, diff, write the patch. Git's side is
// `git diff --no-index` with its patch read through a pipe.
#include "common/Subprocess.h"
#include "compare/LineDiff.h"
#include "compare/UnifiedDiff.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// A little generator of the same numbers on every run.
class Lcg {
public:
    explicit Lcg(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        state_ = state_ * 6'364'136'223'846'793'005ULL + 1'442'695'040'888'963'407ULL;
        return state_ >> 33;
    }
    std::uint64_t below(std::uint64_t bound) { return next() % bound; }

private:
    std::uint64_t state_;
};

std::vector<std::string> logLines(std::size_t bytes, Lcg& random) {
    static const char* const words[] = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta",
                                        "iota", "kappa", "lambda", "mu", "nu", "xi", "omicron", "pi"};
    std::vector<std::string> lines;
    std::size_t total = 0;
    for (std::uint64_t i = 0; total < bytes; ++i) {
        std::string line = std::to_string(10'000'000 + i) + " " + words[random.below(16)] + " request=" +
                           std::to_string(random.below(1'000'000)) + " took=" + std::to_string(random.below(5'000)) + "ms";
        for (std::uint64_t w = random.below(8); w > 0; --w) line += std::string(" ") + words[random.below(16)];
        total += line.size() + 1;
        lines.push_back(std::move(line));
    }
    return lines;
}

void writeLines(const std::filesystem::path& path, const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    std::ofstream(path, std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::vector<std::uint8_t> readFile(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    ::fstat(fd, &info);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    ::close(fd);
    bytes.resize(done);
    return bytes;
}

/// The pair of files, made once.
struct Pair {
    std::filesystem::path folder;
    std::filesystem::path oldFile;
    std::filesystem::path newFile;
    std::int64_t bytes = 0;

    static Pair& shared() {
        static Pair pair = make();
        return pair;
    }

    ~Pair() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

private:
    static Pair make() {
        const char* sizeText = std::getenv("BRIM_DIFF_BENCH_MB");
        const std::size_t megabytes = sizeText != nullptr ? std::strtoul(sizeText, nullptr, 10) : 100;
        std::string pattern = (std::filesystem::temp_directory_path() / "brim-diff-bench-XXXXXX").string();
        Pair pair;
        pair.folder = ::mkdtemp(pattern.data());
        pair.oldFile = pair.folder / "old.log";
        pair.newFile = pair.folder / "new.log";
        Lcg random(42);
        auto lines = logLines(megabytes * 1'048'576, random);
        writeLines(pair.oldFile, lines);
        for (int edit = 0; edit < 2'000; ++edit) {
            const auto at = static_cast<std::ptrdiff_t>(random.below(lines.size()));
            switch (random.below(3)) {
            case 0: lines[static_cast<std::size_t>(at)] += " edited"; break;
            case 1: lines.insert(lines.begin() + at, "inserted line " + std::to_string(edit)); break;
            default: lines.erase(lines.begin() + at); break;
            }
        }
        writeLines(pair.newFile, lines);
        pair.bytes = static_cast<std::int64_t>(std::filesystem::file_size(pair.oldFile) + std::filesystem::file_size(pair.newFile));
        return pair;
    }
};

std::map<std::string, double> secondsPerRun;   // what the ratio at the end compares

void record(const std::string& name, double seconds, std::int64_t runs) {
    secondsPerRun[name] = seconds / static_cast<double>(runs);
}

void BM_BrimDiffOfTwoVersions(benchmark::State& state) {
    const Pair& pair = Pair::shared();
    double seconds = 0;
    std::size_t patchBytes = 0;
    for (auto _ : state) {
        const auto started = Clock::now();
        const auto oldBytes = readFile(pair.oldFile);
        const auto newBytes = readFile(pair.newFile);
        brim::UnifiedDiff::PatchOptions options;
        options.oldLabel = "a/old.log";
        options.newLabel = "b/new.log";
        options.functionNames = true;
        const std::string patch = brim::UnifiedDiff::filePatch(oldBytes, newBytes, options);
        benchmark::DoNotOptimize(patch.data());
        patchBytes = patch.size();
        seconds += std::chrono::duration<double>(Clock::now() - started).count();
    }
    record("brim", seconds, state.iterations());
    state.SetBytesProcessed(state.iterations() * pair.bytes);
    state.counters["patch_bytes"] = static_cast<double>(patchBytes);
}
BENCHMARK(BM_BrimDiffOfTwoVersions)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_GitDiffNoIndexOfTwoVersions(benchmark::State& state) {
    const Pair& pair = Pair::shared();
    const auto git = brim::Subprocess::findInPath("git");
    if (!git) {
        state.SkipWithError("git is not installed");
        return;
    }
    double seconds = 0;
    std::size_t patchBytes = 0;
    const std::vector<std::string> arguments = {"diff", "--no-index", "--no-color", "--no-ext-diff", "-U3",
                                                pair.oldFile.string(), pair.newFile.string()};
    brim::Subprocess::Options options;
    options.timeout = std::chrono::minutes(5);
    options.outputLimit = std::size_t{1} << 31;
    options.environment = {{"GIT_CONFIG_NOSYSTEM", "1"}, {"HOME", pair.folder.string()}};
    for (auto _ : state) {
        const auto started = Clock::now();
        const auto result = brim::Subprocess::run(git->string(), arguments, options);
        seconds += std::chrono::duration<double>(Clock::now() - started).count();
        if (result.status != 1) state.SkipWithError("git diff did not find the difference");
        patchBytes = result.output.size();
    }
    record("git", seconds, state.iterations());
    state.SetBytesProcessed(state.iterations() * pair.bytes);
    state.counters["patch_bytes"] = static_cast<double>(patchBytes);
}
BENCHMARK(BM_GitDiffNoIndexOfTwoVersions)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_LineHashes(benchmark::State& state) {
    const auto bytes = readFile(Pair::shared().oldFile);
    for (auto _ : state) benchmark::DoNotOptimize(brim::LineDiff::lineHashes(bytes).data());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}
BENCHMARK(BM_LineHashes)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_HunksOfScatteredEdits(benchmark::State& state) {
    // 20,000 lines with 40 edits: what a keystroke's diff costs in a large source file.
    std::vector<std::uint64_t> oldHashes(20'000);
    for (std::size_t i = 0; i < oldHashes.size(); ++i) oldHashes[i] = i * 2'654'435'761ULL + 17;
    auto newHashes = oldHashes;
    for (std::size_t k = 0; k < 40; ++k) newHashes[k * 499 + 7] = k + 1;
    for (auto _ : state) benchmark::DoNotOptimize(brim::LineDiff::hunks(oldHashes, newHashes).data());
    state.SetItemsProcessed(state.iterations() * 40'000);
}
BENCHMARK(BM_HunksOfScatteredEdits)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (secondsPerRun.count("brim") != 0 && secondsPerRun.count("git") != 0) {
        const double brim = secondsPerRun["brim"];
        const double git = secondsPerRun["git"];
        std::printf("\nTwo versions of a %.0f MB file: Brim %.3f s, git diff --no-index %.3f s; Brim takes %.2fx git's time\n",
                    static_cast<double>(Pair::shared().bytes) / 2 / 1e6, brim, git, brim / git);
    }
    return 0;
}
