// Speed of transcoding a large file to a UTF-8 working copy, side by side with glibc's `iconv` and ICU's
// `uconv` on the same file in the same run, and the cost of writing back one edited stretch by
// checkpoints against converting everything.
//
// Files are generated under $TMPDIR (default /tmp) and removed at the end. Every tool writes its output
// to the same disk and the output is synchronised before the clock stops, as a working copy is.
//   BRIM_BENCH_TRANSCODE_BYTES   the size of each input file (default 1 GiB)

#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "charsets/TextEncoding.h"
#include "charsets/Transcoder.h"
#include "common/UserResources.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
    return value != nullptr && *value != '\0' ? std::stoll(value) : fallback;
}

std::int64_t fileBytes() { return environmentNumber("BRIM_BENCH_TRANSCODE_BYTES", 1'073'741'824); }

/// A folder of its own under the temporary folder, removed at exit; the support folder points into it.
class Scratch {
public:
    Scratch() {
        std::string pattern = (std::filesystem::temp_directory_path() / "brim-transcode-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        path_ = pattern;
        UserResources::setOverrideRoot(path_ / "support");
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

Scratch& scratch() {
    static Scratch folder;
    return folder;
}

/// Text of the kind each set is used for: mostly letters of its script, spaces and line ends.
std::string sampleText(const std::string& id) {
    std::mt19937 random(42);
    std::string text;
    const std::vector<std::string> western = {"the", "quick", "brown", "fox", "café", "naïve", "Zürich", "señor",
                                              "garçon", "jumps", "over", "lazy", "dog", "élève", "Ærø", "smørrebrød"};
    const std::vector<std::string> japanese = {"日本語", "の", "文章", "です", "カタカナ", "ひらがな", "漢字", "東京",
                                               "、", "。", "テスト", "データ", "ABC", "123", "変換", "速度"};
    const std::vector<std::string> chinese = {"中文", "的", "文本", "这是", "测试", "数据", "北京", "上海", "。", "，",
                                              "转换", "速度", "文件", "打开", "保存", "ABC", "123", "编码"};
    const auto& words = id == "latin1" ? western : id == "hzgb2312" ? chinese : japanese;
    while (text.size() < 4'000'000) {
        const int lineWords = 6 + static_cast<int>(random() % 10);
        for (int k = 0; k < lineWords; ++k) {
            text += words[random() % words.size()];
            text += id == "latin1" || random() % 3 == 0 ? " " : "";
        }
        text += "\n";
    }
    return text;
}

std::mutex filesLock;
std::map<std::string, std::filesystem::path> files;   // guarded by filesLock

/// The input file for a set, made on first use by repeating encoded sample text.
const std::filesystem::path& inputFor(const TextEncoding& encoding) {
    std::lock_guard guard(filesLock);
    auto& path = files[encoding.id];
    if (!path.empty()) {
        return path;
    }
    const std::string text = sampleText(encoding.id);
    Transcoder::BlockConverter encoder(TextEncoding::utf8(), encoding);
    std::vector<std::uint8_t> chunk;
    encoder.convert(std::vector<std::uint8_t>(text.begin(), text.end()), chunk);
    encoder.finish(chunk);
    path = scratch().path() / (encoding.id + ".txt");
    std::ofstream stream(path, std::ios::binary);
    for (std::int64_t written = 0; written < fileBytes(); written += static_cast<std::int64_t>(chunk.size())) {
        stream.write(reinterpret_cast<const char*>(chunk.data()), static_cast<std::streamsize>(chunk.size()));
    }
    return path;
}

void synchronise(const std::filesystem::path& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

bool run(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Set {
    const char* id;
    const char* iconvName;
    const char* uconvName;
};
constexpr Set sets[] = {{"latin1", "ISO-8859-1", "ISO-8859-1"},
                        {"shiftjis", "SHIFT_JIS", "ibm-943_P15A-2003"},
                        {"utf16le", "UTF-16LE", "UTF-16LE"}};

void BM_Ours(benchmark::State& state) {
    const Set& set = sets[state.range(0)];
    const TextEncoding& encoding = *TextEncoding::byId(set.id);
    const std::filesystem::path& input = inputFor(encoding);
    state.SetLabel(set.id);
    for (auto _ : state) {
        MappedSource source(input);
        const auto outcome = Transcoder::transcodeToWorkingCopy(source, encoding);
        benchmark::DoNotOptimize(outcome.bytesWritten);
        state.PauseTiming();
        std::filesystem::remove(*outcome.workingCopy);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(input)));
}

void peer(benchmark::State& state, bool iconv) {
    const Set& set = sets[state.range(0)];
    const std::filesystem::path& input = inputFor(*TextEncoding::byId(set.id));
    const std::filesystem::path output = scratch().path() / "peer.out";
    state.SetLabel(set.id);
    for (auto _ : state) {
        const bool ran = iconv ? run({"iconv", "-f", set.iconvName, "-t", "UTF-8", "-o", output.string(), input.string()})
                               : run({"uconv", "-f", set.uconvName, "-t", "UTF-8", "-o", output.string(), input.string()});
        if (!ran) {
            state.SkipWithError("the peer did not run");
            break;
        }
        synchronise(output);
        state.PauseTiming();
        std::filesystem::remove(output);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(input)));
}

void BM_Iconv(benchmark::State& state) { peer(state, true); }
void BM_Uconv(benchmark::State& state) { peer(state, false); }

/// Ours and the two peers take turns on each set, on inputs written and synchronised before any of
/// them runs, so that no tool pays for another's writes still going to disk.
void registerTranscoding() {
    for (int k = 0; k < 3; ++k) {
        inputFor(*TextEncoding::byId(sets[k].id));
    }
    {
        std::lock_guard guard(filesLock);
        for (const auto& [id, path] : files) {
            synchronise(path);
        }
    }
    for (int k = 0; k < 3; ++k) {
        benchmark::RegisterBenchmark("BM_Ours", BM_Ours)->Arg(k)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("BM_Iconv", BM_Iconv)->Arg(k)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("BM_Uconv", BM_Uconv)->Arg(k)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
    }
}

/// Saving a document held in a working copy after one edit, the way the store saves: with checkpoints
/// only the stretch between the two checkpoints around the edit is converted back (by a converter of
/// its own, started and flushed there) and the rest copied from the old file; without, everything is
/// converted. For the sets with a shift state the checkpoints stand at clean line starts. After the
/// timed runs the two ways' files are compared: they must be the same bytes.
const char* const saveSets[] = {"shiftjis", "iso2022jp", "hzgb2312"};

std::filesystem::path savedPath(const std::string& id, bool byCheckpoints) {
    return scratch().path() / ("saved-" + id + (byCheckpoints ? "-checkpoints" : "-whole") + ".txt");
}

void writeBack(benchmark::State& state, bool byCheckpoints) {
    const std::string id = saveSets[state.range(0)];
    const TextEncoding& encoding = *TextEncoding::byId(id);
    state.SetLabel(id);
    const std::filesystem::path& input = inputFor(encoding);
    MappedSource file(input);
    Transcoder::Checkpoints checkpoints;
    const auto outcome = Transcoder::transcodeToWorkingCopy(file, encoding, {.checkpoints = &checkpoints});
    if (!checkpoints.isUsable) {
        state.SkipWithError("no usable checkpoints");
        return;
    }
    MappedSource copy(*outcome.workingCopy);
    // One character typed at the start of a line in the middle.
    std::int64_t edit = copy.count() / 2;
    while (edit > 0 && copy.byte(edit - 1) != '\n') {
        --edit;
    }
    const std::filesystem::path saved = savedPath(id, byCheckpoints);
    for (auto _ : state) {
        const int descriptor = ::open(saved.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        auto write = [&](std::span<const std::uint8_t> bytes) {
            if (::write(descriptor, bytes.data(), bytes.size()) < 0) {
                state.SkipWithError("write failed");
            }
        };
        auto convertRange = [&](std::int64_t from, std::int64_t to) {
            Transcoder::StreamingConverter converter(TextEncoding::utf8(), encoding, std::nullopt);
            for (std::int64_t at = from; at < to; at += 8'388'608) {
                const std::int64_t end = std::min(to, at + 8'388'608);
                if (at <= edit && edit < end) {
                    copy.withBytes({at, edit}, [&](std::span<const std::uint8_t> bytes) { write(converter.convert(bytes)); });
                    write(converter.convert(std::vector<std::uint8_t>{0xE6, 0xBC, 0xA2}));     // 漢
                    copy.withBytes({edit, end}, [&](std::span<const std::uint8_t> bytes) { write(converter.convert(bytes)); });
                } else {
                    copy.withBytes({at, end}, [&](std::span<const std::uint8_t> bytes) { write(converter.convert(bytes)); });
                }
            }
            write(converter.flush());
        };
        if (byCheckpoints) {
            const auto before = checkpoints.atOrBefore(edit);
            const auto after = checkpoints.atOrAfter(edit + 1);
            file.withBytes({0, before->second}, write);
            convertRange(before->first, after->first);
            file.withBytes({after->second, file.count()}, write);
        } else {
            convertRange(0, copy.count());
        }
        ::fsync(descriptor);
        ::close(descriptor);
    }
    if (byCheckpoints) {
        state.counters["checkpoints"] = static_cast<double>(checkpoints.count());
    }
    std::filesystem::remove(*outcome.workingCopy);
    state.SetBytesProcessed(state.iterations() * copy.count());
}

void BM_SaveOneEditByCheckpoints(benchmark::State& state) { writeBack(state, true); }
void BM_SaveOneEditConvertingAll(benchmark::State& state) { writeBack(state, false); }
BENCHMARK(BM_SaveOneEditByCheckpoints)->DenseRange(0, 2)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SaveOneEditConvertingAll)->DenseRange(0, 2)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

bool sameFiles(const std::filesystem::path& a, const std::filesystem::path& b) {
    std::ifstream one(a, std::ios::binary);
    std::ifstream two(b, std::ios::binary);
    if (!one || !two || std::filesystem::file_size(a) != std::filesystem::file_size(b)) {
        return false;
    }
    std::vector<char> x(1 << 20);
    std::vector<char> y(1 << 20);
    while (one && two) {
        one.read(x.data(), static_cast<std::streamsize>(x.size()));
        two.read(y.data(), static_cast<std::streamsize>(y.size()));
        if (one.gcount() != two.gcount() || !std::equal(x.begin(), x.begin() + one.gcount(), y.begin())) {
            return false;
        }
    }
    return true;
}

/// Keeps each benchmark's time per iteration, to print the ratios with the peers at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                seconds[run.benchmark_name()] = run.real_accumulated_time / static_cast<double>(run.iterations);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> seconds;
};

} // namespace
} // namespace brim

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    brim::registerTranscoding();
    brim::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto& seconds = reporter.seconds;
    const auto ratio = [&](const std::string& ours, const std::string& peer, const std::string& what) {
        const auto a = seconds.find(ours);
        const auto b = seconds.find(peer);
        if (a == seconds.end() || b == seconds.end() || a->second <= 0) {
            return;
        }
        std::printf("ratio: %s is %.2fx as fast as %s (%.3f s against %.3f s)\n", what.c_str(), b->second / a->second,
                    peer.c_str(), a->second, b->second);
    };
    const char* names[] = {"Latin-1", "Shift-JIS", "UTF-16 LE"};
    for (int k = 0; k < 3; ++k) {
        const std::string suffix = "/" + std::to_string(k) + "/iterations:2/real_time";
        ratio("BM_Ours" + suffix, "BM_Iconv" + suffix, std::string(names[k]) + " to a working copy");
        ratio("BM_Ours" + suffix, "BM_Uconv" + suffix, std::string(names[k]) + " to a working copy");
    }
    for (int k = 0; k < 3; ++k) {
        const std::string suffix = "/" + std::to_string(k) + "/iterations:2/real_time";
        const std::string id = brim::saveSets[k];
        ratio("BM_SaveOneEditByCheckpoints" + suffix, "BM_SaveOneEditConvertingAll" + suffix,
              "saving one edit by checkpoints (" + id + ")");
        const auto byCheckpoints = brim::savedPath(id, true);
        const auto whole = brim::savedPath(id, false);
        if (std::filesystem::exists(byCheckpoints) && std::filesystem::exists(whole)) {
            std::printf("saved %s by checkpoints and by converting everything: %s\n", id.c_str(),
                        brim::sameFiles(byCheckpoints, whole) ? "the same bytes" : "DIFFERENT BYTES");
            std::filesystem::remove(byCheckpoints);
            std::filesystem::remove(whole);
        }
    }
    {
        std::lock_guard guard(brim::filesLock);
        for (const auto& [id, path] : brim::files) {
            std::filesystem::remove(path);
        }
    }
    benchmark::Shutdown();
    return 0;
}
