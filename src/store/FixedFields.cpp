#include "store/FixedFields.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>

namespace brim {

namespace {

/// The byte offset of each character of a UTF-8 line, and the line's length at the end. A byte
/// that starts no valid sequence counts as one character, so columns never stall.
std::vector<std::size_t> characterStarts(std::string_view line) {
    std::vector<std::size_t> starts;
    starts.reserve(line.size() + 1);
    std::size_t i = 0;
    while (i < line.size()) {
        starts.push_back(i);
        const auto lead = static_cast<std::uint8_t>(line[i]);
        std::size_t length = 1;
        if (lead >= 0xC2 && lead <= 0xDF) length = 2;
        else if (lead >= 0xE0 && lead <= 0xEF) length = 3;
        else if (lead >= 0xF0 && lead <= 0xF4) length = 4;
        if (length > 1) {
            for (std::size_t k = 1; k < length; ++k) {
                if (i + k >= line.size() || (static_cast<std::uint8_t>(line[i + k]) & 0xC0) != 0x80) {
                    length = 1;
                    break;
                }
            }
        }
        i += length;
    }
    starts.push_back(line.size());
    return starts;
}

std::int64_t characterCount(std::string_view line) {
    return static_cast<std::int64_t>(characterStarts(line).size()) - 1;
}

std::vector<std::string_view> firstNonEmpty(const std::vector<std::string>& lines) {
    std::vector<std::string_view> sample;
    for (const auto& line : lines) {
        if (line.empty()) continue;
        sample.push_back(line);
        if (sample.size() == FixedFields::sampleLines) break;
    }
    return sample;
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

std::optional<std::int64_t> width(std::string_view digits) {
    std::int64_t value = 0;
    const auto* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || stop != end || digits.empty()) return std::nullopt;
    if (value < 1 || value > FixedFields::maximumWidth) return std::nullopt;
    return value;
}

} // namespace

namespace FixedFields {

std::vector<std::int64_t> detect(const std::vector<std::string>& lines) {
    const auto sample = firstNonEmpty(lines);
    if (sample.size() < 2) return {};

    std::vector<std::vector<std::size_t>> starts;
    std::int64_t lineWidth = 0;
    for (const auto line : sample) {
        starts.push_back(characterStarts(line));
        lineWidth = std::max(lineWidth, static_cast<std::int64_t>(starts.back().size()) - 1);
    }
    if (lineWidth < 4) return {};

    // A column is blank when every line long enough to reach it has a space there.
    std::vector<bool> blank(static_cast<std::size_t>(lineWidth), true);
    for (std::size_t l = 0; l < sample.size(); ++l) {
        const auto& offsets = starts[l];
        for (std::size_t c = 0; c + 1 < offsets.size(); ++c) {
            if (sample[l][offsets[c]] != ' ') blank[c] = false;
        }
    }

    std::vector<std::int64_t> fieldStarts;
    std::int64_t blankRun = 0;
    for (std::size_t c = 0; c < blank.size(); ++c) {
        if (blank[c]) {
            ++blankRun;
            continue;
        }
        if (c == 0 || blankRun >= 2) fieldStarts.push_back(static_cast<std::int64_t>(c));
        blankRun = 0;
    }
    if (fieldStarts.size() < 2) return {};
    return widths(fieldStarts, lineWidth);
}

bool looksLikeRecords(const std::vector<std::string>& lines) {
    const auto sample = firstNonEmpty(lines);
    if (sample.size() < 3) return false;
    const std::int64_t length = characterCount(sample.front());
    if (length < 8) return false;
    for (const auto line : sample) {
        if (characterCount(line) != length) return false;
    }
    return detect(lines).size() > 2;
}

std::optional<std::vector<Field>> parseLayout(std::string_view text) {
    std::vector<Field> fields;
    if (text.find(',') != std::string_view::npos) {
        std::size_t at = 0;
        while (at <= text.size()) {
            const std::size_t comma = std::min(text.find(',', at), text.size());
            const auto piece = trimmed(text.substr(at, comma - at));
            at = comma + 1;
            if (piece.empty()) continue;
            const std::size_t space = std::min(piece.find_first_of(" \t"), piece.size());
            const auto value = width(piece.substr(0, space));
            if (!value) return std::nullopt;
            fields.push_back({*value, std::string(trimmed(piece.substr(space)))});
        }
    } else {
        std::size_t at = 0;
        while (at < text.size()) {
            const std::size_t start = text.find_first_not_of(" \t\r\n", at);
            if (start == std::string_view::npos) break;
            const std::size_t stop = std::min(text.find_first_of(" \t\r\n", start), text.size());
            const auto value = width(text.substr(start, stop - start));
            if (!value) return std::nullopt;
            fields.push_back({*value, {}});
            at = stop;
        }
    }
    if (fields.empty()) return std::nullopt;
    return fields;
}

std::string describe(const std::vector<Field>& fields) {
    const bool named = std::any_of(fields.begin(), fields.end(), [](const Field& f) { return !f.name.empty(); });
    std::string text;
    for (const auto& f : fields) {
        if (!text.empty()) text += named ? ", " : " ";
        text += std::to_string(f.width);
        if (!f.name.empty()) text += " " + f.name;
    }
    return text;
}

std::vector<std::string> split(std::string_view line, const std::vector<std::int64_t>& widthList) {
    const auto offsets = characterStarts(line);
    const auto columns = static_cast<std::int64_t>(offsets.size()) - 1;
    std::vector<std::string> fields;
    fields.reserve(widthList.size());
    std::int64_t column = 0;
    for (std::size_t i = 0; i < widthList.size(); ++i) {
        const std::int64_t begin = std::min(column, columns);
        const bool last = i + 1 == widthList.size();
        const std::int64_t end = last ? columns : std::min(column + std::max<std::int64_t>(widthList[i], 0), columns);
        const auto from = offsets[static_cast<std::size_t>(begin)];
        const auto to = offsets[static_cast<std::size_t>(end)];
        auto piece = line.substr(from, to - from);
        while (!piece.empty() && (piece.back() == ' ' || piece.back() == '\0')) piece.remove_suffix(1);
        while (!piece.empty() && piece.front() == ' ') piece.remove_prefix(1);
        fields.emplace_back(piece);
        column = end;
    }
    return fields;
}

std::vector<std::int64_t> starts(const std::vector<std::int64_t>& widthList) {
    std::vector<std::int64_t> result;
    result.reserve(widthList.size());
    std::int64_t column = 0;
    for (const auto w : widthList) {
        result.push_back(column);
        column += w;
    }
    return result;
}

std::vector<std::int64_t> widths(const std::vector<std::int64_t>& startList, std::int64_t lineWidth) {
    std::vector<std::int64_t> boundaries;
    for (const auto s : startList) {
        if (s < 0 || s >= lineWidth) continue;
        if (boundaries.empty() && s != 0) boundaries.push_back(0);
        if (boundaries.empty() || s > boundaries.back()) boundaries.push_back(s);
    }
    std::vector<std::int64_t> result;
    for (std::size_t i = 0; i < boundaries.size(); ++i) {
        const std::int64_t end = i + 1 < boundaries.size() ? boundaries[i + 1] : lineWidth;
        result.push_back(end - boundaries[i]);
    }
    return result;
}

std::optional<std::size_t> field(std::int64_t column, const std::vector<std::int64_t>& widthList) {
    if (column < 0) return std::nullopt;
    std::int64_t end = 0;
    for (std::size_t i = 0; i < widthList.size(); ++i) {
        end += widthList[i];
        if (column < end) return i;
    }
    return std::nullopt;
}

std::vector<std::int64_t> limited(const std::vector<std::int64_t>& widthList, std::int64_t lineWidth) {
    std::vector<std::int64_t> result;
    std::int64_t column = 0;
    for (const auto w : widthList) {
        if (w < 1 || column >= lineWidth) break;
        result.push_back(std::min(w, lineWidth - column));
        column += result.back();
    }
    return result;
}

} // namespace FixedFields

std::vector<FixedFields::Field> FieldLayout::fields() const {
    std::vector<FixedFields::Field> result;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        result.push_back({widths[i], i < names.size() ? names[i] : std::string()});
    }
    return result;
}

bool FieldLayout::glob(std::string_view pattern, std::string_view name) {
    const std::string p(pattern);
    const std::string n(name);
    return ::fnmatch(p.c_str(), n.c_str(), 0) == 0;
}

namespace FieldLayouts {

std::optional<FieldLayout> layout(std::string_view name, const std::vector<FieldLayout>& layouts) {
    for (const auto& candidate : layouts) {
        if (!candidate.widths.empty() && FieldLayout::glob(candidate.pattern, name)) return candidate;
    }
    return std::nullopt;
}

} // namespace FieldLayouts

} // namespace brim
