// What `brim --language` costs on a small file and on a sparse 10 GB one with the same head: the
// two must cost the same, since detection only ever reads a bounded sample.
#include "language/Language.h"
#include "language/LanguageChoices.h"
#include "language/LanguageSample.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace brim {
namespace {

inline constexpr std::int64_t tenGigabytes = 10LL * 1024 * 1024 * 1024;

/// A C-like text of about 1 MiB: the whole of the small file, and the head of the huge one.
std::string head() {
    std::string text = "#include <stdio.h>\n#include <stdlib.h>\n\n";
    for (int index = 0; text.size() < 1'048'576; ++index) {
        text += "static int function" + std::to_string(index) + "(const char *name, size_t count) {\n"
                "    if (name == NULL) { return -1; }\n    for (size_t i = 0; i < count; ++i) {\n"
                "        printf(\"%s %zu\\n\", name, i);\n    }\n    return 0;\n}\n\n";
    }
    return text;
}

struct Files {
    std::filesystem::path folder;
    std::string small;
    std::string huge;

    Files() {
        char pattern[] = "/tmp/brim-language-benchmark-XXXXXX";
        folder = ::mkdtemp(pattern);
        const auto text = head();
        small = (folder / "small.c").string();
        huge = (folder / "huge.c").string();
        write(small, text);
        write(huge, text);
        // The rest of the 10 GB is a hole: no disk is used, and a reader past the head would
        // still have ten gigabytes of zeros to get through.
        if (::truncate(huge.c_str(), tenGigabytes) != 0) {
            std::perror("truncate");
            std::exit(1);
        }
    }
    ~Files() { std::filesystem::remove_all(folder); }

    static void write(const std::string& path, const std::string& text) {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size()) {
            std::perror(path.c_str());
            std::exit(1);
        }
        std::fclose(file);
    }
};

const Files& files() {
    static const Files made;
    return made;
}

/// Everything one file costs `--language --verbose`: the sample, the detection, the candidates
/// and the content's own best guess.
std::size_t languageOfFile(const std::string& path) {
    const auto sample = LanguageSample::read(path);
    const auto language = Language::detect(path, *sample);
    const auto languages = Language::merged();
    const auto candidates = LanguageChoices::candidates(*sample, "", language, *languages);
    const auto best = LanguageChoices::best(*sample, "");
    benchmark::DoNotOptimize(best);
    return sample->size() + candidates.size();
}

void languageCommandOn(benchmark::State& state, const std::string& path) {
    (void)languageOfFile(path);   // the table and the vocabulary are built once per process
    std::int64_t sampled = 0;
    for (auto _ : state) {
        sampled += static_cast<std::int64_t>(LanguageSample::read(path)->size());
        benchmark::DoNotOptimize(languageOfFile(path));
    }
    state.SetBytesProcessed(sampled / 2);
    state.counters["fileBytes"] = static_cast<double>(std::filesystem::file_size(path));
}

void BM_LanguageOfSmallFile(benchmark::State& state) { languageCommandOn(state, files().small); }
void BM_LanguageOfTenGigabyteFile(benchmark::State& state) { languageCommandOn(state, files().huge); }
BENCHMARK(BM_LanguageOfSmallFile)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LanguageOfTenGigabyteFile)->Unit(benchmark::kMicrosecond);

void BM_ContentScoringOfAFullSample(benchmark::State& state) {
    const auto sample = LanguageSample::read(files().huge);
    for (auto _ : state) {
        benchmark::DoNotOptimize(LanguageChoices::best(*sample, ""));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(sample->size()));
}
BENCHMARK(BM_ContentScoringOfAFullSample)->Unit(benchmark::kMicrosecond);

void BM_DetectionByName(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Language::detect("/src/project/view.html.erb"));
    }
}
BENCHMARK(BM_DetectionByName);

/// The median of a few runs, for the ratio printed at the end.
double medianSeconds(const std::string& path) {
    std::vector<double> runs;
    for (int run = 0; run < 15; ++run) {
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(languageOfFile(path));
        runs.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::nth_element(runs.begin(), runs.begin() + 7, runs.end());
    return runs[7];
}

} // namespace
} // namespace brim

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    const double small = brim::medianSeconds(brim::files().small);
    const double huge = brim::medianSeconds(brim::files().huge);
    std::printf("--language on 10 GB vs 1 MiB (same head): %.3f ms vs %.3f ms, ratio %.2f\n", huge * 1e3, small * 1e3,
                huge / small);
    return 0;
}
