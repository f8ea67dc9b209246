#include "charsets/LineEnding.h"

#include "charsets/TextEncoding.h"

namespace brim {

namespace {

struct Names {
    std::string_view word;
    std::string_view displayName;
    std::string_view shortName;
    std::string_view utf8;
};

constexpr std::array<Names, 9> names = {{
    {"lf", "LF (Unix)", "LF", "\n"},
    {"crlf", "CRLF (Windows)", "CRLF", "\r\n"},
    {"cr", "CR (Classic Mac)", "CR", "\r"},
    {"nel", "NEL (Next Line)", "NEL", "\xC2\x85"},
    {"ls", "LS (Line Separator)", "LS", "\xE2\x80\xA8"},
    {"ps", "PS (Paragraph Separator)", "PS", "\xE2\x80\xA9"},
    {"vt", "VT (Vertical Tab)", "VT", "\x0B"},
    {"ff", "FF (Form Feed)", "FF", "\x0C"},
    {"lfcr", "LFCR (reversed)", "LFCR", "\n\r"},
}};

const Names& namesOf(LineEnding ending) { return names[static_cast<std::size_t>(ending)]; }

} // namespace

std::string_view word(LineEnding ending) { return namesOf(ending).word; }
std::string_view displayName(LineEnding ending) { return namesOf(ending).displayName; }
std::string_view shortName(LineEnding ending) { return namesOf(ending).shortName; }
std::string_view utf8Bytes(LineEnding ending) { return namesOf(ending).utf8; }

std::optional<LineEnding> lineEndingForWord(std::string_view text) {
    for (LineEnding ending : allLineEndings) {
        if (word(ending) == text) {
            return ending;
        }
    }
    return std::nullopt;
}

bool isSpelledIn(LineEnding ending, const TextEncoding& encoding) {
    const std::string_view text = utf8Bytes(ending);
    const EncodedText encoded = encoding.encode(text);
    if (encoded.unwritable != 0 || encoded.bytes.empty()) {
        return false;
    }
    return encoding.decode(encoded.bytes) == text;
}

LineEnding spelledIn(LineEnding ending, const TextEncoding& encoding) {
    if (encoding.id == "utf8" || isSpelledIn(ending, encoding)) {
        return ending;
    }
    return LineEnding::lf;
}

std::vector<std::uint8_t> bytesIn(LineEnding ending, const TextEncoding& encoding) {
    if (encoding.id == "utf8") {
        const std::string_view text = utf8Bytes(ending);
        return {text.begin(), text.end()};
    }
    const LineEnding spelled = spelledIn(ending, encoding);
    return encoding.encode(utf8Bytes(spelled)).bytes;
}

} // namespace brim
