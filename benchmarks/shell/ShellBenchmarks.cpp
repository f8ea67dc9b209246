// Speed of the editor window, painted offscreen: the first screen of a 10 GB file (opening included),
// jumping to its end and painting once the index reaches it, and painting one screen of an ordinary
// file at a place not painted before.
//
// The 10 GB file is made under $TMPDIR (default /tmp) and removed at the end: real lines in its first
// 16 MiB and last MiB, a hole between that costs no disk. BRIM_BENCH_HUGE_BYTES changes its size.

#include "shell/TextView.h"
#include "store/TextDocument.h"

#include <QApplication>
#include <QScrollBar>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace brim {
namespace {

std::filesystem::path folder() {
    const char* temporary = std::getenv("TMPDIR");
    static const std::filesystem::path path =
        std::filesystem::path(temporary != nullptr ? temporary : "/tmp") / ("brim-shell-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(path);
    return path;
}

std::string lines(std::int64_t bytes, std::int64_t first) {
    std::string text;
    text.reserve(static_cast<std::size_t>(bytes) + 100);
    for (std::int64_t i = first; static_cast<std::int64_t>(text.size()) < bytes; ++i) {
        text += "record " + std::to_string(i) + ": the quick brown fox jumps over the lazy dog\n";
    }
    return text;
}

void writeAt(int descriptor, const std::string& text, off_t at) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = pwrite(descriptor, text.data() + done, text.size() - done, at + static_cast<off_t>(done));
        if (wrote <= 0) std::abort();
        done += static_cast<std::size_t>(wrote);
    }
}

const std::filesystem::path& hugeFile() {
    static const std::filesystem::path path = [] {
        const char* size = std::getenv("BRIM_BENCH_HUGE_BYTES");
        const std::int64_t bytes = size != nullptr ? std::atoll(size) : 10'000'000'000LL;
        const auto made = folder() / "huge.txt";
        struct statvfs space {};
        if (statvfs(folder().c_str(), &space) == 0 &&
            static_cast<std::int64_t>(space.f_bavail * space.f_frsize) < 64 * 1'048'576) {
            std::fputs("not enough disk for the sparse file's real parts\n", stderr);
            std::abort();
        }
        const int descriptor = ::open(made.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        if (descriptor < 0 || ftruncate(descriptor, bytes) != 0) std::abort();
        writeAt(descriptor, lines(16 * 1'048'576, 0), 0);
        std::string tail = "\n" + lines(1'048'576, 900'000'000);
        tail.resize(1'048'576);
        tail.back() = '\n';
        writeAt(descriptor, tail, static_cast<off_t>(bytes - 1'048'576));
        ::close(descriptor);
        return made;
    }();
    return path;
}

void firstScreenOfAHugeFile(benchmark::State& state) {
    for (auto _ : state) {
        const auto document = TextDocument::open(hugeFile());
        shell::TextView view(document);
        view.resize(1'000, 800);
        benchmark::DoNotOptimize(view.grab());
    }
    state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(hugeFile()));
}
BENCHMARK(firstScreenOfAHugeFile)->Unit(benchmark::kMillisecond)->Iterations(5);

void jumpToTheEndAndPaint(benchmark::State& state) {
    const auto document = TextDocument::open(hugeFile());
    document->completeIndex();   // the background index has reached the end
    shell::TextView view(document);
    view.resize(1'000, 800);
    benchmark::DoNotOptimize(view.grab());
    for (auto _ : state) {
        state.PauseTiming();
        view.move(shell::TextView::Move::documentStart, false);
        benchmark::DoNotOptimize(view.grab());
        state.ResumeTiming();
        view.move(shell::TextView::Move::documentEnd, false);
        benchmark::DoNotOptimize(view.grab());
    }
}
BENCHMARK(jumpToTheEndAndPaint)->Unit(benchmark::kMillisecond)->Iterations(5);

void paintOneScreen(benchmark::State& state) {
    const auto path = folder() / "ordinary.txt";
    {
        const int descriptor = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        writeAt(descriptor, lines(8 * 1'048'576, 0), 0);
        ::close(descriptor);
    }
    const auto document = TextDocument::open(path);
    document->completeIndex();
    shell::TextView view(document);
    view.resize(1'000, 800);
    std::int64_t screens = 0;
    for (auto _ : state) {
        // A place not painted before: every line is read, decoded and laid out again.
        view.scrollRows(view.visibleRowCount());
        if (view.topOffset() >= view.lastTopOffset()) view.scrollToOffset(0);
        view.viewport()->repaint();
        ++screens;
    }
    state.counters["rows"] = view.visibleRowCount();
    state.SetItemsProcessed(screens);
}
BENCHMARK(paintOneScreen)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace brim

int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    const auto home = brim::folder();
    setenv("XDG_CONFIG_HOME", (home / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(home);
    return 0;
}
