// What character-set detection costs, and that it costs the same for a file of 1 MB and one of 10 GB:
// detection reads a head, a middle and a tail sample and nothing else.
//
// The large files are generated, not stored: a source that makes its bytes on demand stands for a
// mapped file. Beside them, on a real file of the same text, uchardet (which reads all of a file) runs
// in the same run, and the ratio is printed as a counter.
//   BRIM_BENCH_DETECT_PEER_BYTES   the size of the file both tools read (default 64 MiB)

#include "bytes/MappedSource.h"
#include "charsets/EncodingDetector.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace brim {
namespace {

/// A source whose bytes repeat a pattern, to any size, and which counts what is read of it.
class GeneratedSource final : public ByteSource {
public:
    GeneratedSource(std::int64_t size, std::vector<std::uint8_t> pattern) : size_(size), pattern_(std::move(pattern)) {}
    [[nodiscard]] std::int64_t count() const override { return size_; }
    void read(ByteRange range, std::uint8_t* destination) const override {
        const ByteRange clamped = range.clampedTo(size_);
        bytesRead_ += clamped.length();
        const auto period = static_cast<std::int64_t>(pattern_.size());
        for (std::int64_t offset = clamped.lower; offset < clamped.upper; ++offset) {
            *destination++ = pattern_[static_cast<std::size_t>(offset % period)];
        }
    }
    void withBytes(ByteRange range, const std::function<void(std::span<const std::uint8_t>)>& body) const override {
        std::vector<std::uint8_t> copy(static_cast<std::size_t>(range.clampedTo(size_).length()));
        read(range, copy.data());
        body(copy);
    }
    [[nodiscard]] std::int64_t bytesRead() const { return bytesRead_; }

private:
    std::int64_t size_;
    std::vector<std::uint8_t> pattern_;
    mutable std::atomic<std::int64_t> bytesRead_{0};
};

/// A paragraph in one of the three kinds of text that take different roads through detection.
std::vector<std::uint8_t> paragraph(int kind) {
    switch (kind) {
    case 0:   // valid UTF-8: validation of the whole sample
        return TextEncoding::utf8().encode("Die Größe der Äpfel überrascht Müller; 東京の天気は晴れです。\n").bytes;
    case 1:   // Windows-1252: every 8-bit reading is scored
        return TextEncoding::cp1252().encode("Über die Größe der Äpfel: „schön“ – sagt Müller… ça va.\n").bytes;
    default:  // Shift-JIS: the CJK sets are decoded and profiled
        return TextEncoding::shiftJIS().encode("東京の天気は晴れです。今日は良い一日になりそうです。\n").bytes;
    }
}

const char* kindName(int kind) { return kind == 0 ? "utf8" : kind == 1 ? "cp1252" : "shiftjis"; }

void detectGenerated(benchmark::State& state) {
    const int kind = static_cast<int>(state.range(0));
    const std::int64_t size = state.range(1);
    std::int64_t sampled = 0;
    std::string answer;
    for (auto _ : state) {
        const GeneratedSource source(size, paragraph(kind));
        const EncodingDetection detection = EncodingDetector::detect(source, TextEncoding::cp1252(), "");
        benchmark::DoNotOptimize(detection);
        sampled = source.bytesRead();
        answer = detection.encoding.id;
    }
    state.SetBytesProcessed(state.iterations() * sampled);
    state.counters["file_MB"] = static_cast<double>(size) / 1e6;
    state.counters["sampled_KB"] = static_cast<double>(sampled) / 1e3;
    state.SetLabel(std::string(kindName(kind)) + " -> " + answer);
}
BENCHMARK(detectGenerated)
    ->ArgsProduct({{0, 1, 2}, {1'000'000, 10'000'000'000}})
    ->ArgNames({"text", "size"})
    ->Unit(benchmark::kMillisecond);

// MARK: the peer

std::int64_t environmentNumber(const char* name, std::int64_t fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::stoll(value) : fallback;
}

/// A file of the Windows-1252 paragraph, made once per run and removed at its end.
struct PeerFile {
    std::filesystem::path path;
    PeerFile() {
        const char* folder = std::getenv("TMPDIR");
        path = std::filesystem::path(folder != nullptr && *folder != '\0' ? folder : "/tmp") /
               ("brim-detect-" + std::to_string(::getpid()) + ".txt");
        const auto text = paragraph(1);
        const std::int64_t size = environmentNumber("BRIM_BENCH_DETECT_PEER_BYTES", 64 * 1'048'576);
        std::ofstream out(path, std::ios::binary);
        for (std::int64_t written = 0; written < size; written += static_cast<std::int64_t>(text.size())) {
            out.write(reinterpret_cast<const char*>(text.data()), static_cast<std::streamsize>(text.size()));
        }
    }
    ~PeerFile() {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
    PeerFile(const PeerFile&) = delete;
    PeerFile& operator=(const PeerFile&) = delete;
};

const PeerFile& peerFile() {
    static const PeerFile file;
    return file;
}

/// Seconds uchardet takes over the file, output discarded; negative when it can't be run.
double uchardetSeconds(const std::filesystem::path& path) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const std::string file = path.string();
    char program[] = "uchardet";
    char* argv[] = {program, const_cast<char*>(file.c_str()), nullptr};
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    const int failed = posix_spawnp(&child, "uchardet", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) return -1;
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void detectFileBesideUchardet(benchmark::State& state) {
    const PeerFile& file = peerFile();
    double brim = 0;
    double peer = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const MappedSource source(file.path);
        const EncodingDetection detection = EncodingDetector::detect(source, TextEncoding::cp1252(), "");
        benchmark::DoNotOptimize(detection);
        brim += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        peer += uchardetSeconds(file.path);
    }
    const auto n = static_cast<double>(state.iterations());
    state.counters["brim_ms"] = brim / n * 1e3;
    state.counters["uchardet_ms"] = peer / n * 1e3;
    state.counters["uchardet_over_brim"] = peer > 0 && brim > 0 ? peer / brim : 0;
    state.counters["file_MB"] = static_cast<double>(std::filesystem::file_size(file.path)) / 1e6;
}
BENCHMARK(detectFileBesideUchardet)->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace brim

BENCHMARK_MAIN();
