// Apple's Devanagari, Gurmukhi and Gujarati sets: mostly one byte per character, with a few byte
// pairs that read as one character (0xA1 0xE9 is OM, though 0xA1 alone is candrabindu and 0xE9 nukta).
// Checked against Apple's own mapping files, read here, not against our generated tables.

#include "bytes/MemorySource.h"
#include "charsets/Charsets.h"
#include "charsets/TextEncoding.h"
#include "charsets/Transcoder.h"
#include "charsets/UnicodeText.h"
#include "common/UserResources.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace brim {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// A code as a number: the byte itself, or 0x10000 + lead * 256 + second byte for a pair.
using Code = std::uint32_t;

Code codeOf(const Bytes& bytes) { return bytes.size() == 1 ? bytes[0] : 0x10000 | Code(bytes[0]) << 8 | bytes[1]; }
Bytes bytesOf(Code code) {
    if (code < 0x100) return {static_cast<std::uint8_t>(code)};
    return {static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code)};
}

struct MappingFile {
    std::map<Code, std::u16string> entries;     // one- and two-byte codes; 00-1F and 7F are identity
    std::map<std::uint8_t, std::vector<std::uint8_t>> trailsByLead;
};

struct Set {
    const char* id;
    const char* file;
};

constexpr Set sets[] = {
    {"macdevanagari", "DEVANAGA.TXT"},
    {"macgurmukhi", "GURMUKHI.TXT"},
    {"macgujarati", "GUJARATI.TXT"},
};

std::u16string unitsOf(const std::string& value) {
    // "0x094D+0x200C", possibly with a direction tag such as "<LR>+".
    const std::string plain = std::regex_replace(value, std::regex("<[A-Z]{2}>\\+?"), "");
    std::u16string units;
    std::stringstream pieces(plain);
    std::string piece;
    while (std::getline(pieces, piece, '+')) {
        if (piece.empty()) continue;
        UnicodeText::appendUTF16(units, static_cast<char32_t>(std::stoul(piece, nullptr, 16)));
    }
    return units;
}

MappingFile readMappingFile(const std::string& name) {
    MappingFile mapping;
    std::ifstream stream(std::string(BRIM_CHARSET_DATA) + "/apple/" + name);
    EXPECT_TRUE(stream.is_open()) << "cannot read " << BRIM_CHARSET_DATA << "/apple/" << name;
    std::string line;
    while (std::getline(stream, line)) {
        line = line.substr(0, line.find('#'));
        std::stringstream fields(line);
        std::string code;
        std::string value;
        if (!(fields >> code >> value)) continue;
        Bytes bytes;
        std::stringstream parts(code);
        std::string part;
        while (std::getline(parts, part, '+')) bytes.push_back(static_cast<std::uint8_t>(std::stoul(part, nullptr, 16)));
        if (bytes.size() == 2) mapping.trailsByLead[bytes[0]].push_back(bytes[1]);
        mapping.entries.emplace(codeOf(bytes), unitsOf(value));
    }
    for (Code b = 0; b < 0x20; ++b) mapping.entries.emplace(b, std::u16string(1, char16_t(b)));
    mapping.entries.emplace(0x7F, u"\u007F");
    return mapping;
}

const TextEncoding& named(const std::string& id) {
    const TextEncoding* encoding = TextEncoding::byId(id);
    if (encoding == nullptr) {
        ADD_FAILURE() << "no encoding " << id;
        return TextEncoding::utf8();
    }
    return *encoding;
}

std::string utf8(const std::u16string& units) { return UnicodeText::toUTF8(units); }
Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }
std::string textOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

/// Every two-byte code, each between plain letters, then each lead byte alone before a byte it makes no
/// pair with, before a lead of another pair, and at the very end; with the text the file gives for it.
struct Sample {
    Bytes bytes;
    std::u16string text;
};

