#include "bytes/LineIndex.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "bytes/PieceTable.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "entry/Commands.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

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

/// What opening costs, the way a document opens: files of a megabyte or more are mapped.
constexpr std::int64_t mmapThreshold = 1'048'576;
/// Opening indexes this much at once; the rest is for the background.
constexpr std::int64_t openingIndexBytes = 1'048'576;

std::shared_ptr<const ByteSource> openSource(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error && static_cast<std::int64_t>(size) >= mmapThreshold) {
        try {
            return std::make_shared<MappedSource>(path);
        } catch (const BrimError&) {
            // Not mappable (a special file): read it instead, below.
        }
    }
    return std::make_shared<MemorySource>(MemorySource::bytesOfFile(path));
}

} // namespace

int benchmarkCommand(Arguments arguments) {
    const std::string& path = arguments[2];
    std::error_code error;
    if (!std::filesystem::exists(path, error) || std::filesystem::is_directory(path, error)) {
        printError(L("cannot read %@", path));
        return 1;
    }

    // open: the source, a deferred index through the first megabyte, and the table.
    const auto openStart = Clock::now();
    std::shared_ptr<const ByteSource> source;
    try {
        source = openSource(path);
    } catch (const BrimError&) {
        printError(L("cannot read %@", path));
        return 1;
    }
    LineIndex openingIndex(source->count());
    if (auto extension = openingIndex.plan(*source, openingIndexBytes)) openingIndex.commit(std::move(*extension));
    PieceTable table(source, std::move(openingIndex));
    printFigure("open", secondsSince(openStart), 3, "s");

    // index: the rest of the line index, in one parallel pass.
    const auto indexStart = Clock::now();
    LineIndex& index = table.originalIndex();
    // A pass from front to back, advised as the document's background indexing advises it.
    const auto* mapped = dynamic_cast<const MappedSource*>(source.get());
    if (mapped != nullptr) mapped->adviseSequential(true);
    if (auto extension = index.plan(*source, index.byteCount())) index.commit(std::move(*extension));
    if (mapped != nullptr) mapped->adviseSequential(false);
    const double indexSeconds = secondsSince(indexStart);
    printFigure("index", indexSeconds, 3, "s");
    const double rate = indexSeconds > 0 ? static_cast<double>(source->count()) / indexSeconds / 1e9 : 0;
    printFigure("index-rate", rate, 2, "GB/s");
    printFigure("lines", static_cast<double>(index.estimatedLineCount()), 0);

    printFigure("peak-rss", static_cast<double>(peakResidentBytes()) / 1e6, 0, "MB");
    return 0;
}

} // namespace brim
