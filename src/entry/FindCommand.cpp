#include "entry/Commands.h"

#include "bytes/LineIndex.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "common/BrimError.h"
#include "search/SearchEngine.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <memory>

namespace brim {

namespace {

/// Files from this size on are mapped rather than read, as documents open by default.
constexpr std::int64_t mmapThreshold = 1'048'576;

double secondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

// A timing command: how long a literal search of a whole document takes, beside how long the
// document took to open. The document is opened as the store opens one by default: mapped from
// 1 MiB on, read into memory below that, its line index left to be built later.
int findCommand(Arguments arguments) {
    const std::string& path = arguments[2];
    SearchQuery query;
    query.pattern = arguments[3];
    query.caseSensitive = hasFlag(arguments, "--case");

    const auto started = std::chrono::steady_clock::now();
    std::unique_ptr<ByteSource> source;
    try {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && status.st_size >= mmapThreshold) {
            source = std::make_unique<MappedSource>(path);
        } else {
            source = std::make_unique<MemorySource>(MemorySource::bytesOfFile(path));
        }
    } catch (const BrimError&) {
        printError("open failed");
        return 1;
    }
    const LineIndex lines(source->count());
    const auto opened = std::chrono::steady_clock::now();

    std::int64_t total = -1;
    try {
        total = SearchEngine::findAll(*source, query, 0, 8).total;
    } catch (const BrimError&) {
        total = -1;
    }
    const auto searched = std::chrono::steady_clock::now();
    const double searchSeconds = secondsBetween(opened, searched);
    const double rate = searchSeconds > 0 ? static_cast<double>(source->count()) / searchSeconds / 1e9 : 0.0;
    std::printf("%lld matches — search %.3f s (%.2f GB/s), open+index %.3f s, total %.3f s\n",
                static_cast<long long>(total), searchSeconds, rate, secondsBetween(started, opened),
                secondsBetween(started, searched));
    (void)lines;
    return 0;
}

} // namespace brim