Sample sampleOf(const MappingFile& mapping) {
    Sample sample;
    auto add = [&](const Bytes& code) {
        sample.bytes.insert(sample.bytes.end(), code.begin(), code.end());
        sample.text += mapping.entries.at(codeOf(code));
    };
    for (const auto& [code, units] : mapping.entries) {
        if (code < 0x10000) continue;
        add({'a'});
        add(bytesOf(code));
        add({'b'});
    }
    for (const auto& [lead, trails] : mapping.trailsByLead) {
        // A byte that makes no pair with this lead: the first assigned high byte that is no trail of it.
        std::uint8_t stranger = 0;
        for (unsigned b = 0xA1; b < 0x100 && stranger == 0; ++b) {
            const auto byte = static_cast<std::uint8_t>(b);
            if (mapping.entries.contains(byte) && std::ranges::find(trails, byte) == trails.end()) stranger = byte;
        }
        EXPECT_NE(stranger, 0);
        add({lead});
        add({'x'});
        add({lead});
        add({stranger});
        add({lead});
        add({'\n'});
        // Before another pair: this lead is read alone, and the pair after it whole.
        for (const auto& [other, otherTrails] : mapping.trailsByLead) {
            if (std::ranges::find(trails, other) != trails.end()) continue;
            add({lead});
            add({other, otherTrails.front()});
            break;
        }
    }
    add({mapping.trailsByLead.begin()->first});     // a lead byte that ends the input
    return sample;
}

Bytes convert(const TextEncoding& from, const TextEncoding& to, const Bytes& bytes) {
    Transcoder::BlockConverter converter(from, to);
    Bytes out;
    converter.convert(bytes, out);
    converter.finish(out);
    EXPECT_EQ(converter.report().invalid, 0);
    EXPECT_EQ(converter.report().unwritable, 0);
    return out;
}

// MARK: the file, entry by entry

TEST(TwoByteCodes, everyEntryOfApplesFilesDecodesAndEncodesAsTheFileSays) {
    for (const Set& set : sets) {
        SCOPED_TRACE(set.id);
        const TextEncoding& encoding = named(set.id);
        const MappingFile mapping = readMappingFile(set.file);
        ASSERT_GT(mapping.entries.size(), 150u);
        ASSERT_FALSE(mapping.trailsByLead.empty());
        for (const auto& [number, units] : mapping.entries) {
            SCOPED_TRACE(::testing::Message() << "code " << std::hex << number);
            const Bytes code = bytesOf(number);
            EXPECT_EQ(encoding.decodeToUTF16(code), units);
            const EncodedText encoded = encoding.encode(utf8(units));
            EXPECT_EQ(encoded.bytes, code);
            EXPECT_EQ(encoded.unwritable, 0);
            // The streaming converters agree with the whole-text ones.
            EXPECT_EQ(textOf(convert(encoding, TextEncoding::utf8(), code)), utf8(units));
            EXPECT_EQ(convert(TextEncoding::utf8(), encoding, bytesOf(utf8(units))), code);
        }
        EXPECT_FALSE(encoding.isSingleByte());
        ASSERT_NE(Charsets::entry(set.id), nullptr);
        EXPECT_FALSE(Charsets::entry(set.id)->isSingleByte);
    }
}

// MARK: pairs in running text

TEST(TwoByteCodes, aLeadByteReadsAloneUnlessItsSecondByteFollows) {
    for (const Set& set : sets) {
        SCOPED_TRACE(set.id);
        const TextEncoding& encoding = named(set.id);
        const Sample sample = sampleOf(readMappingFile(set.file));
        EXPECT_EQ(encoding.decodeToUTF16(sample.bytes), sample.text);
        EXPECT_EQ(encoding.decode(sample.bytes), utf8(sample.text));
        EXPECT_EQ(textOf(convert(encoding, TextEncoding::utf8(), sample.bytes)), utf8(sample.text));
        // And back: pairs are written as their two bytes, the lone readings as one.
        EXPECT_EQ(encoding.encode(utf8(sample.text)).bytes, sample.bytes);
        EXPECT_EQ(convert(TextEncoding::utf8(), encoding, bytesOf(utf8(sample.text))), sample.bytes);
    }
}

