#include "entry/Commands.h"

#include "common/BrimError.h"
#include "search/DocumentText.h"
#include "search/SearchEngine.h"
#include "store/TextDocument.h"

#include <chrono>
#include <cstdio>
#include <memory>

namespace brim {

namespace {

double secondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

// A timing command: how long a literal search of a whole document takes, beside how long the
// document took to open with the default options (mapped from 1 MiB on, the first MiB indexed).
int findCommand(Arguments arguments) {
    const std::string& path = arguments[2];
    SearchQuery query;
    query.pattern = arguments[3];
    query.caseSensitive = hasFlag(arguments, "--case");

    const auto started = std::chrono::steady_clock::now();
    std::shared_ptr<TextDocument> document;
    try {
        document = TextDocument::open(path);
    } catch (const std::exception&) {
        printError("open failed");
        return 1;
    }
    // The bytes the document holds (the file's own, or its UTF-8 working copy) in its set: the
    // pattern is encoded into that set, and a match must begin where a character does.
    const DocumentText text(*document);
    const ByteSource& source = text.bytes();
    const auto opened = std::chrono::steady_clock::now();

    std::int64_t total = -1;
    try {
        total = SearchEngine::findAll(text, query, 0, 8).total;
    } catch (const BrimError&) {
        total = -1;
    }
    const auto searched = std::chrono::steady_clock::now();
    const double searchSeconds = secondsBetween(opened, searched);
    const double rate = searchSeconds > 0 ? static_cast<double>(source.count()) / searchSeconds / 1e9 : 0.0;
    std::printf("%lld matches — search %.3f s (%.2f GB/s), open+index %.3f s, total %.3f s\n",
                static_cast<long long>(total), searchSeconds, rate, secondsBetween(started, opened),
                secondsBetween(started, searched));
    return 0;
}

} // namespace brim
