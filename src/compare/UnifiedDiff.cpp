#include "compare/UnifiedDiff.h"

#include "compare/LineDiff.h"

#include <algorithm>
#include <cstring>

namespace brim::UnifiedDiff {

namespace {

constexpr std::string_view noNewlineMark = "\\ No newline at end of file\n";
constexpr std::size_t functionNameLimit = 80;   // what `git diff` keeps of the line
constexpr std::size_t binaryProbeLength = 8'000;

std::string lineString(std::span<const std::uint8_t> line) {
    return {reinterpret_cast<const char*>(line.data()), line.size()};
}

bool isFunctionLine(std::string_view line) {
    if (line.empty()) return false;
    const auto first = static_cast<unsigned char>(line.front());
    return (first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z') || first == '_' || first == '$';
}

std::string functionName(std::string_view line) {
    std::string_view name = line.substr(0, functionNameLimit);
    while (!name.empty() && std::strchr(" \t\n\v\f\r", name.back()) != nullptr) name.remove_suffix(1);
    return std::string(name);
}

/// The range header of one side: "start,length", with `git diff`'s conventions: an empty side names
/// the line before it, and a length of 1 is left out.
std::string rangeText(std::int64_t start, std::int64_t length) {
    std::string text = std::to_string(length == 0 ? start : start + 1);
    if (length != 1) text += "," + std::to_string(length);
    return text;
}

/// Makes the last lines part of a change where the hashes matched a line that ends in a newline
/// with one that does not: the hashes can't tell them apart, but a patch must.
std::vector<GitHunk> changingLastLines(std::vector<GitHunk> hunks, std::int64_t oldCount, std::int64_t newCount,
                                       bool oldEndsWithNewline, bool newEndsWithNewline) {
    if (oldCount == 0 || newCount == 0) return hunks;
    GitHunk last{GitHunk::Kind::modified, {newCount - 1, newCount}, {oldCount - 1, oldCount}};
    // A last hunk reaches the end of both sides or of neither: lines after it are matched pairs.
    if (!hunks.empty() && hunks.back().oldLines.upper == oldCount && hunks.back().lines.upper == newCount) {
        const GitHunk& tail = hunks.back();
        if (!tail.oldLines.empty() && !tail.lines.empty()) return hunks;
        // The side with no lines in the tail had its last line matched with a line that is not last
        // on the other side, and so ends in a newline there.
        const bool matchedLastLacksNewline = tail.oldLines.empty() ? !oldEndsWithNewline : !newEndsWithNewline;
        if (!matchedLastLacksNewline) return hunks;
        last.oldLines.lower = tail.oldLines.lower - 1;
        last.lines.lower = tail.lines.lower - 1;
        hunks.pop_back();
    } else if (oldEndsWithNewline == newEndsWithNewline) {
        return hunks;   // the last lines are matched with each other and end alike
    }
    if (!hunks.empty() && hunks.back().oldLines.upper == last.oldLines.lower && hunks.back().lines.upper == last.lines.lower) {
        // Nothing matches between them any more: one change.
        last.oldLines.lower = hunks.back().oldLines.lower;
        last.lines.lower = hunks.back().lines.lower;
        hunks.pop_back();
    }
    hunks.push_back(last);
    return hunks;
}

/// The patch over lines given by `oldLine(i)` and `newLine(i)`, so that a whole file's patch needs
/// no string per line.
template <typename OldLine, typename NewLine>
std::string patchOf(std::span<const GitHunk> hunks, std::int64_t oldCount, std::int64_t newCount, OldLine oldLine,
                    NewLine newLine, const PatchOptions& options) {
    if (hunks.empty()) return {};
    const std::int64_t context = std::max<std::int64_t>(0, options.context);

    std::string out = "--- " + options.oldLabel + "\n+++ " + options.newLabel + "\n";
    const auto emitOld = [&](char mark, std::int64_t i) {
        if (i < 0 || i >= oldCount) return;
        out.push_back(mark);
        out += oldLine(i);
        out.push_back('\n');
        if (i == oldCount - 1 && !options.oldEndsWithNewline) out += noNewlineMark;
    };
    const auto emitNew = [&](std::int64_t i) {
        if (i < 0 || i >= newCount) return;
        out.push_back('+');
        out += newLine(i);
        out.push_back('\n');
        if (i == newCount - 1 && !options.newEndsWithNewline) out += noNewlineMark;
    };

    std::string function;
    std::int64_t functionSearchLimit = -1;
    std::size_t first = 0;
    while (first < hunks.size()) {
        std::size_t last = first;
        while (last + 1 < hunks.size() && hunks[last + 1].oldLines.lower - hunks[last].oldLines.upper <= 2 * context) {
            ++last;
        }
        const std::int64_t oldStart = std::max<std::int64_t>(0, hunks[first].oldLines.lower - context);
        const std::int64_t newStart = std::max<std::int64_t>(0, hunks[first].lines.lower - context);
        const std::int64_t oldEnd = std::min(oldCount, hunks[last].oldLines.upper + context);
        const std::int64_t newEnd = std::min(newCount, hunks[last].lines.upper + context);

        out += "@@ -" + rangeText(oldStart, oldEnd - oldStart) + " +" + rangeText(newStart, newEnd - newStart) + " @@";
        if (options.functionNames) {
            // Searched upward from just above the group, down to where the last search began; what
            // the last group found stands when nothing closer is found.
            for (std::int64_t i = std::min(oldStart - 1, oldCount - 1); i > functionSearchLimit && i >= 0; --i) {
                if (isFunctionLine(oldLine(i))) {
                    function = functionName(oldLine(i));
                    break;
                }
            }
            functionSearchLimit = oldStart - 1;
            if (!function.empty()) out += " " + function;
        }
        out.push_back('\n');

        std::int64_t cursor = oldStart;
        for (std::size_t k = first; k <= last; ++k) {
            const GitHunk& hunk = hunks[k];
            for (; cursor < hunk.oldLines.lower; ++cursor) emitOld(' ', cursor);
            for (std::int64_t i = hunk.oldLines.lower; i < hunk.oldLines.upper; ++i) emitOld('-', i);
            for (std::int64_t i = hunk.lines.lower; i < hunk.lines.upper; ++i) emitNew(i);
            cursor = hunk.oldLines.upper;
        }
        for (; cursor < oldEnd; ++cursor) emitOld(' ', cursor);
        first = last + 1;
    }
    return out;
}

/// Where each line starts, split at LF only as `patchLines` splits, and one past the end.
std::vector<std::size_t> lineStarts(std::span<const std::uint8_t> bytes) {
    std::vector<std::size_t> starts;
    starts.reserve(bytes.size() / 40 + 2);
    const std::uint8_t* const base = bytes.data();
    const std::uint8_t* p = base;
    const std::uint8_t* const end = base + bytes.size();
    while (p < end) {
        starts.push_back(static_cast<std::size_t>(p - base));
        const auto* newline = static_cast<const std::uint8_t*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        if (newline == nullptr) {
            p = end;
            break;
        }
        p = newline + 1;
    }
    // One past the last line's LF, or where it would be on a last line without one.
    starts.push_back(!bytes.empty() && bytes.back() == '\n' ? bytes.size() : bytes.size() + 1);
    return starts;
}

} // namespace

std::string repairedUTF8(std::span<const std::uint8_t> text) {
    std::string out;
    out.reserve(text.size());
    constexpr std::string_view replacement = "\xEF\xBF\xBD";
    std::size_t i = 0;
    while (i < text.size()) {
        const std::uint8_t lead = text[i];
        if (lead < 0x80) {
            out.push_back(static_cast<char>(lead));
            ++i;
            continue;
        }
        std::size_t length = 0;
        std::uint8_t low = 0x80;
        std::uint8_t high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) length = 2;
        else if (lead == 0xE0) length = 3, low = 0xA0;
        else if (lead >= 0xE1 && lead <= 0xEC) length = 3;
        else if (lead == 0xED) length = 3, high = 0x9F;
        else if (lead >= 0xEE && lead <= 0xEF) length = 3;
        else if (lead == 0xF0) length = 4, low = 0x90;
        else if (lead >= 0xF1 && lead <= 0xF3) length = 4;
        else if (lead == 0xF4) length = 4, high = 0x8F;
        std::size_t good = length == 0 ? 0 : 1;
        while (good > 0 && good < length && i + good < text.size()) {
            const std::uint8_t next = text[i + good];
            const std::uint8_t lower = good == 1 ? low : std::uint8_t{0x80};
            const std::uint8_t upper = good == 1 ? high : std::uint8_t{0xBF};
            if (next < lower || next > upper) break;
            ++good;
        }
        if (length != 0 && good == length) {
            out.append(reinterpret_cast<const char*>(text.data() + i), length);
            i += length;
        } else {
            // The maximal subpart of a sequence that went wrong becomes one replacement.
            out.append(replacement);
            i += std::max<std::size_t>(good, 1);
        }
    }
    return out;
}

std::vector<std::string> lines(std::span<const std::uint8_t> bytes) {
    std::vector<std::string> result;
    for (const auto line : LineDiff::split(bytes)) result.push_back(repairedUTF8(line));
    return result;
}

std::vector<std::string> patchLines(std::span<const std::uint8_t> bytes) {
    std::vector<std::string> result;
    const std::uint8_t* p = bytes.data();
    const std::uint8_t* const end = p + bytes.size();
    while (p < end) {
        const auto* newline = static_cast<const std::uint8_t*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        const std::uint8_t* lineEnd = newline != nullptr ? newline : end;
        result.push_back(lineString({p, lineEnd}));
        if (newline == nullptr) break;
        p = newline + 1;
    }
    return result;
}

std::string patch(std::span<const GitHunk> hunks, std::span<const std::string> oldLines,
                  std::span<const std::string> newLines, const PatchOptions& options) {
    return patchOf(
        hunks, static_cast<std::int64_t>(oldLines.size()), static_cast<std::int64_t>(newLines.size()),
        [&](std::int64_t i) { return std::string_view(oldLines[static_cast<std::size_t>(i)]); },
        [&](std::int64_t i) { return std::string_view(newLines[static_cast<std::size_t>(i)]); }, options);
}

std::string filePatch(std::span<const std::uint8_t> oldBytes, std::span<const std::uint8_t> newBytes,
                      PatchOptions options) {
    const std::vector<std::uint64_t> oldHashes = LineDiff::lineHashes(oldBytes);
    const std::vector<std::uint64_t> newHashes = LineDiff::lineHashes(newBytes);
    std::vector<GitHunk> hunks = LineDiff::hunks(oldHashes, newHashes);
    options.oldEndsWithNewline = oldBytes.empty() || oldBytes.back() == '\n';
    options.newEndsWithNewline = newBytes.empty() || newBytes.back() == '\n';
    const auto oldCount = static_cast<std::int64_t>(oldHashes.size());
    const auto newCount = static_cast<std::int64_t>(newHashes.size());
    if (!options.oldEndsWithNewline || !options.newEndsWithNewline) {
        hunks = changingLastLines(std::move(hunks), oldCount, newCount, options.oldEndsWithNewline,
                                  options.newEndsWithNewline);
    }
    if (hunks.empty()) return {};
    const auto oldStarts = lineStarts(oldBytes);
    const auto newStarts = lineStarts(newBytes);
    const auto lineOf = [](std::span<const std::uint8_t> bytes, const std::vector<std::size_t>& starts, std::int64_t i) {
        const auto index = static_cast<std::size_t>(i);
        return std::string_view(reinterpret_cast<const char*>(bytes.data()) + starts[index],
                                starts[index + 1] - 1 - starts[index]);
    };
    return patchOf(
        hunks, oldCount, newCount, [&](std::int64_t i) { return lineOf(oldBytes, oldStarts, i); },
        [&](std::int64_t i) { return lineOf(newBytes, newStarts, i); }, options);
}

bool isBinary(std::span<const std::uint8_t> bytes) {
    const std::size_t probe = std::min(bytes.size(), binaryProbeLength);
    return probe > 0 && std::memchr(bytes.data(), 0, probe) != nullptr;
}

} // namespace brim::UnifiedDiff