TEST(TwoByteCodes, aBlockEdgeAnywhereNeverSplitsAPair) {
    for (const Set& set : sets) {
        SCOPED_TRACE(set.id);
        const TextEncoding& encoding = named(set.id);
        const Sample sample = sampleOf(readMappingFile(set.file));
        const std::string text = utf8(sample.text);
        for (std::size_t cut = 0; cut <= sample.bytes.size(); ++cut) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            Transcoder::BlockConverter decoder(encoding, TextEncoding::utf8());
            Bytes out;
            decoder.convert(std::span(sample.bytes).first(cut), out);
            // The sample ends in a lone lead byte: it waits for a block that may complete it.
            EXPECT_LE(decoder.pending(), 1);
            if (cut == sample.bytes.size()) {
                EXPECT_EQ(decoder.pending(), 1);
            }
            decoder.convert(std::span(sample.bytes).subspan(cut), out);
            decoder.finish(out);
            ASSERT_EQ(textOf(out), text);
            EXPECT_EQ(decoder.report().invalid, 0);
        }
        const Bytes characters = bytesOf(text);
        for (std::size_t cut = 0; cut <= characters.size(); ++cut) {
            Transcoder::BlockConverter encoder(TextEncoding::utf8(), encoding);
            Bytes out;
            encoder.convert(std::span(characters).first(cut), out);
            encoder.convert(std::span(characters).subspan(cut), out);
            encoder.finish(out);
            ASSERT_EQ(out, sample.bytes) << "cut at " << cut;
        }
    }
}

TEST(TwoByteCodes, workingCopiesAndSavesInTinyBlocksKeepEveryPair) {
    testing::TemporaryFolder folder;
    UserResources::setOverrideRoot(folder.path() / "support");
    for (const Set& set : sets) {
        SCOPED_TRACE(set.id);
        const TextEncoding& encoding = named(set.id);
        const Sample sample = sampleOf(readMappingFile(set.file));
        MemorySource source(sample.bytes);
        for (std::int64_t blockSize : {1, 2, 3, 5}) {
            Transcoder::Checkpoints checkpoints;
            const auto outcome = Transcoder::transcodeToWorkingCopy(
                source, encoding, {.substituting = false, .checkpoints = &checkpoints, .blockSize = blockSize});
            ASSERT_TRUE(outcome.workingCopy);
            std::ifstream stream(*outcome.workingCopy, std::ios::binary);
            const std::string copy{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
            EXPECT_EQ(copy, utf8(sample.text)) << "block size " << blockSize;
            // No checkpoint stands between a lead byte and its second byte.
            for (std::size_t k = 0; k < checkpoints.count(); ++k) {
                const Bytes head(sample.bytes.begin(), sample.bytes.begin() + checkpoints.file[k]);
                ASSERT_EQ(encoding.decode(head), copy.substr(0, checkpoints.copy[k])) << "checkpoint " << k;
            }
            std::filesystem::remove(*outcome.workingCopy);

            // Saving the copy back, a byte of UTF-8 at a time, with line endings rewritten in the source.
            Transcoder::StreamingConverter saver(TextEncoding::utf8(), encoding, LineEnding::crlf);
            Bytes saved;
            for (std::size_t at = 0; at < copy.size(); at += static_cast<std::size_t>(blockSize)) {
                const Bytes out = saver.convert(bytesOf(copy.substr(at, static_cast<std::size_t>(blockSize))));
                saved.insert(saved.end(), out.begin(), out.end());
            }
            const Bytes tail = saver.flush();
            saved.insert(saved.end(), tail.begin(), tail.end());
            Bytes expected;
            for (const std::uint8_t byte : sample.bytes) {
                if (byte == '\n') expected.push_back('\r');
                expected.push_back(byte);
            }
            EXPECT_EQ(saved, expected) << "block size " << blockSize;
        }
    }
    UserResources::setOverrideRoot(std::nullopt);
}

// MARK: the generated data

TEST(TwoByteCodes, generatedPairsAreCheckedWhenParsed) {
    EXPECT_EQ(Charsets::parsePairs(""), (std::map<std::uint16_t, std::u16string>{}));
    EXPECT_EQ(Charsets::parsePairs("A1E9:0950 E8E8:094D.200C"),
              (std::map<std::uint16_t, std::u16string>{{0xA1E9, u"\u0950"}, {0xE8E8, u"\u094D\u200C"}}));
    for (const char* bad : {"A1E9", "A1E9:", "A1E9:0950.", "A1E:0950", "41E9:0950", "A1E9:0950 A1E9:0951",
                            "A1E9:09G0", "A1E9;0950"}) {
        EXPECT_THROW((void)Charsets::parsePairs(bad), std::invalid_argument) << bad;
    }
}

} // namespace
} // namespace brim
