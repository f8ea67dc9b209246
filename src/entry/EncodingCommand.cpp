// `--encoding file ... [--verbose]`: the character set each file is read in, and why.

#include "bytes/Gzip.h"
#include "bytes/MappedSource.h"
#include "bytes/MemorySource.h"
#include "charsets/EncodingDetector.h"
#include "charsets/EncodingScorer.h"
#include "common/BrimError.h"
#include "common/Localization.h"
#include "entry/Commands.h"
#include "settings/Settings.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace brim {

namespace {

/// A gzip file is judged by what its first megabyte unpacks to.
constexpr std::int64_t gzipSampleLimit = 1'048'576;
/// `--verbose` scores every set over this much of the file.
constexpr std::size_t verboseScoredBytes = 65'536;
constexpr std::size_t verboseLines = 6;

void printLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
}

/// The setting `fallbackEncoding`; an id no set has reads as Windows-1252.
const TextEncoding& fallbackEncoding() {
    const TextEncoding* named = TextEncoding::byId(Settings::shared().fallbackEncoding());
    return named ? *named : TextEncoding::cp1252();
}

/// Files from this size on are mapped rather than read: detection looks at three samples only.
constexpr std::int64_t mapThreshold = 1'048'576;

/// What a gzip file's start unpacks to. Throws `Gzip::Failure` when nothing can be unpacked from data
/// that is not an empty member.
std::vector<std::uint8_t> unpacked(std::span<const std::uint8_t> bytes) {
    std::vector<std::uint8_t> start = Gzip::unpackPrefix(bytes, gzipSampleLimit);
    if (start.empty()) static_cast<void>(Gzip::decompress(bytes, gzipSampleLimit));
    return start;
}

/// The bytes to detect from: the file's, or for a gzip file the start of what it unpacks to. Throws
/// `BrimError` for a file that can't be read and a gzip file of which nothing can be unpacked.
std::unique_ptr<ByteSource> sourceToDetect(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error && static_cast<std::int64_t>(size) >= mapThreshold) {
        std::unique_ptr<MappedSource> mapped;
        try {
            mapped = std::make_unique<MappedSource>(path);
        } catch (const BrimError&) {
            // Not mappable: read it whole below.
        }
        if (mapped) {
            std::uint8_t magic[3] = {};
            mapped->read({0, 3}, magic);
            if (!Gzip::isGzip(magic)) return mapped;
            std::vector<std::uint8_t> start;
            mapped->withBytes({0, mapped->count()}, [&](std::span<const std::uint8_t> bytes) { start = unpacked(bytes); });
            return std::make_unique<MemorySource>(std::move(start));
        }
    }
    std::vector<std::uint8_t> bytes = MemorySource::bytesOfFile(path);
    if (Gzip::isGzip(bytes)) bytes = unpacked(bytes);
    return std::make_unique<MemorySource>(std::move(bytes));
}

void printCandidates(const ByteSource& source) {
    std::vector<std::uint8_t> scored(static_cast<std::size_t>(
        std::min(source.readableCount(), static_cast<std::int64_t>(verboseScoredBytes))));
    source.read({0, static_cast<std::int64_t>(scored.size())}, scored.data());
    std::vector<std::pair<double, const TextEncoding*>> scores;
    for (const auto& encoding : TextEncoding::all()) {
        if (const auto value = EncodingScorer::score(scored, encoding)) scores.emplace_back(*value, &encoding);
    }
    std::stable_sort(scores.begin(), scores.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    for (std::size_t i = 0; i < std::min(scores.size(), verboseLines); ++i) {
        printLine(L("    %-10s %.2f", scores[i].second->id, scores[i].first));
    }
}

} // namespace

int encodingCommand(Arguments arguments) {
    const bool verbose = hasFlag(arguments, "--verbose");
    const TextEncoding& fallback = fallbackEncoding();
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        const std::string& path = arguments[i];
        if (path.starts_with("--")) continue;
        std::unique_ptr<ByteSource> source;
        try {
            source = sourceToDetect(path);
        } catch (const BrimError&) {
            printError(L("cannot read %@", path));
            continue;
        }
        const std::string name = std::filesystem::path(path).filename().string();
        const EncodingDetection detection = EncodingDetector::detect(*source, fallback, Gzip::uncompressedName(name));
        if (verbose) printCandidates(*source);
        // Truncated, not rounded; the small allowance keeps 0.6 from printing as 59.
        const auto percent = static_cast<std::int64_t>(detection.confidence * 100 + 1e-9);
        std::string line = name + ": " + detection.encoding.localisedName();
        if (detection.hasBOM) line += " + BOM";
        line += "  " + std::to_string(percent) + "%  " + detection.reason;
        printLine(line);
    }
    return 0;
}

} // namespace brim
