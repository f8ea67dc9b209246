#include "charsets/EncodingDetector.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "entry/Commands.h"
#include "store/TextDocument.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <sys/statvfs.h>

// `--benchmark file`: the timing suite. Each figure is one line "name: value unit" on standard
// output, so scripts can pick them out and later steps can add their own.

namespace brim {

namespace {

using Clock = std::chrono::steady_clock;

/// Seconds since `start`.
double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Prints "name: value unit" with `decimals` places; no unit, no trailing space.
void printFigure(std::string_view name, double value, int decimals, std::string_view unit = {}) {
    char number[64];
    std::snprintf(number, sizeof number, "%.*f", decimals, value);
    std::string line(name);
    line += ": ";
    line += number;
    if (!unit.empty()) {
        line += ' ';
        line += unit;
    }
    line += '\n';
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
}

/// The most this process has had resident, in bytes, from /proc/self/status; 0 if unknown.
std::int64_t peakResidentBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1'024;
    }
    return 0;
}

} // namespace

int benchmarkCommand(Arguments arguments) {
    const std::string& path = arguments[2];
    std::error_code error;
    if (!std::filesystem::exists(path, error) || std::filesystem::is_directory(path, error)) {
        printError(L("cannot read %@", path));
        return 1;
    }

    // open: the document as a window opens it; the index reaches through the first megabyte.
    const auto openStart = Clock::now();
    std::shared_ptr<TextDocument> document;
    try {
        TextDocument::OpenOptions options;
        options.readProjectRules = false;
        document = TextDocument::open(path, options);
    } catch (const BrimError&) {
        printError(L("cannot read %@", path));
        return 1;
    }
    printFigure("open", secondsSince(openStart), 3, "s");
    const auto source = document->backing();

    // detect: the character set, from the samples detection reads.
    const auto detectStart = Clock::now();
    const EncodingDetection detection =
        EncodingDetector::detect(*source, TextEncoding::cp1252(), std::filesystem::path(path).filename().string());
    static_cast<void>(detection);
    printFigure("detect", secondsSince(detectStart), 3, "s");

    // index: the rest of the line index, in one parallel pass, as the background would plan it.
    const auto indexStart = Clock::now();
    if (auto extension = document->planIndexExtension(document->byteCount())) {
        document->commitIndexExtension(std::move(*extension));
    }
    const double indexSeconds = secondsSince(indexStart);
    printFigure("index", indexSeconds, 3, "s");
    const double rate = indexSeconds > 0 ? static_cast<double>(source->count()) / indexSeconds / 1e9 : 0;
    printFigure("index-rate", rate, 2, "GB/s");
    printFigure("lines", static_cast<double>(document->lineCount()), 0);

    // first-edit: a fresh document's first keystroke, which completes its index on the spot.
    {
        TextDocument::OpenOptions options;
        options.readProjectRules = false;
        const auto fresh = TextDocument::open(path, options);
        const std::int64_t middle = fresh->byteCount() / 2;
        const auto editStart = Clock::now();
        fresh->replace({middle, middle}, "x", middle, middle + 1);
        printFigure("first-edit", secondsSince(editStart), 3, "s");
    }

    // save: the edited document written beside the file, then removed; skipped without room for it,
    // or when BRIM_BENCHMARK_NO_SAVE is set (a script that measures saving on its own).
    document->replace({0, 0}, "x", 0, 1);
    const auto saved = std::filesystem::path(path).parent_path() / ".brim-benchmark-save";
    struct statvfs space {};
    const auto folder = std::filesystem::absolute(path).parent_path();
    const char* noSave = std::getenv("BRIM_BENCHMARK_NO_SAVE");
    if ((noSave == nullptr || *noSave == 0) && ::statvfs(folder.c_str(), &space) == 0 &&
        static_cast<std::int64_t>(space.f_bavail) * static_cast<std::int64_t>(space.f_frsize) > 2 * document->byteCount()) {
        try {
            const auto saveStart = Clock::now();
            const auto outcome = document->writeOut(folder / saved.filename(),
                                                    {document->encoding, document->lineEnding, false, false});
            printFigure("save", secondsSince(saveStart), 3, "s");
        } catch (const BrimError& failure) {
            printError(failure.what());
        }
        std::filesystem::remove(folder / saved.filename(), error);
    }

    printFigure("peak-rss", static_cast<double>(peakResidentBytes()) / 1e6, 0, "MB");
    return 0;
}

} // namespace brim
